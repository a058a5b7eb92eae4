// keyboards.cpp - which filter devices there are, and that none goes away while it is used.
//
//   AddDevice ── PublishKeyboard ──▶ linked, lReferences 1 ◀── AcquireDevice / ReleaseDevice ──▶ users
//                                          │
//   REMOVE ── RefuseNewReferences ── WaitForReferences (drops the 1) ── UnlinkKeyboard ── delete
//
// The list is the driver's own, newest keyboard first, because the platform's list of a driver's devices
// changes under a walk. A device that somebody references stays linked, so a walk can go on from it.
#include "ground/ground.h"

// The one place that casts the control device's extension.
// IRQL any.
ControlContext* ControlContextOf(PDEVICE_OBJECT pDevice)
{
    ControlContext* pContext = static_cast<ControlContext*>(pDevice->DeviceExtension);
    return pContext != nullptr && ReadShared(pContext->ulDeviceKind) == CONTROL_DEVICE_KIND ? pContext
                                                                                            : nullptr;
}

// From here to ReleaseDevice the device, its record and its lower device stay.
// IRQL <= DISPATCH. Owns: one reference. Fails: false, the device is being removed or is no keyboard.
bool AcquireDevice(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    DeviceContext* pContext = FilterContextOf(pDevice);
    if (pContext == nullptr || !AddUser(pContext->lReferences)) {
        return false;
    }
    if (ReadShared(pContext->ucRemoving) != 0) {
        ReleaseDevice(pDevice);
        return false;
    }
    return true;
}

// Gives a reference back; the last one wakes the removal.
// IRQL <= DISPATCH.
void ReleaseDevice(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    DeviceContext* pContext = FilterContextOf(pDevice);
    if (InterlockedDecrement(&pContext->lReferences) == 0) {
        KeSetEvent(&pContext->ReferencesGone, IO_NO_INCREMENT, FALSE);
    }
}

// The first of the devices from pDevice on that takes a reference.
// IRQL = DISPATCH. Owns: one reference on the result.
static PDEVICE_OBJECT AcquireFrom(PDEVICE_OBJECT pDevice) REQUIRES_LOCK(Globals.KeyboardListLock)
{
    while (pDevice != nullptr && !AcquireDevice(pDevice)) {
        pDevice = FilterContextOf(pDevice)->pNextKeyboard;
    }
    return pDevice;
}

// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference on the result, null at the end.
PDEVICE_OBJECT FirstKeyboard()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    LockScope lock(Globals.KeyboardListLock);
    return AcquireFrom(Globals.pFirstKeyboard);
}

// The walk's step: the reference moves on to the next device. A walk that stops early releases pDevice.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference on the result, null at the end.
PDEVICE_OBJECT NextKeyboard(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    PDEVICE_OBJECT pNext;
    {
        LockScope lock(Globals.KeyboardListLock);
        pNext = AcquireFrom(FilterContextOf(pDevice)->pNextKeyboard);
    }
    ReleaseDevice(pDevice);
    return pNext;
}

// Makes a complete device findable.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
void PublishKeyboard(PDEVICE_OBJECT pDevice)
{
    LockScope lock(Globals.KeyboardListLock);
    FilterContextOf(pDevice)->pNextKeyboard = Globals.pFirstKeyboard;
    Globals.pFirstKeyboard = pDevice;
}

// The exchange keeps the order: a user that still got its reference is seen by WaitForReferences.
// IRQL <= DISPATCH.
void RefuseNewReferences(PDEVICE_OBJECT pDevice)
{
    ExchangeShared(FilterContextOf(pDevice)->ucRemoving, 1);
}

// Gives up the reference that the attached device holds on itself and waits for all others.
// IRQL = PASSIVE, once, after RefuseNewReferences.
void WaitForReferences(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    ReleaseDevice(pDevice);
    KeWaitForSingleObject(&FilterContextOf(pDevice)->ReferencesGone, Executive, KernelMode, FALSE, nullptr);
}

// IRQL = PASSIVE, after WaitForReferences. Lock: takes KeyboardListLock.
void UnlinkKeyboard(PDEVICE_OBJECT pDevice)
{
    LockScope lock(Globals.KeyboardListLock);
    PDEVICE_OBJECT* ppLink = &Globals.pFirstKeyboard;
    while (*ppLink != nullptr && *ppLink != pDevice) {
        ppLink = &FilterContextOf(*ppLink)->pNextKeyboard;
    }
    if (*ppLink != nullptr) {
        *ppLink = FilterContextOf(pDevice)->pNextKeyboard;
    }
}

void InitializeKeyboardList()
{
    KeInitializeSpinLock(&Globals.KeyboardListLock.Lock);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeReferences(DeviceContext* pContext)
{
    pContext->lReferences = 1;
    KeInitializeEvent(&pContext->ReferencesGone, NotificationEvent, FALSE);
}
