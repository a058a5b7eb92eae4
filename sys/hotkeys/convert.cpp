// convert.cpp - from PS/2 scan codes to the bytes that this keyboard's reports carry.
//
//   ordinary keyboards   HID usages, one byte a key, two (high byte first) for the few wide ones
//   Jaalaa and Chic      the controller's pattern, four bytes a key, most significant first
//
// Runs at PASSIVE_LEVEL when definitions change; the keyboard's type is the one known then.
#include "hotkeys/hotkeys.h"

#include "log/events.h"
#include "log/log.h"
#include "report/keytable.h"

namespace
{
// One of the two controllers whose reports carry keys as bits.
struct Controller {
    const char* pszDevice;
    const char* pszConverted;
    ULONG KeyTableRow::*pPattern;
};

const Controller Jaalaa = {"(ConvertPS2ToHID) Device with Jaalaa electronics",
                           "(ConvertPS2ToHID) PS2Scan=0x%08x, ulHIDJaalaa=0x%08X", &KeyTableRow::ulHIDJaalaa};
const Controller Chic = {"(ConvertPS2ToHID) Device with Chic electronics",
                         "(ConvertPS2ToHID) PS2Scan=0x%08x, ulHIDChic=0x%08X", &KeyTableRow::ulHIDChic};

} // namespace

// The next key of the sequence: one byte, or a prefix with the bytes that belong to it. *pulIndex moves on
// to the last byte taken. Fails: the sequence ends behind a prefix.
NTSTATUS NextScanCode(const KeyDefinition* pDefinition, PULONG pulIndex, PULONG pulScanCode)
{
    const UCHAR* pScan = &pDefinition->ucScans[*pulIndex];
    ULONG ulLeft = pDefinition->usScanCount - *pulIndex - 1;
    switch (pScan[0]) {
    case 0xE1:
        if (ulLeft < 2) {
            return STATUS_UNSUCCESSFUL;
        }
        *pulScanCode = 0xE10000u + (static_cast<ULONG>(pScan[1]) << 8) + pScan[2];
        *pulIndex += 2;
        return STATUS_SUCCESS;
    case 0xE0:
        if (ulLeft < 1) {
            return STATUS_UNSUCCESSFUL;
        }
        if (pDefinition->usScanCount == 4 && *pulIndex == 0 && pScan[1] == 0x2A && pScan[2] == 0xE0 &&
            pScan[3] == 0x37) {
            *pulScanCode = 0xE02AE037;
            *pulIndex += 3;
        } else {
            *pulScanCode = 0xE000u + pScan[1];
            *pulIndex += 1;
        }
        return STATUS_SUCCESS;
    default:
        *pulScanCode = pScan[0];
        return STATUS_SUCCESS;
    }
}

namespace
{
// The low ulBytes bytes of the value, most significant first. Fails: no room.
NTSTATUS AppendKeyBytes(HotkeyEntry* pEntry, ULONG ulValue, ULONG ulBytes)
{
    if (pEntry->ulKeyCount + ulBytes > HOTKEY_KEYS) {
        return STATUS_UNSUCCESSFUL;
    }
    while (ulBytes-- > 0) {
        pEntry->ucKeys[pEntry->ulKeyCount++] = static_cast<UCHAR>(ulValue >> (8 * ulBytes));
    }
    return STATUS_SUCCESS;
}

NTSTATUS AppendPattern(HotkeyEntry* pEntry, ULONG ulScanCode, const Controller& controller)
{
    LogPrintf(LOG_DETAIL, 1, "%s", controller.pszDevice);
    ULONG ulPattern = 0;
    for (const KeyTableRow& row : KeyTable) {
        if (row.ulScanCode == ulScanCode) {
            ulPattern = row.*controller.pPattern;
            break;
        }
    }
    if (ulPattern == 0) {
        LogPrintf(LOG_DETAIL, 1, "(ConvertPS2ToHID) PS2ToHID returned an error, leaving (PS2Scan=0x%08x)",
                  static_cast<unsigned>(ulScanCode));
        return STATUS_UNSUCCESSFUL;
    }
    LogPrintf(LOG_DETAIL, 1, controller.pszConverted, static_cast<unsigned>(ulScanCode),
              static_cast<unsigned>(ulPattern));
    return AppendKeyBytes(pEntry, ulPattern, 4);
}

NTSTATUS AppendUsage(HotkeyEntry* pEntry, ULONG ulScanCode)
{
    USHORT usUsage;
    USHORT usUsageBytes;
    NTSTATUS status = PS2ToHID(ulScanCode, &usUsage, &usUsageBytes);
    if (!NT_SUCCESS(status)) {
        Trace(ScanCodeUnknown, ulScanCode);
        return status;
    }
    return AppendKeyBytes(pEntry, usUsage, usUsageBytes);
}

NTSTATUS AppendKey(HotkeyEntry* pEntry, ULONG ulScanCode, ULONG ulKbdType)
{
    switch (ulKbdType) {
    case JaalaaEXTENDEDKbdType:
        return AppendPattern(pEntry, ulScanCode, Jaalaa);
    case ChicEXTENDEDKbdType:
        return AppendPattern(pEntry, ulScanCode, Chic);
    default:
        return AppendUsage(pEntry, ulScanCode);
    }
}
} // namespace

// Fills the entry's key bytes from the definition's scan codes; nothing else of the entry is set.
// IRQL = PASSIVE. Fails: a cut sequence, an unknown scan code, more than 32 scan or key bytes.
NTSTATUS ConvertPS2ToHID(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, HotkeyEntry* pEntry)
{
    RtlZeroMemory(pEntry, sizeof(*pEntry));
    if (pDefinition->usScanCount > sizeof(pDefinition->ucScans)) {
        return STATUS_UNSUCCESSFUL;
    }
    ULONG ulKbdType = ReadShared(FieldsOf<FrameFields>(device).KbdType);
    for (ULONG i = 0; i < pDefinition->usScanCount; i++) {
        ULONG ulScanCode;
        NTSTATUS status = NextScanCode(pDefinition, &i, &ulScanCode);
        if (NT_SUCCESS(status)) {
            status = AppendKey(pEntry, ulScanCode, ulKbdType);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}
