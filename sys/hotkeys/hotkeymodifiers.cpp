// hotkeymodifiers.cpp - what the modifier word means to the hotkeys: which are armed, and those that
// consist of modifiers only. Also the event that the simple handlers send.
//
// Runs at every standard report, before its keys are looked at.
#include "hotkeys/modifiers.h"

#include "hotkeys/fields.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"

// Arms the hotkeys whose mask matches now. A latched prefix that no hotkey uses is marked for the reset.
// IRQL <= DISPATCH. Fails: never.
void UpdateHotkeyModifierMatch(HotkeyPass& pass)
{
    const ULONG ulFlags = pass.Arm();
    Trace(HotkeysArmed, IndexOf(pass.Device()), ulFlags);
    if ((ulFlags & MODIFIER_PREFIXES) && !(ulFlags & pass.Prefixes())) {
        WriteShared(GlobalHotkeys.ulPrefixReleased, 0u);
        WriteShared(GlobalHotkeys.ulPrefixUnmatched, 1u);
    }
}

// Hotkeys without keys: down while all their modifier bits are set in byte 0, whose bits they take out when
// their definition says so.
// IRQL <= DISPATCH. Owns: nothing; pBuf[0] is rewritten. Fails: never.
void CheckModifierOnlyHotkeys(HotkeyPass& pass, PUCHAR pBuf)
{
    PDEVICE_OBJECT device = pass.Device();
    HotkeyFields& hotkeys = pass.Hotkeys();
    for (HotkeyEntry& entry : pass.Holding(0)) {
        if (entry.ucKeys[0] != 0) {
            continue;
        }
        UCHAR ucBits = ReportBitsOf(entry.ulModifiers);
        if ((pBuf[0] & ucBits) == ucBits) {
            pass.TraceState(entry, entry.ucDown ? "stays" : "down");
            if (!entry.ucDown) {
                entry.ucDown = 1;
                pass.Settle(entry);
                NotifyHotkeyEvent(device, entry.ulId, 1);
                if (hotkeys.ucSendUpEventImmediately) {
                    NotifyHotkeyEvent(device, entry.ulId, 0);
                }
            }
            if (ReadShared(entry.ucSwallow) != 0) {
                Trace(ModifiersTaken, IndexOf(device), pBuf[0] & ucBits);
                pBuf[0] = static_cast<UCHAR>(pBuf[0] & ~ucBits);
            }
        } else if (entry.ucDown) {
            if (!hotkeys.ucSendUpEventImmediately) {
                NotifyHotkeyEvent(device, entry.ulId, 0);
            }
            entry.ucDown = 0;
            pass.Settle(entry);
            pass.TraceState(entry, "up");
        }
    }
}

// Sends one hotkey event with the Esc-abort flag, which it uses up.
// IRQL <= DISPATCH. Fails: a full queue drops the event.
void NotifyHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, UCHAR ucDown)
{
    SendHotkeyEvent(device, ulId, ucDown, ReadShared(GlobalHotkeys.ucEscAbort));
    WriteShared(GlobalHotkeys.ucEscAbort, 0);
}
