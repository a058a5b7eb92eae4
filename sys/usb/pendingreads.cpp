// pendingreads.cpp - the interrupt reads that are at the keyboard, so that one can be called back.
//
//   CancelPendingRead: claim under the lock ──► IoCancelIrp outside it ──► let go under the lock
//   completion meanwhile: the claimed read is marked and left to the canceller, who completes it
//
// So the request cannot be completed and freed while IoCancelIrp works on it. pPendingReadIrp mirrors the
// oldest entry for those who only ask whether there is one.
#include "usb/pending.h"

#include "log/events.h"

// Appends a read that goes down.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock. Fails: 100 pending, the read goes down untracked.
NTSTATUS AddPendingIrp(PDEVICE_OBJECT device, PIRP Irp)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->PendingIrpLock);
    if (pContext->ulPendingIrpCount >= PENDING_IRP_SIZE) {
        Trace(PendingListFull, pContext->ulDeviceIndex, Irp);
        return STATUS_UNSUCCESSFUL;
    }
    pContext->PendingIrps[pContext->ulPendingIrpCount++] = Irp;
    (void)InterlockedExchangePointer(reinterpret_cast<PVOID*>(&pContext->pPendingReadIrp),
                                     pContext->PendingIrps[0]);
    for (ULONG i = 0; IsTraced(TRACE_VERBOSE) && i < pContext->ulPendingIrpCount; i++) {
        Trace(PendingRead, pContext->ulDeviceIndex, i, pContext->ulPendingIrpCount, pContext->PendingIrps[i]);
    }
    return STATUS_SUCCESS;
}

// One that is not found changes nothing. Returns true when a canceller works on it, who gets it with bLeave.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock.
static bool TakeOutRead(DeviceContext* pContext, PIRP Irp, bool bLeave)
{
    LockScope lock(pContext->PendingIrpLock);
    ULONG i = 0;
    while (i < pContext->ulPendingIrpCount && pContext->PendingIrps[i] != Irp) {
        i++;
    }
    if (i == pContext->ulPendingIrpCount) {
        return false;
    }
    pContext->ulPendingIrpCount--;
    RtlMoveMemory(&pContext->PendingIrps[i], &pContext->PendingIrps[i + 1],
                  (pContext->ulPendingIrpCount - i) * sizeof(pContext->PendingIrps[0]));
    pContext->PendingIrps[pContext->ulPendingIrpCount] = nullptr;
    (void)InterlockedExchangePointer(reinterpret_cast<PVOID*>(&pContext->pPendingReadIrp),
                                     pContext->PendingIrps[0]);
    if (pContext->pCancellingIrp != Irp) {
        return false;
    }
    pContext->ucCancelledCompleted = bLeave ? 1 : 0;
    return true;
}

// IRQL <= DISPATCH. Lock: takes PendingIrpLock.
static bool IsBeingCancelled(DeviceContext* pContext, PIRP Irp)
{
    LockScope lock(pContext->PendingIrpLock);
    return pContext->pCancellingIrp == Irp;
}

// Takes a completed read out. Returns true when its canceller still works on it and completes it. One that
// completes on its way down cannot be left to the canceller, because its dispatch does not return pending: it
// waits. The canceller is on another processor then, at DISPATCH_LEVEL, and finds nothing to do.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock. Fails: never.
bool RemovePendingIrp(PDEVICE_OBJECT device, PIRP Irp)
{
    DeviceContext* pContext = FilterContextOf(device);
    const bool bWasPending = Irp->PendingReturned != FALSE;
    if (!TakeOutRead(pContext, Irp, bWasPending)) {
        return false;
    }
    while (!bWasPending && IsBeingCancelled(pContext, Irp)) {
    }
    return bWasPending;
}

// The oldest pending read, marked as being cancelled; null when there is none or another canceller has it.
static PIRP ClaimPendingRead(DeviceContext* pContext)
{
    LockScope lock(pContext->PendingIrpLock);
    if (pContext->ulPendingIrpCount == 0) {
        InterlockedIncrement(&pContext->lMissedCalls); // one on its way down looks again
    }
    if (pContext->ulPendingIrpCount == 0 || pContext->pCancellingIrp != nullptr) {
        return nullptr;
    }
    pContext->pCancellingIrp = pContext->PendingIrps[0];
    pContext->ucCancelledCompleted = 0;
    return pContext->pCancellingIrp;
}

// Returns true when the read's completion came meanwhile and was left to the canceller.
static bool LetGoOfRead(DeviceContext* pContext)
{
    LockScope lock(pContext->PendingIrpLock);
    pContext->pCancellingIrp = nullptr;
    return pContext->ucCancelledCompleted != 0;
}

// Calls the oldest read back from the keyboard, so that the stack above issues a fresh one.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock. Fails: none pending, or one is being called back already.
bool CancelPendingRead(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    const KIRQL irql = KeRaiseIrqlToDpcLevel(); // somebody may be waiting for the claim's end
    PIRP Irp = ClaimPendingRead(pContext);
    if (Irp != nullptr) {
        IoCancelIrp(Irp);
        if (LetGoOfRead(pContext)) {
            IoCompleteRequest(Irp, IO_KEYBOARD_INCREMENT);
        }
    }
    KeLowerIrql(irql);
    return Irp != nullptr;
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializePendingReads(DeviceContext* pContext)
{
    KeInitializeSpinLock(&pContext->PendingIrpLock.Lock);
}
