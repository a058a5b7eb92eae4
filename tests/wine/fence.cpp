// fence.cpp - a device of its own, opened and closed by this process as an application. See fence.h.
#include "fence.h"

#include <kernel.h>

#include "send.h"
#include "text.h"
#include "usermode.h"

namespace
{
const std::u16string DEVICE = u"\\Device\\TvFence", LINK = u"\\DosDevices\\TvFence";

NTSTATUS NTAPI Succeed(PDEVICE_OBJECT, PIRP pIrp)
{
    pIrp->IoStatus.Status = STATUS_SUCCESS;
    pIrp->IoStatus.Information = 0;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EnterFence(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    for (UCHAR ucMajor : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        pDriver->MajorFunction[ucMajor] = Succeed;
    }
    UNICODE_STRING name = CountedText(DEVICE), link = CountedText(LINK);
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = IoCreateDevice(pDriver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
    if (NT_SUCCESS(status)) {
        pDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        status = IoCreateSymbolicLink(&link, &name);
    }
    return status;
}
} // namespace

bool PassFence()
{
    static const bool bMade = NT_SUCCESS(MakeDriver(u"\\Driver\\TvFence", EnterFence));
    return bMade && OpenAndClose("\\\\.\\TvFence");
}
