// call.cpp - a request's way down: IoCallDriver and what a dispatch routine may return.
//
// Dispatch routines call each other through here, so the frames are kept small and the tests that rarely
// fail stand in routines of their own.
#include "irp.h"

[[noreturn]] static void __attribute__((noinline))
BugOnReturn(UCHAR ucMajor, NTSTATUS status, bool bCompleted, bool bMarked)
{
    if (!bCompleted) {
        HostBug("IRP_LOST",
                "dispatch of major 0x%02x returned 0x%08x, but the request was neither completed nor kept "
                "pending",
                ucMajor, static_cast<unsigned>(status));
    }
    if ((status == STATUS_PENDING) == bMarked) {
        HostBug("IRP_RETURNED_STATUS_MISMATCH",
                "dispatch of major 0x%02x returned 0x%08x, the request was completed with another status",
                ucMajor, static_cast<unsigned>(status));
    }
    HostBug("IRP_PENDING_MISMATCH",
            "dispatch of major 0x%02x returned 0x%08x, the pending mark says otherwise", ucMajor,
            static_cast<unsigned>(status));
}

static void __attribute__((noinline)) CheckCall(PDEVICE_OBJECT pDevice, PIRP pIrp, PKTHREAD pSelf)
{
    if (pSelf->Irql > DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "IoCallDriver called at IRQL %u", pSelf->Irql);
    }
    if (pSelf->uHeld != 0) {
        HostBug("IRP_UNDER_SPIN_LOCK", "IoCallDriver while the thread holds a spin lock");
    }
    HostObjectOf(pDevice, "IoCallDriver");
    UCHAR ucMajor = IoGetNextIrpStackLocation(pIrp)->MajorFunction;
    if (pIrp->CurrentLocation <= 1) {
        HostBug("NO_MORE_IRP_STACK_LOCATIONS", "IoCallDriver on a request whose locations are used up");
    }
    if (__atomic_load_n(&pIrp->CancelRoutine, __ATOMIC_RELAXED) != nullptr) {
        HostBug("DRIVER_LEFT_CANCEL_ROUTINE", "IoCallDriver on a request with a cancel routine set");
    }
    if (ucMajor > IRP_MJ_MAXIMUM_FUNCTION) {
        HostBug("INVALID_MAJOR_FUNCTION", "IoCallDriver with major 0x%02x", ucMajor);
    }
    if (pSelf->Irql != PASSIVE_LEVEL &&
        (ucMajor == IRP_MJ_PNP || ucMajor == IRP_MJ_CREATE || ucMajor == IRP_MJ_CLOSE)) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "a request of major 0x%02x is sent at IRQL %u", ucMajor,
                pSelf->Irql);
    }
}

// "a START_DEVICE request to EmuKeyboard"
static std::string ShownRequest(PDEVICE_OBJECT pDevice, PIO_STACK_LOCATION pLocation)
{
    char what[64];
    if (pLocation->MajorFunction == IRP_MJ_PNP) {
        snprintf(what, sizeof what, "START_DEVICE");
    } else if (pLocation->Parameters.DeviceIoControl.IoControlCode == IOCTL_INTERNAL_USB_SUBMIT_URB) {
        snprintf(what, sizeof what, "URB of function 0x%02x",
                 static_cast<PURB>(pLocation->Parameters.Others.Argument1)->UrbHeader.Function);
    } else {
        snprintf(what, sizeof what, "control request 0x%08x",
                 static_cast<unsigned>(pLocation->Parameters.DeviceIoControl.IoControlCode));
    }
    const HostText service = HostServiceOf(pDevice->DriverObject);
    return what + (" to " + std::string(service.begin(), service.end()));
}

// The lower driver's status can fail too: what one driver sends to another, if it is a request that may.
static bool FailsBelow(PDRIVER_OBJECT pCaller, PDEVICE_OBJECT pDevice, PIO_STACK_LOCATION pLocation)
{
    UCHAR ucMajor = pLocation->MajorFunction;
    bool bMay = ucMajor == IRP_MJ_INTERNAL_DEVICE_CONTROL || ucMajor == IRP_MJ_DEVICE_CONTROL ||
                (ucMajor == IRP_MJ_PNP && pLocation->MinorFunction == IRP_MN_START_DEVICE);
    return bMay && pCaller != nullptr && pCaller != pDevice->DriverObject &&
           HostShouldFail("lower", "IoCallDriver", [&] { return ShownRequest(pDevice, pLocation); });
}

static NTSTATUS __attribute__((noinline)) FailRequest(PIRP pIrp)
{
    pIrp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    pIrp->IoStatus.Information = 0;
    IofCompleteRequest(pIrp, IO_NO_INCREMENT);
    return STATUS_INSUFFICIENT_RESOURCES;
}

// Makes the next location the current one and calls the device's driver. Power requests come by PoCallDriver only.
// IRQL <= DISPATCH. Lock: none held.
NTSTATUS HostCallDriver(PDEVICE_OBJECT pDevice, PIRP pIrp, bool bPowerToo)
{
    SCHEDULE_POINT();
    HostIrp* pHost = HostLiveIrp(pIrp, "IoCallDriver");
    if (!bPowerToo && pHost != nullptr && IoGetNextIrpStackLocation(pIrp)->MajorFunction == IRP_MJ_POWER) {
        HostBug("DRIVER_POWER_STATE_FAILURE", "IoCallDriver with a power request: PoCallDriver sends those");
    }
    PKTHREAD pSelf = HostSelf();
    CheckCall(pDevice, pIrp, pSelf);
    HostCheckPassedOn(pIrp, pHost);
    IoSetNextIrpStackLocation(pIrp);
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    UCHAR ucMajor = pLocation->MajorFunction;
    pLocation->DeviceObject = pDevice;
    HostStep* pStep = pHost == nullptr ? nullptr : &pHost->pSteps[static_cast<int>(pIrp->CurrentLocation)];
    HostCallFrame frame = {nullptr, false, false, 0};
    if (pStep != nullptr) {
        HostStepLock lock;
        frame.pBefore = pStep->pFrame;
        pStep->pFrame = &frame;
        pStep->pDevice = pDevice;
        pStep->pDriver = pDevice->DriverObject;
        pStep->pRoutine = pLocation->CompletionRoutine;
        pStep->bNextPower = false;
        pHost->iLowest = pIrp->CurrentLocation < pHost->iLowest ? pIrp->CurrentLocation : pHost->iLowest;
    }
    HostNote(pHost, "passed to", pDevice->DriverObject, ucMajor);
    bool bFail = FailsBelow(pSelf->pDriver, pDevice, pLocation);
    NTSTATUS status;
    {
        HostDriverScope scope(pDevice->DriverObject, "a dispatch routine");
        status = bFail ? FailRequest(pIrp) : pDevice->DriverObject->MajorFunction[ucMajor](pDevice, pIrp);
    }
    if (pStep == nullptr) {
        return status;
    }
    HostStepLock lock;
    if (frame.bCompleted) {
        if ((status == STATUS_PENDING) != frame.bMarked ||
            (status != STATUS_PENDING && status != frame.Status)) {
            BugOnReturn(ucMajor, status, true, frame.bMarked);
        }
    } else if (status == STATUS_PENDING) {
        pStep->pFrame = frame.pBefore;
        pStep->bReturnedPending = true;
        HostNote(pHost, "kept pending by", pDevice->DriverObject, ucMajor);
    } else {
        BugOnReturn(ucMajor, status, false, false);
    }
    return status;
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return HostCallDriver(pDevice, pIrp, false);
}
