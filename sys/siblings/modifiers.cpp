// modifiers.cpp - the modifier word for the mouse filters of the same family.
//
//   report road, DISPATCH ── QueueModifiers ──▶ work item ──▶ DeliverModifiers, PASSIVE ── SendMouseRequest ──▶
//
// In:  the modifier word of all keyboards, whenever it changed.
// Out: a request with the word to each mouse filter that is connected.
// Each queued word counts in the control device's lNotifications; the device's end waits for them. A work
// item also holds the device object, so the driver stays until its routine has returned.
#include "siblings/siblings.h"

#include "siblings/fields.h"

namespace
{
// A word on its way.
struct QueuedModifiers {
    PIO_WORKITEM pWorkItem;
    ULONG ulModifiers;
};

bool IsMouseConnected(const ControlContext* pControl)
{
    return ReadShared(pControl->Ps2Mouse.ucConnected) != 0 || ReadShared(pControl->UsbMouse.ucConnected) != 0;
}
} // namespace

// Readable at any time: without a control device no sibling is known.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock.
bool IsMouseSiblingConnected()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (ReadShared(GlobalSiblings.ucPs2MouseArrivals) == 0 &&
        ReadShared(GlobalSiblings.ucUsbMouseArrivals) == 0) {
        return false;
    }
    PDEVICE_OBJECT pControlDevice = ReferenceControlDevice();
    if (pControlDevice == nullptr) {
        return false;
    }
    const bool bConnected = IsMouseConnected(ControlContextOf(pControlDevice));
    ObDereferenceObject(pControlDevice);
    return bConnected;
}

namespace
{
// IRQL <= DISPATCH.
void LeaveNotifications(ControlContext* pControl)
{
    if (InterlockedDecrement(&pControl->lNotifications) == 0) {
        KeSetEvent(&pControl->NotificationsGone, IO_NO_INCREMENT, FALSE);
    }
}

// The deferred half, in a system worker thread.
// IRQL = PASSIVE. Owns: frees the record and its work item.
void NTAPI DeliverModifiers(PDEVICE_OBJECT pControlDevice, PVOID pContext)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    QueuedModifiers* pQueued = static_cast<QueuedModifiers*>(pContext);
    const ULONG ulModifiers = pQueued->ulModifiers;
    IoFreeWorkItem(pQueued->pWorkItem);
    ExFreePoolWithTag(pQueued, POOL_TAG);
    (void)NotifyMouseModifiers(&ulModifiers); // sent again at the next change
    LeaveNotifications(ControlContextOf(pControlDevice));
}

// Without memory, or when the control device is on its way out, the word is dropped.
// IRQL <= DISPATCH. Owns: a copy of the word, until it is delivered.
void QueueModifiers(PDEVICE_OBJECT pControlDevice, ULONG ulModifiers)
{
    QueuedModifiers* pQueued =
        static_cast<QueuedModifiers*>(AllocateZeroed(NonPagedPoolNx, sizeof(QueuedModifiers)));
    if (pQueued == nullptr) {
        return;
    }
    pQueued->ulModifiers = ulModifiers;
    pQueued->pWorkItem = IoAllocateWorkItem(pControlDevice);
    if (pQueued->pWorkItem != nullptr && AddUser(ControlContextOf(pControlDevice)->lNotifications)) {
        IoQueueWorkItem(pQueued->pWorkItem, DeliverModifiers, DelayedWorkQueue, pQueued);
        return;
    }
    if (pQueued->pWorkItem != nullptr) {
        IoFreeWorkItem(pQueued->pWorkItem);
    }
    ExFreePoolWithTag(pQueued, POOL_TAG);
}
} // namespace

// The four bytes that the mouse filter may fill are not looked at.
// IRQL = PASSIVE. Fails: the device does not open, no request, or as the mouse filter answers.
NTSTATUS SendMouseRequest(PCWSTR pszName, const ULONG* pulModifiers)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    PFILE_OBJECT pFile;
    PDEVICE_OBJECT pTarget;
    OutsideRequest request = {
        IRP_MJ_INTERNAL_DEVICE_CONTROL, IOCTL_SIBLING_SET_MODIFIERS, sizeof(ULONG), sizeof(ULONG), {}};
    if (!NT_SUCCESS(OpenNamedDevice(pszName, &pFile, &pTarget))) {
        return STATUS_UNSUCCESSFUL;
    }
    RtlCopyMemory(request.ucData, pulModifiers, sizeof(ULONG));
    const NTSTATUS status = SendOutsideRequest(pTarget, &request);
    ObDereferenceObject(pFile);
    return status;
}

namespace
{
// Both mice are told, the PS/2 mouse first, whatever the first one answers.
// IRQL = PASSIVE. Fails: STATUS_UNSUCCESSFUL, one of them answered with an error.
NTSTATUS TellMice(const ControlContext* pControl, const ULONG* pulModifiers)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (ReadShared(pControl->Ps2Mouse.ucConnected) != 0 &&
        NT_ERROR(SendMouseRequest(L"\\Device\\TvPS2M_COMM", pulModifiers))) {
        status = STATUS_UNSUCCESSFUL;
    }
    if (ReadShared(pControl->UsbMouse.ucConnected) != 0 &&
        NT_ERROR(SendMouseRequest(L"\\Device\\TvUSBM_COMM", pulModifiers))) {
        status = STATUS_UNSUCCESSFUL;
    }
    return status;
}
} // namespace

// Sends the word to the connected mice at PASSIVE_LEVEL, above that later and from a worker thread.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Fails: STATUS_UNSUCCESSFUL, no mouse, deferred, or a mouse
// answered with an error.
NTSTATUS NotifyMouseModifiers(const ULONG* pulModifiers)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PDEVICE_OBJECT pControlDevice = ReferenceControlDevice();
    if (pControlDevice == nullptr) {
        return status;
    }
    const ControlContext* pControl = ControlContextOf(pControlDevice);
    if (!IsMouseConnected(pControl)) {
        // nobody to tell
    } else if (KeGetCurrentIrql() > PASSIVE_LEVEL) {
        QueueModifiers(pControlDevice, *pulModifiers);
    } else {
        status = TellMice(pControl, pulModifiers);
    }
    ObDereferenceObject(pControlDevice);
    return status;
}

// The words that are still queued find no control device and are dropped; a mouse that does not answer is
// told to give up.
// IRQL = PASSIVE, once, after the control device can no longer be referenced.
void EndNotifications(ControlContext* pControl)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    KeSetEvent(&GlobalSiblings.SiblingRequestsEnd, IO_NO_INCREMENT, FALSE);
    LeaveNotifications(pControl);
    KeWaitForSingleObject(&pControl->NotificationsGone, Executive, KernelMode, FALSE, nullptr);
    KeClearEvent(&GlobalSiblings.SiblingRequestsEnd);
}
