// typematic.cpp - key repeat: a delay, then a period, as long as nobody ends it.
//
//   StartTypematic ──► TypematicDelayTimer ──► TypematicRepeatTimer ─┐
//                                                 ▲──────────────────┘ each sends the event again
//
// Each start is a cycle of its own. A callback that runs on one processor while another ends its cycle finds
// the cycle changed under TypematicLock and arms nothing.
#include "hotkeys/hotkeys.h"

#include "control/control.h"
#include "driver/sums.h"
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

ULONG CurrentCycle(DeviceContext* pContext)
{
    LockScope lock(pContext->TypematicLock);
    return pContext->ulTypematicCycle;
}

// Arms the next repeat, unless the cycle that the callback belongs to has ended meanwhile.
void ArmRepeat(DeviceContext* pContext, ULONG ulCycle)
{
    LockScope lock(pContext->TypematicLock);
    if (ulCycle != 0 && pContext->ulTypematicCycle == ulCycle) {
        KeSetTimer(&pContext->TypematicRepeat.Timer, RelativeMs(RepeatPeriodMs()),
                   &pContext->TypematicRepeat.Dpc);
    }
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

// A new cycle: the first repeat comes after the typematic delay.
// IRQL <= DISPATCH. Lock: takes TypematicLock. Fails: never.
void StartTypematic(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->TypematicLock);
    if (++pContext->ulTypematicStarts == 0) {
        pContext->ulTypematicStarts = 1; // 0 says that none may be armed
    }
    pContext->ulTypematicCycle = pContext->ulTypematicStarts;
    KeSetTimer(&pContext->TypematicDelay.Timer, RelativeMs(RepeatDelayMs()), &pContext->TypematicDelay.Dpc);
}

// Ends this keyboard's repeat. A callback that already runs may still send its event, but arms nothing.
// IRQL <= DISPATCH. Lock: takes TypematicLock. Fails: never.
void CancelTypematicOf(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->TypematicLock);
    pContext->ulTypematicCycle = 0;
    KeCancelTimer(&pContext->TypematicDelay.Timer);
    KeCancelTimer(&pContext->TypematicRepeat.Timer);
    KeRemoveQueueDpc(&pContext->TypematicDelay.Dpc);
    KeRemoveQueueDpc(&pContext->TypematicRepeat.Dpc);
}

// Ends the repeat of every keyboard, not only of the one whose report is being analysed.
void CancelTypematicTimers()
{
    for (PDEVICE_OBJECT device = FirstKeyboard(); device != nullptr; device = NextKeyboard(device)) {
        CancelTypematicOf(device);
    }
}

// The typematic delay is over: the repeat begins, for point-of-sale keyboards.
// IRQL = DISPATCH. Fails: never.
void TypematicDelayCallback(PKDPC, PVOID pDevice, PVOID, PVOID)
{
    DeviceContext* pContext = FilterContextOf(static_cast<PDEVICE_OBJECT>(pDevice));
    if (IsPointOfSale(pContext)) {
        ArmRepeat(pContext, CurrentCycle(pContext));
    }
}

// One repeat, and the next while there is a point-of-sale definition.
// IRQL = DISPATCH. Fails: never.
void TypematicRepeatCallback(PKDPC, PVOID pDevice, PVOID, PVOID)
{
    PDEVICE_OBJECT device = static_cast<PDEVICE_OBJECT>(pDevice);
    DeviceContext* pContext = FilterContextOf(device);
    ULONG ulCycle = CurrentCycle(pContext);
    SendRepeat(device, pContext);
    if (IsPointOfSale(pContext)) {
        ArmRepeat(pContext, ulCycle);
    }
}
