// send.cpp - see send.h; what host.h offers of it.
#include "send.h"

#include <host.h>

#include "text.h"
#include "turns.h"
#include "usermode.h"

NTSTATUS MakeDriver(const std::u16string& name, PDRIVER_INITIALIZE pEntry)
{
    typedef NTSTATUS(NTAPI CreateDriver)(PUNICODE_STRING pName, PDRIVER_INITIALIZE pEntry);
    UNICODE_STRING counted = CountedText(name);
    return reinterpret_cast<CreateDriver*>(KernelExport("IoCreateDriver"))(&counted, pEntry);
}

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

NTSTATUS HostSendPnp(PDEVICE_OBJECT pInStack, UCHAR ucMinor)
{
    Asking asking;
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pInStack);
    NTSTATUS status = SendToTop(pTop, IRP_MJ_PNP, ucMinor, nullptr, STATUS_NOT_SUPPORTED);
    ObDereferenceObject(pTop);
    return status;
}

NTSTATUS HostAddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    return pDriver->DriverExtension->AddDevice(pDriver, pPhysical);
}
