// typematic.cpp - key repeat: a delay, then a period, as long as nobody ends it.
//
//   StartTypematic ──► TypematicDelayTimer ──► TypematicRepeatTimer ─┐
//                                                 ▲──────────────────┘ each sends the event again
//
// A callback may already run on one processor while another ends its repeat and starts the next; so each timer
// says when its callback is due, under TypematicLock, and a callback that comes without being due does nothing.
#include "hotkeys/hotkeys.h"

#include "control/notification.h"
#include "ground/sums.h"
#include "hotkeys/fields.h"
#include "report/keytable.h"
#include "siblings/fields.h"

namespace
{
ULONGLONG RepeatPeriodMs()
{
    USHORT usRate = ReadShared(GlobalSiblings.usTypematicRate);
    return TypematicPeriodTable[usRate < TYPEMATIC_PERIODS ? usRate : TYPEMATIC_PERIODS - 1].ullPeriodMs;
}

ULONGLONG RepeatDelayMs()
{
    USHORT usDelay = ReadShared(GlobalSiblings.usTypematicDelay);
    return TypematicDelayTable[usDelay < TYPEMATIC_DELAYS ? usDelay : TYPEMATIC_DELAYS - 1];
}

bool IsPointOfSale(const HotkeyFields& hotkeys)
{
    return (ReadShared(hotkeys.ulKeyDefTypes) & KEYDEF_POINT_OF_SALE) != 0;
}

// Not due any more.
void Forget([[maybe_unused]] HotkeyFields& hotkeys, TypematicTimer& timer)
    REQUIRES_LOCK(hotkeys.TypematicLock)
{
    if (timer.ullDue != 0) {
        timer.ullDue = 0;
        InterlockedDecrement(&GlobalHotkeys.lArmedRepeats);
    }
}

void Arm([[maybe_unused]] HotkeyFields& hotkeys, TypematicTimer& timer, ULONGLONG ullMs)
    REQUIRES_LOCK(hotkeys.TypematicLock)
{
    if (timer.ullDue == 0) {
        InterlockedIncrement(&GlobalHotkeys.lArmedRepeats);
    }
    timer.ullDue = KeQueryInterruptTime() + ullMs * 10000;
    KeSetTimer(&timer.Timer, RelativeMs(ullMs), &timer.Dpc);
}

void Disarm(HotkeyFields& hotkeys, TypematicTimer& timer) REQUIRES_LOCK(hotkeys.TypematicLock)
{
    Forget(hotkeys, timer);
    KeCancelTimer(&timer.Timer);
    KeRemoveQueueDpc(&timer.Dpc);
}

// At a callback's begin: whether it shall act.
bool TakeDue(HotkeyFields& hotkeys, TypematicTimer& timer) REQUIRES_LOCK(hotkeys.TypematicLock)
{
    if (timer.ullDue == 0 || KeQueryInterruptTime() < timer.ullDue) {
        return false;
    }
    Forget(hotkeys, timer);
    return true;
}

void QueueRepeat(PDEVICE_OBJECT device, ULONG ulValue, ULONG ulEscAbort)
{
    (void)QueueEvent(device, ReadShared(FieldsOf<HotkeyFields>(device).ulActiveHotkeyId), ulValue, ulEscAbort,
                     NOTIFY_SOURCE_HOTKEY);
}

// Without point of sale the active hotkey is sent again, with it the scan code bytes of the held key.
void SendRepeat(PDEVICE_OBJECT device, const HotkeyFields& hotkeys)
{
    if (!IsPointOfSale(hotkeys)) {
        QueueRepeat(device, 1, ReadShared(GlobalHotkeys.ucEscAbort));
    } else {
        USHORT usScan = ReadShared(hotkeys.usTypematicScan);
        if ((usScan >> 8) != 0) {
            QueueRepeat(device, usScan >> 8, 0);
        }
        QueueRepeat(device, usScan & 0xFF, 0);
    }
    SignalNotifyEvent(device);
}
} // namespace

// The first repeat comes after the typematic delay.
// IRQL <= DISPATCH. Lock: takes TypematicLock. Fails: never.
void StartTypematic(HotkeyFields& hotkeys)
{
    LockScope lock(hotkeys.TypematicLock);
    Arm(hotkeys, hotkeys.TypematicDelay, RepeatDelayMs());
}

// Ends this keyboard's repeat. A callback that has begun may still send its event.
// IRQL <= DISPATCH. Lock: takes TypematicLock. Fails: never.
void CancelTypematicOf(HotkeyFields& hotkeys)
{
    LockScope lock(hotkeys.TypematicLock);
    Disarm(hotkeys, hotkeys.TypematicDelay);
    Disarm(hotkeys, hotkeys.TypematicRepeat);
}

// Ends the repeat of every keyboard, not only of the one whose report is being analysed. Mostly none is armed.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock, each TypematicLock. Fails: never.
void CancelTypematicTimers()
{
    if (ReadShared(GlobalHotkeys.lArmedRepeats) == 0) {
        return;
    }
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        CancelTypematicOf(FieldsOf<HotkeyFields>(device));
    }
}

// The typematic delay is over: the repeat begins, for point-of-sale keyboards.
// IRQL = DISPATCH. Lock: takes TypematicLock. Fails: never.
void TypematicDelayCallback(PKDPC, PVOID pArgument, PVOID, PVOID)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(static_cast<PDEVICE_OBJECT>(pArgument));
    LockScope lock(hotkeys.TypematicLock);
    if (TakeDue(hotkeys, hotkeys.TypematicDelay) && IsPointOfSale(hotkeys)) {
        Arm(hotkeys, hotkeys.TypematicRepeat, RepeatPeriodMs());
    }
}

// One repeat, and the next while there is a point-of-sale definition. The next is armed first, in one step
// with the look at the due time, so that whoever ends the repeat from then on ends that one too.
// IRQL = DISPATCH. Lock: takes TypematicLock, then NotifyLock. Fails: never.
void TypematicRepeatCallback(PKDPC, PVOID pArgument, PVOID, PVOID)
{
    PDEVICE_OBJECT device = static_cast<PDEVICE_OBJECT>(pArgument);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    {
        LockScope lock(hotkeys.TypematicLock);
        if (!TakeDue(hotkeys, hotkeys.TypematicRepeat)) {
            return;
        }
        if (IsPointOfSale(hotkeys)) {
            Arm(hotkeys, hotkeys.TypematicRepeat, RepeatPeriodMs());
        }
    }
    SendRepeat(device, hotkeys);
}

// No timer is armed and no deferred call queued; one that runs may still be under way.
// IRQL = PASSIVE. Lock: takes TypematicLock.
void StopTypematic(PDEVICE_OBJECT device)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    CancelTypematicOf(hotkeys);
    KeRemoveQueueDpc(&hotkeys.TypematicDelay.Dpc);
    KeRemoveQueueDpc(&hotkeys.TypematicRepeat.Dpc);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeTypematic(PDEVICE_OBJECT device, DeviceContext* pContext)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(pContext);
    KeInitializeSpinLock(&hotkeys.TypematicLock.Lock);
    InitializeTimer(&hotkeys.TypematicDelay, TypematicDelayCallback, device);
    InitializeTimer(&hotkeys.TypematicRepeat, TypematicRepeatCallback, device);
}
