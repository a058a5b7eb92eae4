// request.cpp - one request to a device of another driver, found by name, sent and waited for.
//
//   OpenNamedDevice ──▶ file object, device ── SendOutsideRequest ──▶ status ── ObDereferenceObject(file)
//
// The reference on the file object keeps the device; the device itself is not referenced. The request is the
// driver's own until its completion has come, so a receiver that never answers can be told to give up: that
// happens when the control device goes (SiblingRequestsEnd), and the completion is waited for even then.
// Runs at PASSIVE_LEVEL in whatever thread calls.
#include "siblings/siblings.h"

#include "siblings/fields.h"

// No access rights are asked for.
// IRQL = PASSIVE. Owns: a reference on the file object, the caller's. Fails: no such name, it does not open.
NTSTATUS OpenNamedDevice(PCWSTR pszName, PFILE_OBJECT* ppFile, PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pszName);
    return IoGetDeviceObjectPointer(&name, 0, ppFile, ppDevice);
}

namespace
{
NTSTATUS NTAPI KeepCompleted(PDEVICE_OBJECT, PIRP, PVOID pDone)
{
    KeSetEvent(static_cast<PKEVENT>(pDone), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The event lies on the caller's stack: nobody leaves before it is set.
// IRQL = PASSIVE.
void WaitForAnswer(PIRP pIrp, PKEVENT pDone)
{
    PVOID pEnds[] = {pDone, &GlobalSiblings.SiblingRequestsEnd};
    if (KeWaitForMultipleObjects(ARRAYSIZE(pEnds), pEnds, WaitAny, Executive, KernelMode, FALSE, nullptr,
                                 nullptr) != STATUS_WAIT_0) {
        IoCancelIrp(pIrp);
        KeWaitForSingleObject(pDone, Executive, KernelMode, FALSE, nullptr);
    }
}
} // namespace

// The input goes down and the output comes up in ucData; bytes that the answer does not carry become zero.
// IRQL = PASSIVE. Fails: STATUS_UNSUCCESSFUL, no request could be built; else as the receiver answers.
NTSTATUS SendOutsideRequest(PDEVICE_OBJECT pTarget, OutsideRequest* pRequest)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    KEVENT done;
    PIRP pIrp = IoAllocateIrp(pTarget->StackSize, FALSE);
    if (pIrp == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = pRequest->ucMajor;
    pNext->Parameters.DeviceIoControl.IoControlCode = pRequest->ulCode;
    pNext->Parameters.DeviceIoControl.InputBufferLength = pRequest->ulInput;
    pNext->Parameters.DeviceIoControl.OutputBufferLength = pRequest->ulOutput;
    pIrp->AssociatedIrp.SystemBuffer = pRequest->ucData;
    IoSetCompletionRoutine(pIrp, KeepCompleted, &done, TRUE, TRUE, TRUE);

    if (IoCallDriver(pTarget, pIrp) == STATUS_PENDING) {
        WaitForAnswer(pIrp, &done);
    }
    const NTSTATUS status = pIrp->IoStatus.Status;
    if (NT_SUCCESS(status) && pIrp->IoStatus.Information < sizeof(pRequest->ucData)) {
        RtlZeroMemory(pRequest->ucData + pIrp->IoStatus.Information,
                      sizeof(pRequest->ucData) - pIrp->IoStatus.Information);
    }
    IoFreeIrp(pIrp);
    return status;
}
