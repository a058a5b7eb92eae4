// normal02.cpp - the standard report with simple matching, chosen by RunDiagNormalPacket02.
//
// No comparison with the previous report and no keys held back: a hotkey is down while its first key stands
// in the report with its modifiers matched, and that key is always taken out.
#include "report/report.h"

#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "log/log.h"

namespace
{
// Unless the up event went out with the down event, it goes out now.
void ReleaseHotkey(HotkeyPass& pass, HotkeyEntry& entry, const char* pszLog)
{
    if (!entry.ucDown) {
        return;
    }
    if (!pass.Hotkeys().ucSendUpEventImmediately) {
        if (pszLog != nullptr) {
            LogPrintf(LOG_TRAFFIC, 1, "%s", pszLog);
        }
        NotifyHotkeyEvent(pass.Device(), entry.ulId, 0);
    }
    entry.ucDown = 0;
    pass.Settle(entry);
    pass.TraceState(entry, "up");
}

void PressHotkey(HotkeyPass& pass, HotkeyEntry& entry)
{
    entry.ucDown = 1;
    pass.Settle(entry);
    pass.TraceState(entry, "down");
    NotifyHotkeyEvent(pass.Device(), entry.ulId, 1);
    LogPrintf(LOG_TRAFFIC, 1, "(DiagNormalPacket02) Fire DOWN event");
    if (pass.Hotkeys().ucSendUpEventImmediately) {
        NotifyHotkeyEvent(pass.Device(), entry.ulId, 0);
    }
}

// Takes the hotkey's key out of the report. The byte that moves in after a removal is not looked at, and
// the press of the hotkey ends the walk. Returns whether the key was there.
bool TakeHotkeyOut(HotkeyPass& pass, HotkeyEntry& entry, ULONG ulLen, PUCHAR pBuf)
{
    bool bFound = false;
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen && pBuf[i] != 0; i++) {
        if (pBuf[i] != entry.ucKeys[0]) {
            continue;
        }
        bFound = true;
        Trace(KeysTaken, IndexOf(pass.Device()), {pBuf + i, 1}, "a hotkey");
        (void)RemoveKeyFromBuffer(pBuf, ulLen, i);
        if (!entry.ucDown) {
            PressHotkey(pass, entry);
            break;
        }
    }
    return bFound;
}
bool IsAnyKeyIn(const HotkeyEntry& entry, const UCHAR* pKeys, ULONG ulKeys)
{
    for (ULONG i = 0; i < ulKeys; i++) {
        if (HasKey(entry, pKeys[i])) {
            return true;
        }
    }
    return false;
}
} // namespace

// IRQL <= DISPATCH. Owns: nothing; pBuf is rewritten. Fails: never.
NTSTATUS DiagNormalPacket02(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    LogHexDump("(DiagNormalPacket02) new packet:", ulLen, pBuf);
    HotkeyPass pass(device);
    const ULONG ulFirst = FirstKeyPosition(ulLen);
    if (ulLen == 8) {
        CheckModifierOnlyHotkeys(pass, pBuf);
        UpdateModifierFlags(device, pBuf, 8, 1);
    }
    UpdateHotkeyModifierMatch(pass);
    for (HotkeyEntry& entry : pass.Simple(pBuf + ulFirst, ulLen - ulFirst)) {
        if (entry.ucKeys[0] == 0) {
            continue;
        }
        if (IsTraced(TRACE_VERBOSE) &&
            (entry.ucDown == 1 || IsAnyKeyIn(entry, pBuf + ulFirst, ulLen - ulFirst))) {
            pass.TraceLook(entry, pass.IsArmed(entry)); // a walk for the log meets the others, too
        }
        if (!pass.IsArmed(entry)) {
            ReleaseHotkey(pass, entry, nullptr);
        } else if (!TakeHotkeyOut(pass, entry, ulLen, pBuf)) {
            ReleaseHotkey(pass, entry, "(DiagNormalPacket02) Fire UP event (1)");
        }
    }
    LogHexDump("(DiagNormalPacket02) new packet:", ulLen, pBuf);
    return STATUS_SUCCESS;
}
