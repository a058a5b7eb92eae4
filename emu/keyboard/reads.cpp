// The interrupt-IN endpoint: reads that wait for a report, reports that wait for a read.
//
// A report completes the oldest waiting read at DISPATCH_LEVEL, as a bus does. A read that finds kept reports
// is left pending all the same and served by a DPC, so that a stack which reads again from its completion
// does not recurse through the keyboard. A read can be cancelled while it waits; removal completes what is
// left.
#include "device.h"

VOID CompleteUrb(PIRP pIrp, PURB pUrb, NTSTATUS Status)
{
    USBD_STATUS usbStatus = USBD_STATUS_STALL_PID;
    if (NT_SUCCESS(Status)) {
        usbStatus = USBD_STATUS_SUCCESS;
    } else if (Status == STATUS_CANCELLED) {
        usbStatus = USBD_STATUS_CANCELED;
    } else if (Status == STATUS_DELETE_PENDING) {
        usbStatus = USBD_STATUS_DEVICE_GONE;
    }
    pUrb->UrbHeader.Status = usbStatus;
    CompleteIrp(pIrp, Status);
}

ULONG CountEntries(const LIST_ENTRY* pHead)
{
    ULONG ulEntries = 0;
    for (const LIST_ENTRY* p = pHead->Flink; p != pHead; p = p->Flink) {
        ulEntries++;
    }
    return ulEntries;
}

// Completes a read without data. IRQL <= DISPATCH. Lock: none held.
static VOID FailRead(PIRP pIrp, NTSTATUS Status)
{
    auto pUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(pIrp)->Parameters.Others.Argument1);
    pUrb->UrbBulkOrInterruptTransfer.TransferBufferLength = 0;
    CompleteUrb(pIrp, pUrb, Status);
}

// The stack above gave up on a waiting read. IRQL DISPATCH, with the cancel spin lock. Lock: takes Lock.
static VOID NTAPI CancelRead(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    KeyboardDevice* pKeyboard = KeyboardOf(pDevice);
    IoReleaseCancelSpinLock(pIrp->CancelIrql);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    RemoveEntryList(&pIrp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    FailRead(pIrp, STATUS_CANCELLED);
}

// Takes the oldest waiting read that is not being cancelled; null when there is none. A read whose cancel
// routine runs already is left to it, off the list. IRQL DISPATCH. Lock: Lock held.
static PIRP TakeRead(KeyboardDevice* pKeyboard)
{
    while (!IsListEmpty(&pKeyboard->Waiting)) {
        PLIST_ENTRY pEntry = RemoveHeadList(&pKeyboard->Waiting);
        PIRP pIrp = CONTAINING_RECORD(pEntry, IRP, Tail.Overlay.ListEntry);
        if (IoSetCancelRoutine(pIrp, nullptr)) {
            return pIrp;
        }
        InitializeListHead(pEntry);
    }
    return nullptr;
}

// Appends bytes to the ring of kept reports. IRQL DISPATCH. Lock: Lock held.
static VOID PutBytes(KeyboardDevice* pKeyboard, const UCHAR* pBytes, ULONG ulBytes)
{
    for (ULONG i = 0; i < ulBytes; i++) {
        pKeyboard->pKept[(pKeyboard->ulKeptRead + pKeyboard->ulKeptUsed++) % KeptBytes] = pBytes[i];
    }
}

// Takes the oldest bytes out of the ring; only the first `ulRoom` of them are stored. IRQL DISPATCH. Lock:
// Lock held.
static VOID TakeBytes(KeyboardDevice* pKeyboard, PUCHAR pBytes, ULONG ulBytes, ULONG ulRoom)
{
    for (ULONG i = 0; i < ulBytes; i++) {
        if (i < ulRoom) {
            pBytes[i] = pKeyboard->pKept[pKeyboard->ulKeptRead];
        }
        pKeyboard->ulKeptRead = (pKeyboard->ulKeptRead + 1) % KeptBytes;
        pKeyboard->ulKeptUsed--;
    }
}

// Puts the oldest kept report into a read's buffer, cut to its length, and sets the URB's length.
// IRQL DISPATCH. Lock: Lock held. Fails: the buffer cannot be mapped; the report is lost.
static NTSTATUS FillRead(KeyboardDevice* pKeyboard, PURB pUrb)
{
    auto& transfer = pUrb->UrbBulkOrInterruptTransfer;
    PUCHAR pBuffer = TransferBufferOf(transfer.TransferBuffer, transfer.TransferBufferMDL);
    UCHAR ucHead[2];
    TakeBytes(pKeyboard, ucHead, sizeof ucHead, sizeof ucHead);
    ULONG ulLength = (ULONG)(ucHead[0] | ucHead[1] << 8);
    ULONG ulRoom = pBuffer ? transfer.TransferBufferLength : 0;
    TakeBytes(pKeyboard, pBuffer, ulLength, ulRoom);
    pKeyboard->ulKept--;
    transfer.TransferBufferLength = ulLength < ulRoom ? ulLength : ulRoom;
    return pBuffer ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

// Takes the oldest read and puts the oldest report into it; null when one of them is missing, and the
// delivery is over. IRQL DISPATCH. Lock: takes Lock.
static PIRP PairOne(KeyboardDevice* pKeyboard, PURB* ppUrb, NTSTATUS* pStatus)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    PIRP pIrp = pKeyboard->ulKept != 0 ? TakeRead(pKeyboard) : nullptr;
    if (pIrp) {
        *ppUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(pIrp)->Parameters.Others.Argument1);
        *pStatus = FillRead(pKeyboard, *ppUrb);
    } else {
        pKeyboard->bDelivering = FALSE;
    }
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return pIrp;
}

// Pairs reads and reports until one side is empty, unless another thread does so already.
// IRQL DISPATCH. Lock: takes Lock.
static VOID Deliver(KeyboardDevice* pKeyboard)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    bool bOther = pKeyboard->bDelivering != FALSE;
    pKeyboard->bDelivering = TRUE;
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    if (bOther) {
        return;
    }
    PURB pUrb;
    NTSTATUS status;
    while (PIRP pIrp = PairOne(pKeyboard, &pUrb, &status)) {
        CompleteUrb(pIrp, pUrb, status);
    }
}

VOID NTAPI DeliverDpc(PKDPC, PVOID pContext, PVOID, PVOID)
{
    Deliver(static_cast<KeyboardDevice*>(pContext));
}

NTSTATUS WaitForReport(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    if (pKeyboard->bGone) {
        KeReleaseSpinLock(&pKeyboard->Lock, irql);
        pUrb->UrbBulkOrInterruptTransfer.TransferBufferLength = 0;
        CompleteUrb(pIrp, pUrb, STATUS_DELETE_PENDING);
        return STATUS_DELETE_PENDING;
    }
    IoMarkIrpPending(pIrp);
    InsertTailList(&pKeyboard->Waiting, &pIrp->Tail.Overlay.ListEntry);
    IoSetCancelRoutine(pIrp, CancelRead);
    // The canceller sets its mark, then looks for the routine; this side sets the routine, then looks for the mark.
    bool bCancelled = __atomic_load_n(&pIrp->Cancel, __ATOMIC_SEQ_CST) && IoSetCancelRoutine(pIrp, nullptr);
    if (bCancelled) {
        RemoveEntryList(&pIrp->Tail.Overlay.ListEntry);
    }
    if (pKeyboard->ulKept != 0 &&
        !pKeyboard->bDelivering) { // queued under the lock: removal flushes it after
        KeInsertQueueDpc(&pKeyboard->DeliverDpc, nullptr, nullptr);
    }
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    if (bCancelled) {
        FailRead(pIrp, STATUS_CANCELLED);
    }
    return STATUS_PENDING;
}

VOID PurgeReads(KeyboardDevice* pKeyboard, NTSTATUS Status)
{
    for (;;) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
        PIRP pIrp = TakeRead(pKeyboard);
        KeReleaseSpinLock(&pKeyboard->Lock, irql);
        if (!pIrp) {
            return;
        }
        FailRead(pIrp, Status);
    }
}

VOID MarkGone(KeyboardDevice* pKeyboard)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    pKeyboard->bGone = TRUE;
    pKeyboard->ulKept = pKeyboard->ulKeptUsed = 0;
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
}

// Appends a report to the ring. IRQL <= DISPATCH. Lock: takes Lock. Fails: gone, ring full.
static NTSTATUS KeepReport(KeyboardDevice* pKeyboard, const UCHAR* pReport, ULONG ulLength)
{
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    if (pKeyboard->bGone) {
        status = STATUS_DEVICE_NOT_READY;
    } else if (pKeyboard->ulKeptUsed + 2 + ulLength > KeptBytes) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        UCHAR ucHead[2] = {(UCHAR)ulLength, (UCHAR)(ulLength >> 8)};
        PutBytes(pKeyboard, ucHead, sizeof ucHead);
        PutBytes(pKeyboard, pReport, ulLength);
        pKeyboard->ulKept++;
    }
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return status;
}

NTSTATUS EmuKeyboardReport(PDEVICE_OBJECT pPhysical, const UCHAR* pReport, ULONG ulLength)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (ulLength > MaximumReport) {
        return STATUS_INVALID_PARAMETER;
    }
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    NTSTATUS status = KeepReport(pKeyboard, pReport, ulLength);
    if (NT_SUCCESS(status)) {
        KIRQL irql = KeGetCurrentIrql();
        if (!pKeyboard->Options.bPassive) {
            KeRaiseIrql(DISPATCH_LEVEL, &irql);
        }
        Deliver(pKeyboard);
        KeLowerIrql(irql);
    }
    return status;
}

NTSTATUS EmuKeyboardFailRead(PDEVICE_OBJECT pPhysical, NTSTATUS Status)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    PIRP pIrp = TakeRead(pKeyboard);
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    if (!pIrp) {
        return STATUS_NOT_FOUND;
    }
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    FailRead(pIrp, Status);
    KeLowerIrql(irql);
    return STATUS_SUCCESS;
}

ULONG EmuKeyboardPendingReads(PDEVICE_OBJECT pPhysical)
{
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    ULONG ulReads = CountEntries(&pKeyboard->Waiting);
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return ulReads;
}

ULONG EmuKeyboardKeptReports(PDEVICE_OBJECT pPhysical)
{
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    ULONG ulKept = pKeyboard->ulKept;
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return ulKept;
}
