// The list of held requests. The answer waits in the request's own status block.
#include "held.h"

static NTSTATUS Complete(PIRP pIrp, NTSTATUS Status, ULONG_PTR ulInformation)
{
    pIrp->IoStatus.Status = Status;
    pIrp->IoStatus.Information = ulInformation;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return Status;
}

// One that was held has been completed: the end of the device waits for the last.
// IRQL <= DISPATCH. Lock: takes Lock.
static VOID NoteCompleted(HeldRequests* pHeld)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock);
    if (--pHeld->ulUnderWay == 0) {
        KeSetEvent(&pHeld->NoneLeft, IO_NO_INCREMENT, FALSE);
    }
    KeReleaseSpinLock(&pHeld->Lock, irql);
}

// IRQL DISPATCH, with the cancel spin lock. Lock: takes Lock.
static VOID NTAPI CancelHeld(PDEVICE_OBJECT, PIRP pIrp)
{
    auto pHeld = static_cast<HeldRequests*>(pIrp->Tail.Overlay.DriverContext[0]);
    IoReleaseCancelSpinLock(pIrp->CancelIrql);
    LARGE_INTEGER delay;
    delay.QuadPart = InterlockedOr(&pHeld->lCancelMs, 0) * -10000LL;
    if (delay.QuadPart != 0 && KeGetCurrentIrql() == PASSIVE_LEVEL) {
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock);
    RemoveEntryList(&pIrp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&pHeld->Lock, irql);
    Complete(pIrp, STATUS_CANCELLED, 0);
    NoteCompleted(pHeld);
}

// The oldest request that is not being cancelled; one whose cancel routine runs already is left to it.
// IRQL <= DISPATCH. Lock: takes Lock.
static PIRP TakeHeld(HeldRequests* pHeld)
{
    PIRP pTaken = nullptr;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock);
    while (!pTaken && !IsListEmpty(&pHeld->Waiting)) {
        PLIST_ENTRY pEntry = RemoveHeadList(&pHeld->Waiting);
        PIRP pIrp = CONTAINING_RECORD(pEntry, IRP, Tail.Overlay.ListEntry);
        InitializeListHead(pEntry);
        pTaken = IoSetCancelRoutine(pIrp, nullptr) ? pIrp : nullptr;
    }
    KeReleaseSpinLock(&pHeld->Lock, irql);
    return pTaken;
}

VOID ReleaseHeld(HeldRequests* pHeld)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    while (PIRP pIrp = TakeHeld(pHeld)) {
        IoCompleteRequest(pIrp, IO_NO_INCREMENT);
        NoteCompleted(pHeld);
    }
}

static VOID NTAPI TimeOver(PKDPC, PVOID pContext, PVOID, PVOID)
{
    ReleaseHeld(static_cast<HeldRequests*>(pContext));
}

VOID InitializeHeld(HeldRequests* pHeld)
{
    KeInitializeSpinLock(&pHeld->Lock);
    InitializeListHead(&pHeld->Waiting);
    pHeld->bGone = FALSE;
    pHeld->ulUnderWay = 0;
    KeInitializeEvent(&pHeld->NoneLeft, NotificationEvent, TRUE);
    KeInitializeTimer(&pHeld->Timer);
    KeInitializeDpc(&pHeld->Dpc, TimeOver, pHeld);
}

// Puts a request on the list; a delay above 0 starts the timer. All under one lock, so that the end of the
// device finds both. IRQL <= DISPATCH. Lock: takes Lock.
static NTSTATUS Hold(HeldRequests* pHeld, PIRP pIrp, ULONG ulDelayMs)
{
    LARGE_INTEGER due;
    due.QuadPart = -(LONGLONG)ulDelayMs * 10000;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock);
    if (pHeld->bGone) {
        KeReleaseSpinLock(&pHeld->Lock, irql);
        return Complete(pIrp, STATUS_DELETE_PENDING, 0);
    }
    IoMarkIrpPending(pIrp);
    pIrp->Tail.Overlay.DriverContext[0] = pHeld;
    pHeld->ulUnderWay++;
    KeClearEvent(&pHeld->NoneLeft);
    InsertTailList(&pHeld->Waiting, &pIrp->Tail.Overlay.ListEntry);
    IoSetCancelRoutine(pIrp, CancelHeld);
    // The canceller sets its mark, then looks for the routine; this side the other way round.
    bool bCancelled = __atomic_load_n(&pIrp->Cancel, __ATOMIC_SEQ_CST) && IoSetCancelRoutine(pIrp, nullptr);
    if (bCancelled) {
        RemoveEntryList(&pIrp->Tail.Overlay.ListEntry);
    } else if (ulDelayMs != 0) {
        KeSetTimer(&pHeld->Timer, due, &pHeld->Dpc);
    }
    KeReleaseSpinLock(&pHeld->Lock, irql);
    if (bCancelled) {
        Complete(pIrp, STATUS_CANCELLED, 0);
        NoteCompleted(pHeld);
    }
    return STATUS_PENDING;
}

NTSTATUS AnswerRequest(HeldRequests* pHeld, PIRP pIrp, NTSTATUS Status, ULONG_PTR ulInformation,
                       BOOLEAN bHold, ULONG ulDelayMs)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (!bHold && ulDelayMs == 0) {
        return Complete(pIrp, Status, ulInformation);
    }
    pIrp->IoStatus.Status = Status;
    pIrp->IoStatus.Information = ulInformation;
    return Hold(pHeld, pIrp, bHold ? 0 : ulDelayMs);
}

VOID EndHeld(HeldRequests* pHeld)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock);
    pHeld->bGone = TRUE;
    KeReleaseSpinLock(&pHeld->Lock, irql);
    KeCancelTimer(&pHeld->Timer);
    KeRemoveQueueDpc(&pHeld->Dpc);
    KeFlushQueuedDpcs();
    while (PIRP pIrp = TakeHeld(pHeld)) {
        Complete(pIrp, STATUS_DELETE_PENDING, 0);
        NoteCompleted(pHeld);
    }
    KeWaitForSingleObject(&pHeld->NoneLeft, Executive, KernelMode, FALSE, nullptr);
    irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock); // who set the event has let go of the lock
    KeReleaseSpinLock(&pHeld->Lock, irql);
}

ULONG CountHeld(HeldRequests* pHeld)
{
    ULONG ulHeld = 0;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHeld->Lock);
    for (PLIST_ENTRY p = pHeld->Waiting.Flink; p != &pHeld->Waiting; p = p->Flink) {
        ulHeld++;
    }
    KeReleaseSpinLock(&pHeld->Lock, irql);
    return ulHeld;
}
