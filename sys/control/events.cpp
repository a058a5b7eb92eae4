// events.cpp - the events that the application hands in: one of its own, one a keyboard, one for the macros.
//
//   empty ── Register: reference the object, publish it under the lock ──► registered
//   registered ── Release: take it out under the lock, drop the reference ──► empty
//
// Producers signal under the same lock, up to DISPATCH_LEVEL, so a signal never meets a dropped reference.
// Registrations and releases run at PASSIVE_LEVEL in the application's thread or in Plug and Play.
#include "control/notification.h"

#include "control/fields.h"

namespace
{
// The place of one registration: empty (both 0) or registered.
struct EventSlot {
    SpinLock& Lock;
    PKEVENT& pEvent;
    ULONGLONG& hEvent;
};

EventSlot NotifySlot(PDEVICE_OBJECT device) WITHOUT_LOCK_ANALYSIS
{
    NotifyFields& told = FieldsOf<NotifyFields>(device);
    return {told.NotifyLock, told.pNotifyEvent, told.hNotifyEvent};
}

EventSlot MacroSlot() WITHOUT_LOCK_ANALYSIS
{
    return {GlobalEvents.MacroLock, GlobalEvents.pMacroEvent, GlobalEvents.hMacroEvent};
}

EventSlot ApplicationSlot(PDEVICE_OBJECT pControlDevice)
{
    ControlContext* pContext = ControlContextOf(pControlDevice);
    return {GlobalEvents.EventLock, pContext->pApplicationEvent, pContext->hApplicationEvent};
}

bool IsRegistered(const EventSlot& slot)
{
    LockScope lock(slot.Lock);
    return slot.pEvent != nullptr;
}

bool Publish(const EventSlot& slot, PKEVENT pEvent, ULONGLONG hEvent)
{
    LockScope lock(slot.Lock);
    if (slot.pEvent != nullptr) {
        return false;
    }
    slot.pEvent = pEvent;
    slot.hEvent = hEvent;
    return true;
}

PKEVENT TakeOut(const EventSlot& slot)
{
    LockScope lock(slot.Lock);
    PKEVENT pEvent = slot.pEvent;
    slot.pEvent = nullptr;
    slot.hEvent = 0;
    return pEvent;
}

// Of two at once one wins; the other gives its reference back.
NTSTATUS RegisterEvent(const EventSlot& slot, ULONGLONG hEvent, KPROCESSOR_MODE mode)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (IsRegistered(slot)) {
        return STATUS_UNSUCCESSFUL;
    }
    PVOID pObject = nullptr;
    NTSTATUS status =
        ObReferenceObjectByHandle(reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(hEvent)),
                                  EVENT_MODIFY_STATE, *ExEventObjectType, mode, &pObject, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!Publish(slot, static_cast<PKEVENT>(pObject), hEvent)) {
        ObDereferenceObject(pObject);
        return STATUS_UNSUCCESSFUL;
    }
    return status;
}

NTSTATUS ReleaseEvent(const EventSlot& slot)
{
    PKEVENT pEvent = TakeOut(slot);
    if (pEvent == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    ObDereferenceObject(pEvent);
    return STATUS_SUCCESS;
}

bool SignalEvent(const EventSlot& slot)
{
    LockScope lock(slot.Lock);
    if (slot.pEvent == nullptr) {
        return false;
    }
    KeSetEvent(slot.pEvent, IO_NO_INCREMENT, FALSE);
    return true;
}
} // namespace

// The event that tells the application to close its handles.
// IRQL = PASSIVE. Lock: takes EventLock. Owns: a reference on the event until its release.
// Fails: no control device, already registered, the handle's status.
NTSTATUS RegisterApplicationEvent(ULONGLONG hEvent, KPROCESSOR_MODE mode)
{
    PDEVICE_OBJECT pControlDevice = ReferenceControlDevice();
    if (pControlDevice == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = RegisterEvent(ApplicationSlot(pControlDevice), hEvent, mode);
    // A deletion that ran meanwhile found nothing to release.
    if (NT_SUCCESS(status) && ReadShared(GlobalFrame.pControlDevice) != pControlDevice) {
        ReleaseApplicationEvent(pControlDevice);
        status = STATUS_UNSUCCESSFUL;
    }
    ObDereferenceObject(pControlDevice);
    return status;
}

// IRQL = PASSIVE. Lock: takes NotifyLock. Owns: a reference on the event until its release.
// Fails: unknown index, already registered, the handle's status.
NTSTATUS RegisterNotifyEvent(ULONGLONG hEvent, KPROCESSOR_MODE mode, ULONG ulDeviceIndex)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    return RegisterEvent(NotifySlot(keyboard.Device()), hEvent, mode);
}

// IRQL = PASSIVE. Lock: takes NotifyLock. Fails: unknown index, none registered.
NTSTATUS ReleaseNotifyEvent(ULONG ulDeviceIndex)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    return ReleaseEvent(NotifySlot(keyboard.Device()));
}

// IRQL = PASSIVE. Lock: takes MacroLock. Owns: a reference on the event until its release.
// Fails: already registered, the handle's status.
NTSTATUS RegisterMacroEvent(ULONGLONG hEvent, KPROCESSOR_MODE mode)
{
    return RegisterEvent(MacroSlot(), hEvent, mode);
}

// IRQL = PASSIVE. Lock: takes MacroLock. Fails: none registered.
NTSTATUS ReleaseMacroEvent()
{
    return ReleaseEvent(MacroSlot());
}

// Every keyboard's event and the macro event.
// IRQL = PASSIVE. Lock: takes each NotifyLock, then MacroLock.
// Fails: the keyboards' statuses ORed, so a keyboard without an event counts.
NTSTATUS ReleaseAllEvents()
{
    NTSTATUS status = STATUS_SUCCESS;
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        status |= ReleaseNotifyEvent(IndexOf(device));
    }
    if (IsRegistered(MacroSlot())) {
        (void)ReleaseMacroEvent(); // a release between the two is as good
    }
    return status;
}

// IRQL = PASSIVE. Lock: takes EventLock. The caller keeps the control device.
void ReleaseApplicationEvent(PDEVICE_OBJECT pControlDevice)
{
    (void)ReleaseEvent(ApplicationSlot(pControlDevice)); // none registered is no failure here
}

// IRQL <= DISPATCH. Lock: takes EventLock. Fails: false, none registered.
bool SignalApplicationEvent(PDEVICE_OBJECT pControlDevice)
{
    return SignalEvent(ApplicationSlot(pControlDevice));
}

// Tells the application to ask for this keyboard's records.
// IRQL <= DISPATCH. Lock: takes NotifyLock.
void SignalNotifyEvent(PDEVICE_OBJECT device)
{
    (void)SignalEvent(NotifySlot(device)); // an application without an event polls
}

// IRQL <= DISPATCH. Lock: takes MacroLock.
void SignalMacroEvent()
{
    (void)SignalEvent(MacroSlot()); // as above
}

// At the keyboard's removal, when nobody finds it any more.
// IRQL = PASSIVE. Lock: takes NotifyLock.
void DropNotifyEvent(PDEVICE_OBJECT device)
{
    (void)ReleaseEvent(NotifySlot(device)); // mostly none is registered
}

// At driver entry, on zeroed state. IRQL = PASSIVE.
void InitializeEvents()
{
    KeInitializeSpinLock(&GlobalEvents.EventLock.Lock);
    KeInitializeSpinLock(&GlobalEvents.MacroLock.Lock);
}
