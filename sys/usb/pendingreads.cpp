// pendingreads.cpp - the interrupt reads that are at the keyboard, so that one can be called back.
//
//   CancelPendingRead: claim under the lock ──► IoCancelIrp outside it ──► let go under the lock
//   completion meanwhile: the claimed read is marked and left to the canceller, who completes it
//
// So the request cannot be completed and freed while IoCancelIrp works on it. pPendingReadIrp mirrors the
// oldest entry for those who only ask whether there is one.
#include "usb/pending.h"

#include "log/events.h"
#include "usb/pendingfields.h"

// Appends a read that goes down.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock. Fails: 100 pending, the read goes down untracked.
NTSTATUS AddPendingIrp(PDEVICE_OBJECT device, PIRP Irp)
{
    PendingFields& pending = FieldsOf<PendingFields>(device);
    LockScope lock(pending.PendingIrpLock);
    if (pending.ulPendingIrpCount >= PENDING_IRP_SIZE) {
        Trace(PendingListFull, IndexOf(device), Irp);
        return STATUS_UNSUCCESSFUL;
    }
    pending.PendingIrps[pending.ulPendingIrpCount++] = Irp;
    (void)InterlockedExchangePointer(reinterpret_cast<PVOID*>(&pending.pPendingReadIrp),
                                     pending.PendingIrps[0]);
    for (ULONG i = 0; IsTraced(TRACE_VERBOSE) && i < pending.ulPendingIrpCount; i++) {
        Trace(PendingRead, IndexOf(device), i, pending.ulPendingIrpCount, pending.PendingIrps[i]);
    }
    return STATUS_SUCCESS;
}

namespace
{
// One that is not found changes nothing. Returns true when a canceller works on it, who gets it with bLeave.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock.
bool TakeOutRead(PendingFields& pending, PIRP Irp, bool bLeave)
{
    LockScope lock(pending.PendingIrpLock);
    ULONG i = 0;
    while (i < pending.ulPendingIrpCount && pending.PendingIrps[i] != Irp) {
        i++;
    }
    if (i == pending.ulPendingIrpCount) {
        return false;
    }
    pending.ulPendingIrpCount--;
    RtlMoveMemory(&pending.PendingIrps[i], &pending.PendingIrps[i + 1],
                  (pending.ulPendingIrpCount - i) * sizeof(pending.PendingIrps[0]));
    pending.PendingIrps[pending.ulPendingIrpCount] = nullptr;
    (void)InterlockedExchangePointer(reinterpret_cast<PVOID*>(&pending.pPendingReadIrp),
                                     pending.PendingIrps[0]);
    if (pending.pCancellingIrp != Irp) {
        return false;
    }
    pending.ucCancelledCompleted = bLeave ? 1 : 0;
    return true;
}

// IRQL <= DISPATCH. Lock: takes PendingIrpLock.
bool IsBeingCancelled(PendingFields& pending, PIRP Irp)
{
    LockScope lock(pending.PendingIrpLock);
    return pending.pCancellingIrp == Irp;
}
} // namespace

// Takes a completed read out. Returns true when its canceller still works on it and completes it. One that
// completes on its way down cannot be left to the canceller, because its dispatch does not return pending: it
// waits. The canceller is on another processor then, at DISPATCH_LEVEL, and finds nothing to do.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock. Fails: never.
bool RemovePendingIrp(PDEVICE_OBJECT device, PIRP Irp)
{
    PendingFields& pending = FieldsOf<PendingFields>(device);
    const bool bWasPending = Irp->PendingReturned != FALSE;
    if (!TakeOutRead(pending, Irp, bWasPending)) {
        return false;
    }
    while (!bWasPending && IsBeingCancelled(pending, Irp)) {
    }
    return bWasPending;
}

namespace
{
// The oldest pending read, marked as being cancelled; null when there is none or another canceller has it.
PIRP ClaimPendingRead(PendingFields& pending)
{
    LockScope lock(pending.PendingIrpLock);
    if (pending.ulPendingIrpCount == 0) {
        InterlockedIncrement(&pending.lMissedCalls); // one on its way down looks again
    }
    if (pending.ulPendingIrpCount == 0 || pending.pCancellingIrp != nullptr) {
        return nullptr;
    }
    pending.pCancellingIrp = pending.PendingIrps[0];
    pending.ucCancelledCompleted = 0;
    return pending.pCancellingIrp;
}

// Returns true when the read's completion came meanwhile and was left to the canceller.
bool LetGoOfRead(PendingFields& pending)
{
    LockScope lock(pending.PendingIrpLock);
    pending.pCancellingIrp = nullptr;
    return pending.ucCancelledCompleted != 0;
}
} // namespace

// Calls the oldest read back from the keyboard, so that the stack above issues a fresh one.
// IRQL <= DISPATCH. Lock: takes PendingIrpLock. Fails: none pending, or one is being called back already.
bool CancelPendingRead(PDEVICE_OBJECT device)
{
    PendingFields& pending = FieldsOf<PendingFields>(device);
    const KIRQL irql = KeRaiseIrqlToDpcLevel(); // somebody may be waiting for the claim's end
    PIRP Irp = ClaimPendingRead(pending);
    if (Irp != nullptr) {
        IoCancelIrp(Irp);
        if (LetGoOfRead(pending)) {
            IoCompleteRequest(Irp, IO_KEYBOARD_INCREMENT);
        }
    }
    KeLowerIrql(irql);
    return Irp != nullptr;
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializePendingReads(DeviceContext* pContext)
{
    PendingFields& pending = FieldsOf<PendingFields>(pContext);
    KeInitializeSpinLock(&pending.PendingIrpLock.Lock);
}
