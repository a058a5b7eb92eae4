// internalioctl.cpp - an internal device control request on its way down and on its way back.
//
//   HID stack ──► DispatchInternalIoctl ──► FilterInternalIoctl ── answered ──► completed here
//                                                │ passed down
//                                                ▼
//   HID stack ◄── InternalIoctlCompletion ◄── USB stack
//
// A request that is passed down holds a reference on the keyboard until its completion. How much the stack
// asked for is kept in the request's own stack location, because the USB stack overwrites it with what came.
#include "usb/usb.h"

#include "log/events.h"
#include "usb/pendingfields.h"

namespace
{
// Whether the request is a read of the interrupt pipe: those alone are kept as pending reads.
bool IsInterruptRead(PIRP Irp)
{
    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(Irp);
    if (pStack->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB) {
        return false;
    }
    PURB pUrb = static_cast<PURB>(pStack->Parameters.Others.Argument1);
    return pUrb != nullptr && pUrb->UrbHeader.Length >= sizeof(pUrb->UrbBulkOrInterruptTransfer) &&
           pUrb->UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER &&
           (pUrb->UrbBulkOrInterruptTransfer.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
}

// `lMissed` was read before the request was looked at: whoever queued something since then and found no read
// to call back has this one called back.
NTSTATUS PassDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, LONG lMissed)
{
    PendingFields& pending = FieldsOf<PendingFields>(DeviceObject);
    FrameFields& frame = FieldsOf<FrameFields>(DeviceObject);
    if (IsInterruptRead(Irp)) {
        WriteShared(pending.ulIrpCancelledForInsert, 0u);
        (void)AddPendingIrp(DeviceObject, Irp); // a full list leaves the read untracked
        if (ReadShared(pending.lMissedCalls) != lMissed) {
            (void)CancelPendingRead(DeviceObject); // comes back at once: the stack's next one is answered
        }
    }
    IoCopyCurrentIrpStackLocationToNext(Irp);
    RememberRequestedLength(Irp);
    IoSetCompletionRoutine(Irp, InternalIoctlCompletion, DeviceObject, TRUE, TRUE, TRUE);
    return IoCallDriver(frame.pLowerDevice, Irp);
}
} // namespace

// Looks at a request on its way down. *pucComplete becomes 1 when the caller shall complete it.
// IRQL <= DISPATCH. Owns: passed down, the request is the lower driver's; parked, the macro mode's.
// Fails: the keyboard is being removed; else with what the lower driver returned.
NTSTATUS FilterInternalIoctl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PUCHAR pucComplete)
{
    const LONG lMissed = ReadShared(FieldsOf<PendingFields>(DeviceObject).lMissedCalls);
    switch (ShowURBInfo(DeviceObject, Irp, 0)) {
    case URB_ANSWERED:
        Irp->IoStatus.Status = STATUS_SUCCESS;
        *pucComplete = 1;
        return STATUS_SUCCESS;
    case URB_PARKED:
        return STATUS_PENDING;
    default:
        break;
    }
    if (!AcquireDevice(DeviceObject)) {
        Irp->IoStatus.Status = STATUS_DELETE_PENDING;
        *pucComplete = 1;
        return STATUS_DELETE_PENDING;
    }
    return PassDown(DeviceObject, Irp, lMissed);
}

// A request comes back: what it brought is looked at, and the request is no longer pending. Its status goes
// up as it is, but a cancelled one reports success. A read whose canceller has not let go of it yet is
// completed by the canceller.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock.
NTSTATUS InternalIoctlCompletion(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    PDEVICE_OBJECT DeviceObject = static_cast<PDEVICE_OBJECT>(Context);
    NTSTATUS status = Irp->IoStatus.Status;
    if (Irp->PendingReturned) {
        IoMarkIrpPending(Irp);
    }
    if (NT_SUCCESS(status)) {
        (void)ShowURBInfo(DeviceObject, Irp, 1); // nothing is answered on the way back
    } else if (status == STATUS_CANCELLED && ReadShared(Irp->Cancel)) {
        status = STATUS_SUCCESS;
    } else {
        Trace(RequestFailed, IndexOf(DeviceObject), status);
    }
    if (RemovePendingIrp(DeviceObject, Irp)) {
        status = STATUS_MORE_PROCESSING_REQUIRED;
    }
    ReleaseDevice(DeviceObject);
    return status;
}

// The IRP_MJ_INTERNAL_DEVICE_CONTROL entry.
NTSTATUS DispatchInternalIoctl(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (IsControlDevice(device)) {
        return CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    }
    if (!IsFilterDevice(device)) {
        return DispatchPassThrough(device, pIrp);
    }
    const KeyboardReference keyboard(device);
    if (!keyboard.IsHeld()) {
        return CompleteRequest(pIrp, keyboard.Status(), 0);
    }
    if (FieldsOf<FrameFields>(keyboard.Context()).pLowerDevice == nullptr) {
        return CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    }
    UCHAR ucComplete = 0;
    const NTSTATUS status = FilterInternalIoctl(device, pIrp, &ucComplete);
    return ucComplete ? CompleteAnsweredRead(device, pIrp) : status;
}
