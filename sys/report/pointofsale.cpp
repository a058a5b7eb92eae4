// pointofsale.cpp - point-of-sale mode: the application gets the key strokes as PS/2 scan code bytes.
//
//   ucOldOPOSPacket ─┐           released ──► break bytes ─┐
//                    ├─ compare ─┤                         ├──► one event a byte ──► application
//   report ──────────┘           pressed ───► make bytes ──┘
//                                    └─ a key that repeats: the typematic delay starts
//
// Each report ends the repeat of the one before, so a key that stays held while another one changes stops
// repeating. When the definition says so the report leaves without its keys. Runs on the report road instead
// of the report engine; the repeats themselves come from hotkeys/typematic.cpp.
#include "report/report.h"

#include "control/notification.h"
#include "ground/sums.h"
#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "log/log.h"

namespace
{
enum : ULONG { SCAN_CODE_PAUSE = 0xE11D45 };
enum : UCHAR { USAGE_LEFT_CONTROL = 0xE0, BREAK_BIT = 0x80 };

// One report's work: the keyboard, the report before, and the definition, null when there is none.
struct Sale {
    PDEVICE_OBJECT device;
    const UCHAR* pOld;
    const KeyDefinition* pDefinition;
};

// What the key table says of a key that has a scan code.
struct Key {
    ULONG ulScanCode;
    UCHAR ucHasBreak;
    UCHAR ucTypematic;
};

bool IsSwallowing(const Sale& sale)
{
    return sale.pDefinition != nullptr && static_cast<UCHAR>(sale.pDefinition->ulSwallow) == 1;
}

ULONG IdOf(const KeyDefinition* pDefinition)
{
    return pDefinition != nullptr ? pDefinition->ulId : 0;
}

void SendByte(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, UCHAR ucByte)
{
    (void)QueueEvent(device, IdOf(pDefinition), ucByte, 0, NOTIFY_SOURCE_REPORT); // a loss is seen as a gap
}

void StartRepeat(const Sale& sale, ULONG ulScanCode)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(sale.device);
    WriteShared(hotkeys.ulActiveHotkeyId, IdOf(sale.pDefinition));
    WriteShared(hotkeys.usTypematicScan, ulScanCode);
    StartTypematic(hotkeys);
}

void SendMake(const Sale& sale, const Key& key)
{
    SendOPOSScanCode(sale.device, key.ulScanCode, 0, key.ucHasBreak, key.ucTypematic, sale.pDefinition);
    if (key.ucTypematic) {
        StartRepeat(sale, key.ulScanCode);
    }
}

void SendBreak(const Sale& sale, const Key& key)
{
    SendOPOSScanCode(sale.device, key.ulScanCode, 1, key.ucHasBreak, key.ucTypematic, sale.pDefinition);
}

// A key of the standard report. Keys without scan code send nothing.
bool FindKey(UCHAR ucUsage, Key* pKey)
{
    return NT_SUCCESS(HIDToPS2(ucUsage, &pKey->ulScanCode, &pKey->ucHasBreak, &pKey->ucTypematic));
}

void PressKey(const Sale& sale, UCHAR ucUsage)
{
    Key key;
    if (FindKey(ucUsage, &key)) {
        SendMake(sale, key);
    }
}

void ReleaseKey(const Sale& sale, UCHAR ucUsage)
{
    Key key;
    if (FindKey(ucUsage, &key)) {
        SendBreak(sale, key);
    }
}

void CompareModifiers(const Sale& sale, UCHAR ucModifiers)
{
    for (UCHAR i = 0; i < 8; i++) {
        UCHAR ucBit = static_cast<UCHAR>(1 << i);
        if (((ucModifiers ^ sale.pOld[0]) & ucBit) == 0) {
            continue;
        }
        bool bPressed = (ucModifiers & ucBit) != 0;
        Trace(SaleModifier, IndexOf(sale.device), ModifierNames[i], bPressed);
        UCHAR ucUsage = static_cast<UCHAR>(USAGE_LEFT_CONTROL + i);
        if (bPressed) {
            PressKey(sale, ucUsage);
        } else {
            ReleaseKey(sale, ucUsage);
        }
    }
}

// Eight bytes: modifiers first, then the keys that left, then those that came.
void CompareStandardReport(const Sale& sale, ULONG ulLen, PUCHAR pBuf)
{
    CompareModifiers(sale, pBuf[0]);
    if (IsSwallowing(sale)) {
        pBuf[0] = 0;
    }
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen && sale.pOld[i] != 0; i++) {
        if (!IsKeyInPacket(sale.pOld[i], pBuf, ulLen)) {
            ReleaseKey(sale, sale.pOld[i]);
        }
    }
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen && pBuf[i] != 0; i++) {
        if (!IsKeyInPacket(pBuf[i], sale.pOld, ulLen)) {
            PressKey(sale, pBuf[i]);
        }
        if (IsSwallowing(sale)) {
            pBuf[i] = 0;
        }
    }
}

// One usage a report, usBytes wide, or as wide as its value asks for when usBytes is 0. The same usage once
// more is a break and a make.
bool FindUsage(USHORT usUsage, USHORT usBytes, Key* pKey)
{
    if (usBytes == 0) {
        usBytes = usUsage > 0xFF ? 2 : 1;
    }
    return NT_SUCCESS(HIDToPS2Ex(usUsage, usBytes, &pKey->ulScanCode, &pKey->ucHasBreak, &pKey->ucTypematic));
}

void CompareUsages(const Sale& sale, USHORT usOld, USHORT usNew, USHORT usBytes)
{
    Key key;
    if (usOld != 0 && FindUsage(usOld, usBytes, &key)) {
        SendBreak(sale, key);
    }
    if (usNew != 0 && FindUsage(usNew, usBytes, &key)) {
        SendMake(sale, key);
    }
}

USHORT UsageAt(const UCHAR* pBytes)
{
    return static_cast<USHORT>(pBytes[1] << 8 | pBytes[0]);
}

// Three bytes: the usage stands behind a byte of another meaning.
void CompareLongConsumerReport(const Sale& sale, PUCHAR pBuf)
{
    USHORT usNew = UsageAt(pBuf + 1);
    CompareUsages(sale, UsageAt(sale.pOld + 1), usNew, 0);
    if (usNew != 0 && IsSwallowing(sale)) {
        pBuf[1] = 0;
        pBuf[2] = 0;
    }
}

// Two bytes: the usage is always looked up as a wide one, and only its high byte is taken out.
void CompareShortConsumerReport(const Sale& sale, PUCHAR pBuf)
{
    USHORT usNew = UsageAt(pBuf);
    CompareUsages(sale, UsageAt(sale.pOld), usNew, 2);
    if (usNew != 0 && IsSwallowing(sale)) {
        pBuf[1] = 0;
    }
}

// The first ulBytes of the report before; a definition that is added meanwhile clears it.
// Lock: takes BufferLock.
void ReadOldPacket(BufferFields& buffers, PUCHAR pOld, ULONG ulBytes)
{
    LockScope lock(buffers.BufferLock);
    RtlCopyMemory(pOld, buffers.ucOldOPOSPacket, ulBytes);
}

void WriteOldPacket(BufferFields& buffers, const UCHAR* pReceived, ULONG ulBytes)
{
    LockScope lock(buffers.BufferLock);
    RtlCopyMemory(buffers.ucOldOPOSPacket, pReceived, ulBytes);
}
} // namespace

// Tells the application which keys came and went since the last report; reports of a length that carries no
// keys are only remembered, as far as there is room.
// IRQL <= DISPATCH. Lock: takes BufferLock, KeyDefLock, TypematicLock, NotifyLock, one at a time.
// Owns: nothing; pBuf is rewritten. Fails: never.
NTSTATUS HandleOPOSPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    UCHAR ucOld[sizeof(buffers.ucOldOPOSPacket)];
    UCHAR ucReceived[sizeof(ucOld)];
    const ULONG ulKept = LowerOf(ulLen, sizeof(ucOld));
    ReadOldPacket(buffers, ucOld, sizeof(ucOld));
    LogHexDump("(HandleOPOSPacket) new packet:", ulLen, pBuf);
    LogHexDump("(HandleOPOSPacket) old packet:", ulKept, ucOld);
    CancelTypematicOf(FieldsOf<HotkeyFields>(device));
    RtlCopyMemory(ucReceived, pBuf, ulKept);

    KeyDefinition definition;
    bool bDefined = GetDefinitionOfType(device, 5, &definition);
    const Sale sale = {device, ucOld, bDefined ? &definition : nullptr};
    switch (ulLen) {
    case 8:
        CompareStandardReport(sale, ulLen, pBuf);
        break;
    case 3:
        CompareLongConsumerReport(sale, pBuf);
        break;
    case 2:
        CompareShortConsumerReport(sale, pBuf);
        break;
    default:
        break;
    }
    WriteOldPacket(buffers, ucReceived, ulKept);
    LogHexDump("(HandleOPOSPacket) new packet:", ulLen, pBuf);
    return STATUS_SUCCESS;
}

// Sends the bytes of a scan code, each as an event of its own with a signal behind it: a make, or a break for
// keys that have one. Pause has none, so its make carries both.
// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: never; a full queue drops the event.
NTSTATUS SendOPOSScanCode(PDEVICE_OBJECT device, ULONG ulScanCode, UCHAR ucBreak, UCHAR ucHasBreak,
                          UCHAR ucTypematic, const KeyDefinition* pDefinition)
{
    Trace(SaleScanCode, IndexOf(device), ulScanCode, ucBreak, ucTypematic);
    if (ucBreak && !ucHasBreak) {
        return STATUS_SUCCESS;
    }
    for (int iShift = 24; iShift >= 0; iShift -= 8) {
        UCHAR ucByte = static_cast<UCHAR>(ulScanCode >> iShift);
        if (ucByte != 0) {
            SendByte(device, pDefinition, ucBreak ? ucByte | BREAK_BIT : ucByte);
            SignalNotifyEvent(device);
        }
    }
    if (ulScanCode == SCAN_CODE_PAUSE && !ucBreak) {
        const UCHAR ucPauseBreak[] = {0xE1, 0x9D, 0xC5};
        for (UCHAR ucByte : ucPauseBreak) {
            SendByte(device, pDefinition, ucByte);
        }
        SignalNotifyEvent(device);
    }
    return STATUS_SUCCESS;
}
