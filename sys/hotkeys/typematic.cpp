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
#include "report/keytable.h"

namespace
{
ULONGLONG RepeatPeriodMs()
{
    USHORT usRate = ReadShared(Globals.usTypematicRate);
    return TypematicPeriodTable[usRate < TYPEMATIC_PERIODS ? usRate : TYPEMATIC_PERIODS - 1].ullPeriodMs;
}

ULONGLONG RepeatDelayMs()
{
    USHORT usDelay = ReadShared(Globals.usTypematicDelay);
    return TypematicDelayTable[usDelay < TYPEMATIC_DELAYS ? usDelay : TYPEMATIC_DELAYS - 1];
}

bool IsPointOfSale(DeviceContext* pContext)
{
    return (ReadShared(pContext->ulKeyDefTypes) & KEYDEF_POINT_OF_SALE) != 0;
}

// Not due any more.
void Forget(DeviceContext* pContext, TypematicTimer DeviceContext::*pTimer)
    REQUIRES_LOCK(pContext->TypematicLock)
{
    TypematicTimer& timer = pContext->*pTimer;
    if (timer.ullDue != 0) {
        timer.ullDue = 0;
        InterlockedDecrement(&Globals.lArmedRepeats);
    }
}

void Arm(DeviceContext* pContext, TypematicTimer DeviceContext::*pTimer, ULONGLONG ullMs)
    REQUIRES_LOCK(pContext->TypematicLock)
{
    TypematicTimer& timer = pContext->*pTimer;
    if (timer.ullDue == 0) {
        InterlockedIncrement(&Globals.lArmedRepeats);
    }
    timer.ullDue = KeQueryInterruptTime() + ullMs * 10000;
    KeSetTimer(&timer.Timer, RelativeMs(ullMs), &timer.Dpc);
}

void Disarm(DeviceContext* pContext, TypematicTimer DeviceContext::*pTimer)
    REQUIRES_LOCK(pContext->TypematicLock)
{
    TypematicTimer& timer = pContext->*pTimer;
    Forget(pContext, pTimer);
    KeCancelTimer(&timer.Timer);
    KeRemoveQueueDpc(&timer.Dpc);
}

// At a callback's begin: whether it shall act.
bool TakeDue(DeviceContext* pContext, TypematicTimer DeviceContext::*pTimer)
    REQUIRES_LOCK(pContext->TypematicLock)
{
    TypematicTimer& timer = pContext->*pTimer;
    if (timer.ullDue == 0 || KeQueryInterruptTime() < timer.ullDue) {
        return false;
    }
    Forget(pContext, pTimer);
    return true;
}

void QueueRepeat(PDEVICE_OBJECT device, ULONG ulValue, ULONG ulEscAbort)
{
    (void)QueueEvent(device, ReadShared(FilterContextOf(device)->ulActiveHotkeyId), ulValue, ulEscAbort,
                     NOTIFY_SOURCE_HOTKEY);
}

// Without point of sale the active hotkey is sent again, with it the scan code bytes of the held key.
void SendRepeat(PDEVICE_OBJECT device, DeviceContext* pContext)
{
    if (!IsPointOfSale(pContext)) {
        QueueRepeat(device, 1, ReadShared(Globals.ucEscAbort));
    } else {
        USHORT usScan = ReadShared(pContext->usTypematicScan);
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
void StartTypematic(DeviceContext* pContext)
{
    LockScope lock(pContext->TypematicLock);
    Arm(pContext, &DeviceContext::TypematicDelay, RepeatDelayMs());
}

// Ends this keyboard's repeat. A callback that has begun may still send its event.
// IRQL <= DISPATCH. Lock: takes TypematicLock. Fails: never.
void CancelTypematicOf(DeviceContext* pContext)
{
    LockScope lock(pContext->TypematicLock);
    Disarm(pContext, &DeviceContext::TypematicDelay);
    Disarm(pContext, &DeviceContext::TypematicRepeat);
}

// Ends the repeat of every keyboard, not only of the one whose report is being analysed. Mostly none is armed.
void CancelTypematicTimers()
{
    if (ReadShared(Globals.lArmedRepeats) == 0) {
        return;
    }
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        CancelTypematicOf(FilterContextOf(device));
    }
}

// The typematic delay is over: the repeat begins, for point-of-sale keyboards.
// IRQL = DISPATCH. Lock: takes TypematicLock. Fails: never.
void TypematicDelayCallback(PKDPC, PVOID pDevice, PVOID, PVOID)
{
    DeviceContext* pContext = FilterContextOf(static_cast<PDEVICE_OBJECT>(pDevice));
    LockScope lock(pContext->TypematicLock);
    if (TakeDue(pContext, &DeviceContext::TypematicDelay) && IsPointOfSale(pContext)) {
        Arm(pContext, &DeviceContext::TypematicRepeat, RepeatPeriodMs());
    }
}

// One repeat, and the next while there is a point-of-sale definition. The next is armed first, in one step
// with the look at the due time, so that whoever ends the repeat from then on ends that one too.
// IRQL = DISPATCH. Lock: takes TypematicLock, then NotifyLock. Fails: never.
void TypematicRepeatCallback(PKDPC, PVOID pDevice, PVOID, PVOID)
{
    PDEVICE_OBJECT device = static_cast<PDEVICE_OBJECT>(pDevice);
    DeviceContext* pContext = FilterContextOf(device);
    {
        LockScope lock(pContext->TypematicLock);
        if (!TakeDue(pContext, &DeviceContext::TypematicRepeat)) {
            return;
        }
        if (IsPointOfSale(pContext)) {
            Arm(pContext, &DeviceContext::TypematicRepeat, RepeatPeriodMs());
        }
    }
    SendRepeat(device, pContext);
}

// No timer is armed and no deferred call queued; one that runs may still be under way.
// IRQL = PASSIVE. Lock: takes TypematicLock.
void StopTypematic(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    CancelTypematicOf(pContext);
    KeRemoveQueueDpc(&pContext->TypematicDelay.Dpc);
    KeRemoveQueueDpc(&pContext->TypematicRepeat.Dpc);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeTypematic(PDEVICE_OBJECT device, DeviceContext* pContext)
{
    KeInitializeSpinLock(&pContext->TypematicLock.Lock);
    InitializeTimer(&pContext->TypematicDelay, TypematicDelayCallback, device);
    InitializeTimer(&pContext->TypematicRepeat, TypematicRepeatCallback, device);
}
