// stack.cpp - what a driver in the middle of a stack owes a request that it passes on.
//
// It sets up the next location or skips its own, not both; a completion routine stands in the location that is
// called. Plug and Play requests reach the device at the bottom. Power requests travel by PoCallDriver, and every
// driver lets the next one start.
#include "irp.h"

bool HostIsPower(PIO_STACK_LOCATION pLocation)
{
    return pLocation->MajorFunction == IRP_MJ_POWER &&
           (pLocation->MinorFunction == IRP_MN_SET_POWER || pLocation->MinorFunction == IRP_MN_QUERY_POWER);
}

static bool StaysWhatItIs(UCHAR ucMajor)
{
    return ucMajor == IRP_MJ_PNP || ucMajor == IRP_MJ_POWER || ucMajor == IRP_MJ_SYSTEM_CONTROL;
}

// Before the next location becomes the current one.
void HostCheckPassedOn(PIRP pIrp, HostIrp* pHost)
{
    const PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    const int iNext = pIrp->CurrentLocation - 1;
    const PIO_STACK_LOCATION pCurrent =
        pIrp->CurrentLocation <= pIrp->StackCount ? IoGetCurrentIrpStackLocation(pIrp) : nullptr;
    if (pCurrent != nullptr && StaysWhatItIs(pCurrent->MajorFunction) &&
        (pNext->MajorFunction != pCurrent->MajorFunction ||
         pNext->MinorFunction != pCurrent->MinorFunction)) {
        HostBug("IRP_NEXT_LOCATION_NOT_SET_UP",
                "a request of major 0x%02x is passed on with major 0x%02x in the next location",
                pCurrent->MajorFunction, pNext->MajorFunction);
    }
    const HostStep* pStep = pHost == nullptr ? nullptr : &pHost->pSteps[iNext];
    const bool bSkipped = pStep != nullptr && pStep->pDevice != nullptr;
    if ((iNext > 1 && (pNext - 1)->CompletionRoutine != nullptr) ||
        (bSkipped && pStep->pRoutine != pNext->CompletionRoutine)) {
        HostBug("IRP_COMPLETION_ROUTINE_SKIPPED",
                "IoCallDriver after IoSetCompletionRoutine and IoSkipCurrentIrpStackLocation");
    }
    if (bSkipped && HostIsPower(pNext) && !pStep->bNextPower) {
        HostBug("DRIVER_POWER_STATE_FAILURE", "a power request is passed on without PoStartNextPowerIrp");
    }
}

// A filter may refuse a start or a query, and everything but the removal once it is being removed itself.
static bool MayFailAbove(UCHAR ucMinor, NTSTATUS status)
{
    return ucMinor == IRP_MN_START_DEVICE || ucMinor == IRP_MN_QUERY_REMOVE_DEVICE ||
           ucMinor == IRP_MN_QUERY_STOP_DEVICE ||
           (status == STATUS_DELETE_PENDING && ucMinor != IRP_MN_REMOVE_DEVICE);
}

// Before the request leaves the location of the one who completes it.
void HostCheckAnswered(PIRP pIrp, HostIrp* pHost)
{
    const PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    const PDEVICE_OBJECT pDevice = pHost->pSteps[static_cast<int>(pIrp->CurrentLocation)].pDevice;
    if (pLocation->MajorFunction == IRP_MJ_PNP && pIrp->CurrentLocation == pHost->iLowest &&
        pDevice != nullptr && HostIsAttached(pDevice) &&
        (NT_SUCCESS(pIrp->IoStatus.Status) ||
         !MayFailAbove(pLocation->MinorFunction, pIrp->IoStatus.Status))) {
        HostBug("PNP_IRP_NOT_FORWARDED",
                "a Plug and Play request of minor 0x%02x is completed above the device at the bottom",
                pLocation->MinorFunction);
    }
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return HostCallDriver(pDevice, pIrp, true);
}

void PoStartNextPowerIrp(PIRP pIrp)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostIrp* pHost = HostLiveIrp(pIrp, __func__);
    if (pHost != nullptr && pIrp->CurrentLocation <= pIrp->StackCount) {
        HostStepLock lock;
        pHost->pSteps[static_cast<int>(pIrp->CurrentLocation)].bNextPower = true;
    }
}
