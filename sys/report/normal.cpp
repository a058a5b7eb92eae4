// normal.cpp - the standard report of 8 bytes and its 3-byte variant.
//
//   released keys of the previous report ─┐
//   keys of this report ──────────────────┴► ProcessHotkeyScan, one by one
//   keys still held back ──► InsertBuf
//   Fn and prefix keys ──► out of the report
//
// One length serves all walks: the pass shortens it when it takes a key out.
#include "report/report.h"

#include "hotkeys/bufferfields.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "log/log.h"
#include "report/fields.h"

namespace
{
// Mostly 8 bytes, which are one word.
void CopyReport(PUCHAR pTo, const UCHAR* pFrom, ULONG ulLen)
{
    if (ulLen == 8) {
        RtlCopyMemory(pTo, pFrom, 8);
    } else {
        RtlCopyMemory(pTo, pFrom, ulLen);
    }
}

bool IsFnOrPrefix(UCHAR ucUsage)
{
    return ucUsage == USAGE_FN || IsPrefixUsage(ucUsage);
}

// Hands each key that left the report to the pass. Returns 1 when a hotkey that had fired was released.
UCHAR PassReleasedKeys(HotkeyPass& pass, ULONG ulLen, const UCHAR* pBuf, PULONG pulLen)
{
    UCHAR* pOld = FieldsOf<ReportFields>(pass.Device()).ucOldPacket;
    UCHAR ucHotkeyReleased = 0;
    for (ULONG i = FirstKeyPosition(ulLen); i < *pulLen && pOld[i] != 0; i++) {
        if (!IsKeyInPacket(pOld[i], pBuf, ulLen)) {
            ProcessHotkeyScan(pass, pOld[i], 1, pOld, &i, pulLen, &ucHotkeyReleased);
        }
    }
    return ucHotkeyReleased;
}

// Hands each key of the report to the pass. Returns the position at which the walk ended.
ULONG PassPressedKeys(HotkeyPass& pass, ULONG ulLen, PUCHAR pBuf, PULONG pulLen)
{
    UCHAR ucHotkeyReleased = 0; // not looked at: the report of the release is over
    ULONG i = FirstKeyPosition(ulLen);
    for (; i < *pulLen && pBuf[i] != 0; i++) {
        ProcessHotkeyScan(pass, pBuf[i], 0, pBuf, &i, pulLen, &ucHotkeyReleased);
    }
    return i;
}

// Keys held back for a hotkey that did not complete are given back.
void GiveBackHeldKeys(PDEVICE_OBJECT device)
{
    UCHAR ucUsage;
    while (GetDataFromSwallowBuffer(device, &ucUsage)) {
        if (!IsFnOrPrefix(ucUsage)) {
            (void)AddDataToInsertBuffer(device, &ucUsage); // a full buffer loses the key
        } else {
            Trace(KeysTaken, IndexOf(device), {&ucUsage, 1}, "Fn or a prefix");
        }
    }
}

// From ulFrom on, takes the Fn and prefix keys out; the same position is looked at again after each.
ULONG StripFnAndPrefixKeys(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulFrom)
{
    ULONG i = ulFrom;
    while (i < ulLen && pBuf[i] != 0) {
        if (IsFnOrPrefix(pBuf[i])) {
            Trace(KeysTaken, IndexOf(device), {pBuf + i, 1}, "Fn or a prefix");
            ulLen = RemoveKeyFromBuffer(pBuf, ulLen, i);
        } else {
            i++;
        }
    }
    return ulLen;
}
} // namespace

// Compares a standard report with the previous one and hands its keys to the hotkey pass.
// IRQL <= DISPATCH. Owns: nothing; pBuf is rewritten. Fails: never.
NTSTATUS DiagNormalPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    ReportFields& reports = FieldsOf<ReportFields>(device);
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    LogHexDump("(DiagNormalPacket) new packet:", ulLen, pBuf);
    LogHexDump("(DiagNormalPacket) old packet:", ulLen, reports.ucOldPacket);
    HotkeyPass pass(device);
    UCHAR ucReceived[8] = {};
    CopyReport(ucReceived, pBuf, ulLen);
    if (ulLen == 8) {
        CheckModifierOnlyHotkeys(pass, pBuf);
        UpdateModifierFlags(device, pBuf, 8, 1);
    }
    UpdateHotkeyModifierMatch(pass);

    ULONG ulCurrentLen = ulLen;
    if (PassReleasedKeys(pass, ulLen, pBuf, &ulCurrentLen)) {
        for (ULONG i = FirstKeyPosition(ulLen); i < ulLen && pBuf[i] != 0; i++) {
            Trace(KeysTaken, IndexOf(device), {pBuf + i, 1}, "the release of a hotkey");
            pBuf[i] = 0;
        }
    }
    ULONG ulStopped = PassPressedKeys(pass, ulLen, pBuf, &ulCurrentLen);
    if (ReadShared(buffers.usSwallowCount) != 0) {
        GiveBackHeldKeys(device);
    }
    ULONG ulFrom = ulCurrentLen == 8 ? 2 : ulCurrentLen == 3 ? 1 : ulStopped;
    ulCurrentLen = StripFnAndPrefixKeys(device, pBuf, ulCurrentLen, ulFrom);

    CopyReport(reports.ucOldPacket, ucReceived, ulLen);
    LogHexDump("(DiagNormalPacket) new packet:", ulCurrentLen, pBuf);
    return STATUS_SUCCESS;
}
