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
bool AcquireDevice(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (!IsFilterDevice(device) || !AddUser(FieldsOf<FrameFields>(device).lReferences)) {
        return false;
    }
    if (ReadShared(FieldsOf<FrameFields>(device).ucRemoving) != 0) {
        ReleaseDevice(device);
        return false;
    }
    return true;
}

// Gives a reference back; the last one wakes the removal.
// IRQL <= DISPATCH.
void ReleaseDevice(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    FrameFields& frame = FieldsOf<FrameFields>(device);
    if (InterlockedDecrement(&frame.lReferences) == 0) {
        KeSetEvent(&frame.ReferencesGone, IO_NO_INCREMENT, FALSE);
    }
}

namespace
{
// The first of the devices from device on that takes a reference.
// IRQL = DISPATCH. Owns: one reference on the result.
PDEVICE_OBJECT AcquireFrom(PDEVICE_OBJECT device) REQUIRES_LOCK(GlobalFrame.KeyboardListLock)
{
    while (device != nullptr && !AcquireDevice(device)) {
        device = FieldsOf<FrameFields>(device).pNextKeyboard;
    }
    return device;
}
} // namespace

// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference on the result, null at the end.
PDEVICE_OBJECT FirstKeyboard()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    LockScope lock(GlobalFrame.KeyboardListLock);
    return AcquireFrom(GlobalFrame.pFirstKeyboard);
}

// The walk's step: the reference moves on to the next device. A walk that stops early releases device.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference on the result, null at the end.
PDEVICE_OBJECT NextKeyboard(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    PDEVICE_OBJECT pNext;
    {
        LockScope lock(GlobalFrame.KeyboardListLock);
        pNext = AcquireFrom(FieldsOf<FrameFields>(device).pNextKeyboard);
    }
    ReleaseDevice(device);
    return pNext;
}

// Makes a complete device findable.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
void PublishKeyboard(PDEVICE_OBJECT device)
{
    LockScope lock(GlobalFrame.KeyboardListLock);
    FieldsOf<FrameFields>(device).pNextKeyboard = GlobalFrame.pFirstKeyboard;
    GlobalFrame.pFirstKeyboard = device;
}

// The exchange keeps the order: a user that still got its reference is seen by WaitForReferences.
// IRQL <= DISPATCH.
void RefuseNewReferences(PDEVICE_OBJECT device)
{
    ExchangeShared(FieldsOf<FrameFields>(device).ucRemoving, 1);
}

// Gives up the reference that the attached device holds on itself and waits for all others.
// IRQL = PASSIVE, once, after RefuseNewReferences.
void WaitForReferences(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    ReleaseDevice(device);
    KeWaitForSingleObject(&FieldsOf<FrameFields>(device).ReferencesGone, Executive, KernelMode, FALSE,
                          nullptr);
}

// IRQL = PASSIVE, after WaitForReferences. Lock: takes KeyboardListLock.
void UnlinkKeyboard(PDEVICE_OBJECT device)
{
    LockScope lock(GlobalFrame.KeyboardListLock);
    PDEVICE_OBJECT* ppLink = &GlobalFrame.pFirstKeyboard;
    while (*ppLink != nullptr && *ppLink != device) {
        ppLink = &FieldsOf<FrameFields>(*ppLink).pNextKeyboard;
    }
    if (*ppLink != nullptr) {
        *ppLink = FieldsOf<FrameFields>(device).pNextKeyboard;
    }
}

// IRQL = PASSIVE, before any device exists.
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
