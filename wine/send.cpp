// send.cpp - see send.h.
#include "send.h"

static NTSTATUS NTAPI TellEnd(PDEVICE_OBJECT, PIRP, PVOID pEvent)
{
    KeSetEvent(static_cast<PKEVENT>(pEvent), 0, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SendToTop(PDEVICE_OBJECT pTop, UCHAR ucMajor, UCHAR ucMinor, PFILE_OBJECT pFile, NTSTATUS initial)
{
    KEVENT ended;
    KeInitializeEvent(&ended, NotificationEvent, FALSE);
    PIRP pIrp = IoAllocateIrp(pTop->StackSize, FALSE);
    if (!pIrp) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIO_STACK_LOCATION pLocation = IoGetNextIrpStackLocation(pIrp);
    pLocation->MajorFunction = ucMajor;
    pLocation->MinorFunction = ucMinor;
    pLocation->FileObject = pFile;
    pIrp->IoStatus.Status = initial;
    IoSetCompletionRoutine(pIrp, TellEnd, &ended, TRUE, TRUE, TRUE);
    IoCallDriver(pTop, pIrp);
    KeWaitForSingleObject(&ended, Executive, KernelMode, FALSE, nullptr);
    NTSTATUS status = pIrp->IoStatus.Status;
    IoFreeIrp(pIrp);
    return status;
}
