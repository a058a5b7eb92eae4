// truematch.cpp - which hotkeys are complete, and the events of their coming and going.
//
//   not down ──all key bytes held and armed──► down event ──► down
//   down ──no longer──► up event ──► not down
//
// Runs after every key that belongs to an armed hotkey, on the report road.
#include "hotkeys/hotkeys.h"

#include "control/notification.h"
#include "hotkeys/fields.h"
#include "log/log.h"
#include "report/keys.h"

namespace
{
void PressHotkey(HotkeyPass& pass, HotkeyEntry& entry)
{
    PDEVICE_OBJECT device = pass.Device();
    HotkeyFields& hotkeys = pass.Hotkeys();
    entry.ucDown = 1;
    SendHotkeyEvent(device, entry.ulId, 1, ReadShared(GlobalHotkeys.ucEscAbort));
    if (entry.ucKeys[0] == USAGE_VOLUME_UP || entry.ucKeys[0] == USAGE_VOLUME_DOWN) {
        StartTypematic(hotkeys);
    }
    WriteShared(hotkeys.ucHotkeyActive, 1);
    WriteShared(hotkeys.ulActiveHotkeyId, entry.ulId);
}

void ReleaseHotkey(HotkeyPass& pass, HotkeyEntry& entry)
{
    PDEVICE_OBJECT device = pass.Device();
    HotkeyFields& hotkeys = pass.Hotkeys();
    entry.ucDown = 0;
    pass.Settle(entry);
    pass.TraceState(entry, "up");
    CancelTypematicTimers();
    SendHotkeyEvent(device, entry.ulId, 0, ReadShared(GlobalHotkeys.ucEscAbort));
    WriteShared(GlobalHotkeys.ucEscAbort, 0);
    WriteShared(hotkeys.ucHotkeyActive, 0);
    WriteShared(hotkeys.ulActiveHotkeyId, entry.ulId);
}
} // namespace

// Queues one event of the hotkey machinery and signals the application.
// IRQL <= DISPATCH. Fails: a full queue drops the event.
void SendHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort)
{
    QueueAndSignalEvent(device, ulId, ulValue, ulEscAbort, NOTIFY_SOURCE_HOTKEY);
}

// Looks for complete hotkeys among those with keys. *pNoPartial becomes 0 when one is partly held, *pSwallow
// the swallow byte of a complete one, *pHotkeyReleased 1 when a down one ends, which also takes back a match
// found before it in the same walk. Returns 1 when a hotkey is complete.
// IRQL <= DISPATCH. Fails: never.
UCHAR FindTrueMatch(HotkeyPass& pass, PUCHAR pNoPartial, PUCHAR pSwallow, PUCHAR pHotkeyReleased)
{
    UCHAR ucResult = 0;
    if (pass.IsAnyPartlyHeld()) {
        *pNoPartial = 0;
    }
    for (HotkeyEntry& entry : pass.Ready()) {
        if (entry.ulKeyCount == 0) {
            continue;
        }
        pass.LogHeldKeys("(FindTrueMatch) ucHotkeyDown", entry);
        if (AreAllKeysHeld(entry) && pass.IsArmed(entry)) {
            ucResult = 1;
            *pSwallow = ReadShared(entry.ucSwallow);
            pass.TraceState(entry, entry.ucDown ? "stays" : "down");
            if (!entry.ucDown) {
                PressHotkey(pass, entry);
            }
        } else if (entry.ucDown) {
            ReleaseHotkey(pass, entry);
            ucResult = 0;
            *pHotkeyReleased = 1;
        } else if (entry.ulHeldKeys != 0) {
            *pNoPartial = 0;
            pass.TraceState(entry, "incomplete");
        }
    }
    return ucResult;
}
