// fence.cpp - a device of its own, opened and closed by this process as an application. See fence.h.
#include "fence.h"

#include <host.h>

#include "testdriver.h"
#include "usermode.h"

static NTSTATUS NTAPI Succeed(PDEVICE_OBJECT, PIRP pIrp)
{
    return SucceedTestRequest(pIrp);
}

static NTSTATUS NTAPI EnterFence(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    pDriver->MajorFunction[IRP_MJ_CREATE] = Succeed;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = Succeed;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = Succeed;
    return MakeTestControl(pDriver, L"\\Device\\TvFence", L"\\DosDevices\\TvFence");
}

bool PassFence()
{
    PDRIVER_OBJECT pFence;
    return NT_SUCCESS(HostLoadDriver(EnterFence, L"TvFence", &pFence)) && OpenAndClose("\\\\.\\TvFence");
}
