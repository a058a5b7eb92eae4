// complete.cpp - a request's way up: IoCompleteRequest, completion routines, and the end of a request.
#include "irp.h"

// The request leaves a location: what its dispatch routine returned, or will return, must agree.
static void __attribute__((noinline)) RetireStep(HostStep* pStep, PIRP pIrp, bool bMarked)
{
    HostStepLock lock;
    for (HostCallFrame* pFrame = pStep->pFrame; pFrame != nullptr; pFrame = pFrame->pBefore) {
        pFrame->bCompleted = true;
        pFrame->bMarked = bMarked;
        pFrame->Status = pIrp->IoStatus.Status;
    }
    if (pStep->bReturnedPending && !bMarked) {
        HostBug("IRP_PENDING_MISMATCH",
                "a dispatch routine returned STATUS_PENDING, but the request was not marked");
    }
    if (HostIsPower(IoGetCurrentIrpStackLocation(pIrp)) && pStep->pDevice != nullptr && !pStep->bNextPower) {
        HostBug("DRIVER_POWER_STATE_FAILURE", "a power request is completed without PoStartNextPowerIrp");
    }
    *pStep = {};
}

static void __attribute__((noinline)) CheckCompletion(PIRP pIrp, HostIrp* pHost, PKTHREAD pSelf)
{
    if (pSelf->Irql > DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "IoCompleteRequest called at IRQL %u", pSelf->Irql);
    }
    if (pSelf->uHeld != 0) {
        HostBug("IRP_UNDER_SPIN_LOCK", "IoCompleteRequest while the thread holds a spin lock");
    }
    if (pIrp->CurrentLocation > pIrp->StackCount + 1 || pIrp->CurrentLocation < 1) {
        HostBug("MULTIPLE_IRP_COMPLETE_REQUESTS", "IoCompleteRequest on a request that was completed before");
    }
    if (pIrp->IoStatus.Status == STATUS_PENDING) {
        HostBug("IRP_COMPLETED_PENDING", "IoCompleteRequest with the status STATUS_PENDING");
    }
    if (__atomic_load_n(&pIrp->CancelRoutine, __ATOMIC_RELAXED) != nullptr) {
        HostBug("DRIVER_LEFT_CANCEL_ROUTINE", "IoCompleteRequest on a request with a cancel routine set");
    }
    if (pIrp->CurrentLocation <= pIrp->StackCount && pSelf->pDriver != nullptr) {
        PDEVICE_OBJECT pDevice = IoGetCurrentIrpStackLocation(pIrp)->DeviceObject;
        if (pDevice != nullptr && pDevice->DriverObject != pSelf->pDriver) {
            HostBug("MULTIPLE_IRP_COMPLETE_REQUESTS",
                    "IoCompleteRequest by a driver that no longer holds the request");
        }
    }
    if (pIrp->CurrentLocation <= pIrp->StackCount && pHost != nullptr) {
        HostCheckAnswered(pIrp, pHost);
    }
}

static bool Wants(PIRP pIrp, UCHAR ucControl)
{
    if (__atomic_load_n(&pIrp->Cancel, __ATOMIC_RELAXED) && (ucControl & SL_INVOKE_ON_CANCEL)) {
        return true;
    }
    return ucControl & (NT_SUCCESS(pIrp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR);
}

static NTSTATUS Notify(PIRP pIrp, HostIrp* pHost, PIO_COMPLETION_ROUTINE pRoutine, PVOID pContext)
{
    bool bTop = pIrp->CurrentLocation > pIrp->StackCount;
    PDEVICE_OBJECT pDevice = bTop ? nullptr : IoGetCurrentIrpStackLocation(pIrp)->DeviceObject;
    PDRIVER_OBJECT pDriver = pDevice != nullptr ? pDevice->DriverObject
                             : pHost != nullptr ? pHost->pOwner
                                                : nullptr;
    HostDriverScope scope(pDriver, "a completion routine");
    NTSTATUS status = pRoutine(pDevice, pIrp, pContext);
    if (status != STATUS_MORE_PROCESSING_REQUIRED) { // else the request may be gone
        HostNote(pHost, "completion routine returned", pDriver, static_cast<ULONG>(status));
    }
    return status;
}

void HostCopyOut(PIRP pIrp, HostIrp* pHost)
{
    ULONG_PTR ulBytes = pIrp->IoStatus.Information;
    bool bError = NT_ERROR(pIrp->IoStatus.Status);
    if (!bError && pHost->ulMethod != METHOD_NEITHER && ulBytes > pHost->ulOutput) {
        HostBug("IRP_INFORMATION_BEYOND_OUTPUT", "completed with Information %llu, the output has %u bytes",
                ulBytes, pHost->ulOutput);
    }
    if (pHost->ulMethod == METHOD_BUFFERED && !bError && ulBytes != 0 && pIrp->UserBuffer != nullptr) {
        size_t offset;
        const UCHAR* pData = static_cast<const UCHAR*>(pIrp->AssociatedIrp.SystemBuffer);
        if (HostFindUnwritten(pData, ulBytes, &offset) ||
            HostFindUnwrittenOutput(pHost->ulCode, pHost->ullKey, pData, pHost->ulInput, ulBytes, &offset)) {
            HostBug("UNINITIALISED_OUTPUT", "the output holds memory that nobody wrote, at byte %zu of %llu",
                    offset, ulBytes);
        }
        HostTellOutput("an answer", pData, ulBytes);
        memcpy(pIrp->UserBuffer, pData, ulBytes);
    }
    if (pIrp->AssociatedIrp.SystemBuffer != nullptr && pHost->ulMethod != METHOD_NEITHER) {
        HostRelease(pIrp->AssociatedIrp.SystemBuffer, HostIrpBufferKind);
    }
    if (pIrp->MdlAddress != nullptr) {
        IoFreeMdl(pIrp->MdlAddress);
    }
}

// The request has left its last location: the system takes it back, unless its maker was to.
static void __attribute__((noinline)) Finish(PIRP pIrp, HostIrp* pHost)
{
    if (pHost == nullptr || !pHost->bSystem) {
        HostBug("IRP_NOT_RECLAIMED",
                "a request of IoAllocateIrp went up to its end: no completion routine took it");
    }
    HostCopyOut(pIrp, pHost);
    IO_STATUS_BLOCK result = pIrp->IoStatus;
    PIO_STATUS_BLOCK pUser = NT_ERROR(result.Status) && !pIrp->PendingReturned ? nullptr : pIrp->UserIosb;
    PKEVENT pEvent = pUser != nullptr || pHost->pResult != nullptr ? pIrp->UserEvent : nullptr;
    PIO_STATUS_BLOCK pAlways = pHost->pResult;
    bool bHeld;
    {
        HostLock lock(g->Lock);
        if (pHost->pRequester != nullptr) {
            pHost->pRequester->pRequest = nullptr;
        }
        pHost->bComplete = true;
        if (pHost->bOnStack) {
            HostAdd(&pIrp->Tail.Overlay.Thread->uOnStack, -1u);
            pHost->bOnStack = false;
        }
        bHeld = pHost->uHolds != 0;
    }
    if (!bHeld) {
        HostDeleteIrp(pHost);
    }
    if (pUser != nullptr) {
        *pUser = result;
    }
    if (pAlways != nullptr) {
        *pAlways = result;
    }
    if (pAlways != nullptr && HostTakesTurns() && IsListEmpty(&pEvent->Header.WaitListHead)) {
        pEvent->Header.SignalState = 1; // the system's own, and nobody waits yet
    } else if (pEvent != nullptr) {
        KeSetEvent(pEvent, IO_NO_INCREMENT, FALSE);
    }
}

// Takes the request up, location by location, until a completion routine keeps it or it has left the last.
// IRQL <= DISPATCH. Lock: none held.
void IofCompleteRequest(PIRP pIrp, CCHAR)
{
    SCHEDULE_POINT();
    HostIrp* pHost = HostLiveIrp(pIrp, "IoCompleteRequest");
    PKTHREAD pSelf = HostSelf();
    CheckCompletion(pIrp, pHost, pSelf);
    HostNote(pHost, "completed with status", pSelf->pDriver, static_cast<ULONG>(pIrp->IoStatus.Status));
    while (pIrp->CurrentLocation <= pIrp->StackCount) {
        PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
        UCHAR ucControl = pLocation->Control;
        PIO_COMPLETION_ROUTINE pRoutine = pLocation->CompletionRoutine;
        bool bMarked = ucControl & SL_PENDING_RETURNED;
        pIrp->PendingReturned = bMarked;
        if (pHost != nullptr) {
            RetireStep(&pHost->pSteps[static_cast<int>(pIrp->CurrentLocation)], pIrp, bMarked);
        }
        pLocation->Control = 0;
        pLocation->CompletionRoutine = nullptr;
        IoSkipCurrentIrpStackLocation(pIrp);
        if (pRoutine != nullptr && Wants(pIrp, ucControl)) {
            HostNote(pHost, "completion routine called", nullptr, ucControl);
            if (Notify(pIrp, pHost, pRoutine, pLocation->Context) == STATUS_MORE_PROCESSING_REQUIRED) {
                return;
            }
        } else if (bMarked && pIrp->CurrentLocation <= pIrp->StackCount) {
            IoMarkIrpPending(pIrp);
        }
    }
    Finish(pIrp, pHost);
}
