// extended.cpp - power, consumer and extended-controller reports.
//
//   DiagPowerPacket         2 bytes, two key codes: the hotkey pass, key by key
//   DiagJaalaaPacket        keys as bits of a word W: a hotkey's bits H are cut out of it
//   DiagJaalaaPacketPower   report ID and power bits, the word P: a hotkey is P as a whole
//
// A hotkey of the two controllers keeps its pattern in its first four key bytes, which read as a little-endian
// word has its bits where the reports have them. All hotkeys of a keyboard share one list, so each kind of
// report also ends the held hotkeys of the other kind. Runs on the report road; packet.cpp tells the kinds
// apart.
#include "report/report.h"

#include "hotkeys/bufferfields.h"
#include "hotkeys/hotkeys.h"
#include "log/log.h"
#include "report/fields.h"

namespace
{
enum : ULONG { POWER_PACKET_BYTES = 2, MINIMUM_KEY_AREA = 4, MAXIMUM_KEY_AREA = 8 };

void WriteWord(PUCHAR pBytes, ULONG ulWord)
{
    for (ULONG i = 0; i < 4; i++) {
        pBytes[i] = static_cast<UCHAR>(ulWord >> (8 * i));
    }
}

// The hotkey's keys are in the report, or not: each change is an event of its own, at once.
void SetHotkeyDown(HotkeyPass& pass, HotkeyEntry& entry, UCHAR ucDown)
{
    if (entry.ucDown == ucDown) {
        if (ucDown) {
            pass.TraceState(entry, "stays");
        }
        return;
    }
    pass.TraceState(entry, ucDown ? "down" : "up");
    if (ucDown) {
        entry.ucDown = 1;
        NotifyHotkeyEvent(pass.Device(), entry.ulId, 1);
    } else {
        NotifyHotkeyEvent(pass.Device(), entry.ulId, 0);
        entry.ucDown = 0;
    }
    pass.Settle(entry);
}

// Hands each key that left the report to the pass.
void PassReleasedPowerKeys(HotkeyPass& pass, ULONG ulLen, const UCHAR* pBuf, PULONG pulLen)
{
    UCHAR* pOld = FieldsOf<ReportFields>(pass.Device()).ucOldPowerPacket;
    UCHAR ucHotkeyReleased = 0; // not looked at: the keys of this report are handed on all the same
    for (ULONG i = 0; i < *pulLen && pOld[i] != 0; i++) {
        if (!IsKeyInPacket(pOld[i], pBuf, ulLen)) {
            ProcessHotkeyScan(pass, pOld[i], 1, pOld, &i, pulLen, &ucHotkeyReleased);
        }
    }
}

// Hands each key of the report to the pass. A key taken out at position 0 leaves the index one before it,
// where nothing is read before the loop steps on.
void PassPressedPowerKeys(HotkeyPass& pass, PUCHAR pBuf, PULONG pulLen)
{
    UCHAR ucHotkeyReleased = 0; // as above
    for (ULONG i = 0; i < *pulLen && pBuf[i] != 0; i++) {
        ProcessHotkeyScan(pass, pBuf[i], 0, pBuf, &i, pulLen, &ucHotkeyReleased);
    }
}
} // namespace

// Compares a power report with the previous one and hands its keys to the hotkey pass. Keys still held back
// are given to the coming reports, whatever they are.
// IRQL <= DISPATCH. Owns: nothing; pBuf is rewritten. Fails: a length other than 2.
NTSTATUS DiagPowerPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    ReportFields& reports = FieldsOf<ReportFields>(device);
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    if (ulLen != POWER_PACKET_BYTES) {
        return STATUS_UNSUCCESSFUL;
    }
    LogHexDump("(DiagPowerPacket) new packet:", ulLen, pBuf);
    LogHexDump("(DiagPowerPacket) old packet:", ulLen, reports.ucOldPowerPacket);
    const UCHAR ucReceived[POWER_PACKET_BYTES] = {pBuf[0], pBuf[1]};
    HotkeyPass pass(device);
    UpdateHotkeyModifierMatch(pass);

    ULONG ulCurrentLen = ulLen;
    PassReleasedPowerKeys(pass, ulLen, pBuf, &ulCurrentLen);
    PassPressedPowerKeys(pass, pBuf, &ulCurrentLen);
    if (ReadShared(buffers.usSwallowCount) != 0) {
        UCHAR ucUsage;
        while (GetDataFromSwallowBuffer(device, &ucUsage)) {
            (void)AddDataToInsertBuffer(device, &ucUsage); // a full buffer loses the key
        }
    }
    RtlCopyMemory(reports.ucOldPowerPacket, ucReceived, sizeof(ucReceived));
    LogHexDump("(DiagPowerPacket) new packet:", ulCurrentLen, pBuf);
    return STATUS_SUCCESS;
}

// Cuts the keys of each hotkey that is held whole out of the report, for the hotkeys behind it and for the
// system. pBuf starts behind the report ID; only its first four bytes are keys.
// IRQL <= DISPATCH. Owns: nothing; pBuf is rewritten. Fails: fewer than 4 or more than 8 bytes.
NTSTATUS DiagJaalaaPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    LogHexDump("(DiagJaalaaPacket) new packet:", ulLen, pBuf);
    if (ulLen < MINIMUM_KEY_AREA || ulLen > MAXIMUM_KEY_AREA) {
        return STATUS_UNSUCCESSFUL;
    }
    HotkeyPass pass(device);
    UpdateHotkeyModifierMatch(pass);
    ULONG ulKeys = ReadPattern(pBuf);
    for (HotkeyEntry& entry : pass.Extended(ulKeys)) {
        ULONG ulHotkey = ReadPattern(entry.ucKeys);
        pass.TraceLook(entry, pass.IsArmed(entry));
        if ((ulKeys & ulHotkey) == ulHotkey && pass.IsArmed(entry)) {
            SetHotkeyDown(pass, entry, 1);
            ulKeys &= ~ulHotkey;
            WriteWord(pBuf, ulKeys);
        } else {
            SetHotkeyDown(pass, entry, 0);
        }
    }
    LogHexDump("(DiagJaalaaPacket) new packet:", ulLen, pBuf);
    return STATUS_SUCCESS;
}

// The power report of both controllers: a hotkey is held when it is the whole report, which then leaves
// without power bits. pBuf starts at the report ID, which counts only together with a power bit.
// IRQL <= DISPATCH. Owns: nothing; pBuf[1] is rewritten. Fails: a length other than 2.
NTSTATUS DiagJaalaaPacketPower(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    LogHexDump("(DiagJaalaaPacketPower) new packet:", ulLen, pBuf);
    if (ulLen != POWER_PACKET_BYTES) {
        return STATUS_UNSUCCESSFUL;
    }
    HotkeyPass pass(device);
    UpdateHotkeyModifierMatch(pass);
    ULONG ulPower = pBuf[1] == 0 ? 0 : static_cast<ULONG>(pBuf[1]) << 8 | pBuf[0];
    for (HotkeyEntry& entry : pass.Extended(ulPower)) {
        ULONG ulHotkey = ReadPattern(entry.ucKeys);
        pass.TraceLook(entry, pass.IsArmed(entry));
        if (ulHotkey == ulPower && pass.IsArmed(entry)) {
            SetHotkeyDown(pass, entry, 1);
            ulPower &= ~ulHotkey;
            pBuf[1] = static_cast<UCHAR>(ulPower);
        } else {
            SetHotkeyDown(pass, entry, 0);
        }
    }
    LogHexDump("(DiagJaalaaPacketPower) new packet:", 2, pBuf);
    return STATUS_SUCCESS;
}
