// truematch.cpp - which hotkeys are complete, and the events of their coming and going.
//
//   not down ──all key bytes held and armed──► down event ──► down
//   down ──no longer──► up event ──► not down
//
// Runs after every key that belongs to an armed hotkey, on the report road.
#include "hotkeys/hotkeys.h"

#include "control/control.h"
#include "log/log.h"
#include "report/report.h"

namespace
{
bool AreAllKeysHeld(const HotkeyEntry& entry)
{
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucHotkeyDown[i] != 1) {
            return false;
        }
    }
    return true;
}

bool IsAnyKeyHeld(const HotkeyEntry& entry)
{
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucHotkeyDown[i] == 1) {
            return true;
        }
    }
    return false;
}

void PressHotkey(PDEVICE_OBJECT device, HotkeyEntry& entry)
{
    DeviceContext* pContext = FilterContextOf(device);
    entry.ucDown = 1;
    SendHotkeyEvent(device, entry.ulId, 1, ReadShared(Globals.ucEscAbort));
    if (entry.ucKeys[0] == USAGE_VOLUME_UP || entry.ucKeys[0] == USAGE_VOLUME_DOWN) {
        StartTypematic(device);
    }
    WriteShared(pContext->ucHotkeyActive, 1);
    WriteShared(pContext->ulActiveHotkeyId, entry.ulId);
}

void ReleaseHotkey(PDEVICE_OBJECT device, HotkeyEntry& entry)
{
    DeviceContext* pContext = FilterContextOf(device);
    entry.ucDown = 0;
    CancelTypematicTimers();
    SendHotkeyEvent(device, entry.ulId, 0, ReadShared(Globals.ucEscAbort));
    WriteShared(Globals.ucEscAbort, 0);
    WriteShared(pContext->ucHotkeyActive, 0);
    WriteShared(pContext->ulActiveHotkeyId, entry.ulId);
}
} // namespace

// Queues one event of the hotkey machinery and signals the application.
// IRQL <= DISPATCH. Fails: a full queue drops the event.
void SendHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort)
{
    (void)QueueEvent(device, ulId, ulValue, ulEscAbort, NOTIFY_SOURCE_HOTKEY);
    SignalNotifyEvent(device);
}

// Looks for complete hotkeys among those with keys. *pNoPartial becomes 0 when one is partly held, *pSwallow
// the swallow byte of a complete one, *pHotkeyReleased 1 when a down one ends, which also takes back a match
// found before it in the same walk. Returns 1 when a hotkey is complete.
// IRQL <= DISPATCH. Fails: never.
UCHAR FindTrueMatch(PDEVICE_OBJECT device, PUCHAR pNoPartial, PUCHAR pSwallow, PUCHAR pHotkeyReleased)
{
    UCHAR ucResult = 0;
    for (HotkeyEntry& entry : HotkeyWalk(FilterContextOf(device))) {
        if (entry.ulKeyCount == 0) {
            continue;
        }
        LogHexDump("(FindTrueMatch) ucHotkeyDown", entry.ulKeyCount, entry.ucHotkeyDown);
        if (entry.ucModMatch == 1 && AreAllKeysHeld(entry)) {
            ucResult = 1;
            (void)GetSwallowOf(device, entry.ulId, pSwallow); // unknown: the value stays
            if (!entry.ucDown) {
                PressHotkey(device, entry);
            }
        } else if (entry.ucDown) {
            ReleaseHotkey(device, entry);
            ucResult = 0;
            *pHotkeyReleased = 1;
        } else if (IsAnyKeyHeld(entry)) {
            *pNoPartial = 0;
        }
    }
    return ucResult;
}
