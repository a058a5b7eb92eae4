// keyboards.cpp - which filter devices there are, and that none goes away while it is used.
//
//   AddDevice ── PublishKeyboard ──▶ linked, lReferences 1 ◀── AcquireDevice / ReleaseDevice ──▶ users
//                                          │
//   REMOVE ── RefuseNewReferences ── WaitForReferences (drops the 1) ── UnlinkKeyboard ── delete
//
// The list is the driver's own, newest keyboard first, because the platform's list of a driver's devices
// changes under a walk. A device that somebody references stays linked, so a walk can go on from it.
#include "ground/ground.h"

// From here to ReleaseDevice the device, its record and its lower device stay.
// IRQL <= DISPATCH. Owns: one reference. Fails: false, the device is being removed or is no keyboard.
bool AcquireDevice(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (!IsFilterDevice(pDevice) || !AddUser(FieldsOf<FrameFields>(pDevice).lReferences)) {
        return false;
    }
    if (ReadShared(FieldsOf<FrameFields>(pDevice).ucRemoving) != 0) {
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
    FrameFields& frame = FieldsOf<FrameFields>(pDevice);
    if (InterlockedDecrement(&frame.lReferences) == 0) {
        KeSetEvent(&frame.ReferencesGone, IO_NO_INCREMENT, FALSE);
    }
}

// The first of the devices from pDevice on that takes a reference.
// IRQL = DISPATCH. Owns: one reference on the result.
static PDEVICE_OBJECT AcquireFrom(PDEVICE_OBJECT pDevice) REQUIRES_LOCK(GlobalFrame.KeyboardListLock)
{
    while (pDevice != nullptr && !AcquireDevice(pDevice)) {
        pDevice = FieldsOf<FrameFields>(pDevice).pNextKeyboard;
    }
    return pDevice;
}

// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference on the result, null at the end.
PDEVICE_OBJECT FirstKeyboard()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    LockScope lock(GlobalFrame.KeyboardListLock);
    return AcquireFrom(GlobalFrame.pFirstKeyboard);
}

// The walk's step: the reference moves on to the next device. A walk that stops early releases pDevice.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference on the result, null at the end.
PDEVICE_OBJECT NextKeyboard(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    PDEVICE_OBJECT pNext;
    {
        LockScope lock(GlobalFrame.KeyboardListLock);
        pNext = AcquireFrom(FieldsOf<FrameFields>(pDevice).pNextKeyboard);
    }
    ReleaseDevice(pDevice);
    return pNext;
}

// Makes a complete device findable.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
void PublishKeyboard(PDEVICE_OBJECT pDevice)
{
    LockScope lock(GlobalFrame.KeyboardListLock);
    FieldsOf<FrameFields>(pDevice).pNextKeyboard = GlobalFrame.pFirstKeyboard;
    GlobalFrame.pFirstKeyboard = pDevice;
}

// The exchange keeps the order: a user that still got its reference is seen by WaitForReferences.
// IRQL <= DISPATCH.
void RefuseNewReferences(PDEVICE_OBJECT pDevice)
{
    ExchangeShared(FieldsOf<FrameFields>(pDevice).ucRemoving, 1);
}

// Gives up the reference that the attached device holds on itself and waits for all others.
// IRQL = PASSIVE, once, after RefuseNewReferences.
void WaitForReferences(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    ReleaseDevice(pDevice);
    KeWaitForSingleObject(&FieldsOf<FrameFields>(pDevice).ReferencesGone, Executive, KernelMode, FALSE,
                          nullptr);
}

// IRQL = PASSIVE, after WaitForReferences. Lock: takes KeyboardListLock.
void UnlinkKeyboard(PDEVICE_OBJECT pDevice)
{
    LockScope lock(GlobalFrame.KeyboardListLock);
    PDEVICE_OBJECT* ppLink = &GlobalFrame.pFirstKeyboard;
    while (*ppLink != nullptr && *ppLink != pDevice) {
        ppLink = &FieldsOf<FrameFields>(*ppLink).pNextKeyboard;
    }
    if (*ppLink != nullptr) {
        *ppLink = FieldsOf<FrameFields>(pDevice).pNextKeyboard;
    }
}

void InitializeKeyboardList()
{
    KeInitializeSpinLock(&GlobalFrame.KeyboardListLock.Lock);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeFrame(DeviceContext* pContext, PDEVICE_OBJECT pPhysicalDevice, ULONG ulDeviceIndex)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    frame.pPhysicalDevice = pPhysicalDevice;
    frame.ulDeviceIndex = ulDeviceIndex;
    KeInitializeSpinLock(&frame.InterfaceLock.Lock);
    frame.lReferences = 1;
    KeInitializeEvent(&frame.ReferencesGone, NotificationEvent, FALSE);
}
