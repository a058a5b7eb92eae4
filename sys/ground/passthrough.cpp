// passthrough.cpp - the road of every request that nobody here has business with.
//
// In:  a request to the control device or to a filter device.
// Out: the control device completes it with success; a filter device hands it to the device below.
// Runs in whatever context the request arrives in, up to DISPATCH_LEVEL. A filter device is referenced
// while a request passes, so that removal does not pull it away.
#include "ground/ground.h"

// IRQL <= DISPATCH. Owns: gives the request up. Fails: with the status it was completed with.
NTSTATUS CompleteRequest(PIRP pIrp, NTSTATUS status, ULONG_PTR ulInformation)
{
    pIrp->IoStatus.Status = status;
    pIrp->IoStatus.Information = ulInformation;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

// Hands a request on as it is. The caller holds the device.
// IRQL <= DISPATCH. Owns: gives the request up. Fails: nothing below, or as the device below says.
NTSTATUS ForwardRequest(DeviceContext* pContext, PIRP pIrp)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    if (frame.pLowerDevice == nullptr) {
        return CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    }
    IoSkipCurrentIrpStackLocation(pIrp);
    return IoCallDriver(frame.pLowerDevice, pIrp);
}

namespace
{
NTSTATUS NTAPI SignalForwarded(PDEVICE_OBJECT, PIRP, PVOID pEvent)
{
    KeSetEvent(static_cast<PKEVENT>(pEvent), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}
} // namespace

// Sends a request down and waits until the drivers below are done with it; it comes back to the caller, who
// completes it. The caller holds the device, which has a lower one.
// IRQL = PASSIVE. Owns: the request stays the caller's. Fails: with the lower driver's final status.
NTSTATUS ForwardAndWait(DeviceContext* pContext, PIRP pIrp)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(pIrp);
    IoSetCompletionRoutine(pIrp, SignalForwarded, &done, TRUE, TRUE, TRUE);
    if (IoCallDriver(frame.pLowerDevice, pIrp) == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    return pIrp->IoStatus.Status;
}

// IRQL <= DISPATCH. Fails: the device is being removed, or as the device below says.
NTSTATUS DispatchPassThrough(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (IsControlDevice(device)) {
        return CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    }
    const KeyboardReference keyboard(device);
    if (!keyboard.IsHeld()) {
        return CompleteRequest(pIrp, keyboard.Status(), 0);
    }
    return ForwardRequest(keyboard.Context(), pIrp);
}

// IRQL <= DISPATCH.
NTSTATUS DispatchRead(PDEVICE_OBJECT device, PIRP pIrp)
{
    return DispatchPassThrough(device, pIrp);
}

// Power requests are released one after the other to those below, completed here or not.
// IRQL <= DISPATCH. Fails: the device is being removed, nothing below, or as the device below says.
NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (IsControlDevice(device)) {
        return CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    }
    PoStartNextPowerIrp(pIrp);
    const KeyboardReference keyboard(device);
    if (!keyboard.IsHeld()) {
        return CompleteRequest(pIrp, keyboard.Status(), 0);
    }
    PDEVICE_OBJECT pLower = FieldsOf<FrameFields>(keyboard.Context()).pLowerDevice;
    if (pLower == nullptr) {
        return CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    }
    IoSkipCurrentIrpStackLocation(pIrp);
    return PoCallDriver(pLower, pIrp);
}
