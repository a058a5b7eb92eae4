// modeswitch.cpp - the mode hotkey in a report: found, and taken out of it.
//
//   ulKorvexHotkey, lowest byte first:  0, 1 the bytes to look for   2 how many of them   3 where
//
//   where 0   an 8-byte report, positions 2 to 7     where 1   a 3-byte report, from byte 1
//   where 2   a 2-byte report, from byte 0           else      nowhere
//
// More than two bytes are never found; no bytes at all are found at the first place looked at.
#include "macro/macro.h"

#include "ground/sums.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/fields.h"

namespace
{
enum : UCHAR { STANDARD_REPORT = 0, THREE_BYTE_REPORT = 1, TWO_BYTE_REPORT = 2 };
enum : ULONG { FIRST_KEY = 2, LAST_KEY = 7 };
const ULONG NOWHERE = ~0u;

struct ModeHotkey {
    UCHAR ucBytes[2];
    UCHAR ucCount;
    UCHAR ucWhere;
};

// Fails: the feature is off, or there is no report.
NTSTATUS GetModeHotkey(ULONG ulLen, const UCHAR* pBuf, ModeHotkey* pHotkey)
{
    const ULONG ulHotkey = ReadShared(SettingsOfMacro.ulKorvexHotkey);
    if (ulHotkey == 0 || ulLen == 0 || pBuf == nullptr) {
        Trace(ModeHotkeyNotSought, ulHotkey, ulLen);
        return STATUS_UNSUCCESSFUL;
    }
    *pHotkey = {{static_cast<UCHAR>(ulHotkey), static_cast<UCHAR>(ulHotkey >> 8)},
                static_cast<UCHAR>(ulHotkey >> 16),
                static_cast<UCHAR>(ulHotkey >> 24)};
    return STATUS_SUCCESS;
}

bool CanMatch(const ModeHotkey& hotkey)
{
    return hotkey.ucCount <= sizeof(hotkey.ucBytes);
}

bool IsAt(const ModeHotkey& hotkey, const UCHAR* pAt)
{
    return RtlEqualMemory(hotkey.ucBytes, pAt, hotkey.ucCount);
}

// Where the hotkey lies in the report.
ULONG FindHotkey(const ModeHotkey& hotkey, ULONG ulLen, const UCHAR* pBuf)
{
    if (hotkey.ucWhere == STANDARD_REPORT && ulLen == 8) {
        for (ULONG i = FIRST_KEY; i + hotkey.ucCount <= ulLen; i++) {
            if (IsAt(hotkey, pBuf + i)) {
                return i;
            }
        }
    } else if (hotkey.ucWhere == THREE_BYTE_REPORT && ulLen == 3) {
        return IsAt(hotkey, pBuf + 1) ? 1 : NOWHERE;
    } else if (hotkey.ucWhere == TWO_BYTE_REPORT && ulLen == 2) {
        return IsAt(hotkey, pBuf) ? 0 : NOWHERE;
    }
    return NOWHERE;
}

// One byte leaves a standard report: those behind it move down, up to the first 0 or the hotkey's last place.
void RemoveByte(const ModeHotkey& hotkey, PUCHAR pBuf, ULONG ulPosition)
{
    const ULONG ulLast = LowerOf(8u - hotkey.ucCount, LAST_KEY);
    for (ULONG i = ulPosition; i < ulLast; i++) {
        pBuf[i] = pBuf[i + 1];
        if (pBuf[i] == 0) {
            return;
        }
    }
    pBuf[ulLast] = 0;
}

void RemoveHotkey(const ModeHotkey& hotkey, PUCHAR pBuf, ULONG ulPosition)
{
    if (hotkey.ucWhere == STANDARD_REPORT) {
        RemoveByte(hotkey, pBuf, ulPosition);
    } else if (hotkey.ucWhere == THREE_BYTE_REPORT) {
        pBuf[1] = 0;
        pBuf[2] = 0;
    } else {
        pBuf[1] = 0;
    }
}
} // namespace

// *pFound becomes 1 when the report carries the mode hotkey, else it stays.
// IRQL <= DISPATCH. Fails: the feature is off, or there is no report.
NTSTATUS CheckForKorvexModeSwitch(PDEVICE_OBJECT, ULONG ulLen, PUCHAR pBuf, PUCHAR pFound)
{
    ModeHotkey hotkey;
    NTSTATUS status = GetModeHotkey(ulLen, pBuf, &hotkey);
    if (!NT_SUCCESS(status) || !CanMatch(hotkey)) {
        return status;
    }
    LogHexDump("(CheckForKorvexModeSwitch) usKorvexHotkey ", hotkey.ucCount, hotkey.ucBytes);
    if (pFound != nullptr && FindHotkey(hotkey, ulLen, pBuf) != NOWHERE) {
        *pFound = 1;
    }
    return STATUS_SUCCESS;
}

// Takes the mode hotkey out of the report, which keeps its length.
// IRQL <= DISPATCH. Owns: rewrites the report. Fails: the feature is off, or there is no report.
NTSTATUS RemoveKorvexHotkeyFromPacket(PDEVICE_OBJECT, ULONG ulLen, PUCHAR pBuf)
{
    ModeHotkey hotkey;
    NTSTATUS status = GetModeHotkey(ulLen, pBuf, &hotkey);
    if (!NT_SUCCESS(status) || !CanMatch(hotkey)) {
        return status;
    }
    const ULONG ulPosition = FindHotkey(hotkey, ulLen, pBuf);
    if (ulPosition != NOWHERE) {
        RemoveHotkey(hotkey, pBuf, ulPosition);
    }
    LogHexDump("(RemoveKorvexHotkeyFromPacket) TransferBuffer ", ulLen, pBuf);
    return STATUS_SUCCESS;
}
