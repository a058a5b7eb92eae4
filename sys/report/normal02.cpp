// normal02.cpp - the standard report with simple matching, chosen by RunDiagNormalPacket02.
//
// No comparison with the previous report and no keys held back: a hotkey is down while its first key stands
// in the report with its modifiers matched, and that key is always taken out.
#include "report/report.h"

#include "hotkeys/hotkeys.h"
#include "log/log.h"

namespace
{
// Unless the up event went out with the down event, it goes out now.
void ReleaseHotkey(PDEVICE_OBJECT device, HotkeyEntry& entry, const char* pszLog)
{
    if (!entry.ucDown) {
        return;
    }
    if (!FilterContextOf(device)->ucSendUpEventImmediately) {
        if (pszLog != nullptr) {
            LogPrintf(LOG_TRAFFIC, 1, "%s", pszLog);
        }
        NotifyHotkeyEvent(device, entry.ulId, 0);
    }
    entry.ucDown = 0;
}

void PressHotkey(PDEVICE_OBJECT device, HotkeyEntry& entry)
{
    entry.ucDown = 1;
    NotifyHotkeyEvent(device, entry.ulId, 1);
    LogPrintf(LOG_TRAFFIC, 1, "(DiagNormalPacket02) Fire DOWN event");
    if (FilterContextOf(device)->ucSendUpEventImmediately) {
        NotifyHotkeyEvent(device, entry.ulId, 0);
    }
}

// Takes the hotkey's key out of the report. The byte that moves in after a removal is not looked at, and
// the press of the hotkey ends the walk. Returns whether the key was there.
bool TakeHotkeyOut(PDEVICE_OBJECT device, HotkeyEntry& entry, ULONG ulLen, PUCHAR pBuf)
{
    bool bFound = false;
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen && pBuf[i] != 0; i++) {
        if (pBuf[i] != entry.ucKeys[0]) {
            continue;
        }
        bFound = true;
        (void)RemoveKeyFromBuffer(pBuf, ulLen, i);
        if (!entry.ucDown) {
            PressHotkey(device, entry);
            break;
        }
    }
    return bFound;
}
} // namespace

// IRQL <= DISPATCH. Owns: nothing; pBuf is rewritten. Fails: never.
NTSTATUS DiagNormalPacket02(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    LogHexDump("(DiagNormalPacket02) new packet:", ulLen, pBuf);
    if (ulLen == 8) {
        CheckModifierOnlyHotkeys(device, ulLen, pBuf);
        UpdateModifierFlags(device, pBuf, 8, 1);
    }
    UpdateHotkeyModifierMatch(device);
    for (HotkeyEntry& entry : HotkeyWalk(FilterContextOf(device))) {
        if (entry.ucKeys[0] == 0) {
            continue;
        }
        if (entry.ucModMatch != 1) {
            ReleaseHotkey(device, entry, nullptr);
        } else if (!TakeHotkeyOut(device, entry, ulLen, pBuf)) {
            ReleaseHotkey(device, entry, "(DiagNormalPacket02) Fire UP event (1)");
        }
    }
    LogHexDump("(DiagNormalPacket02) new packet:", ulLen, pBuf);
    return STATUS_SUCCESS;
}
