// The interrupt-IN reads: made at START, sent down, shown to the observer, sent again, taken back at removal.
//
// In automatic mode a completed read goes down again from its completion routine. A driver below that answers
// reads on their way down therefore recurses through SendRead and ReadCompleted, one round a report; both
// keep small frames. With the loop guard the sender of the first read sends it again instead.
#include "device.h"

// A read stops being out. After the last one the device may be gone. IRQL <= DISPATCH. Lock: takes Lock.
static VOID Release(HidRead* pRead)
{
    HidDevice* pHid = pRead->pHid;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    pRead->bOut = FALSE;
    pHid->ulOut--;
    KeReleaseSpinLock(&pHid->Lock, irql);
    Leave(pHid);
}

static IO_COMPLETION_ROUTINE ReadCompleted;

// Makes a read ready to go down: the request as new, the URB filled, the buffer zeroed or as it came back. It happens under the
// lock so that a removal either sees the read not go, or cancels the request that goes. IRQL <= DISPATCH.
// Lock: takes Lock. Fails: false when the stack is on its way out.
static bool Prepare(HidRead* pRead)
{
    HidDevice* pHid = pRead->pHid;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    bool bOpen = pHid->bOpen != FALSE;
    if (bOpen) {
        IoReuseIrp(pRead->pIrp, STATUS_NOT_SUPPORTED);
    }
    KeReleaseSpinLock(&pHid->Lock, irql);
    if (!bOpen) {
        return false;
    }
    if (!pHid->Options.bUsedBuffers) {
        RtlZeroMemory(pRead->pBuffer, pHid->ulPacketBytes);
    }
    RtlZeroMemory(&pRead->Urb, sizeof pRead->Urb);
    auto& transfer = pRead->Urb.UrbBulkOrInterruptTransfer;
    transfer.Hdr.Length = sizeof transfer;
    transfer.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    transfer.PipeHandle = pHid->hPipe;
    transfer.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    transfer.TransferBufferLength = pHid->ulPacketBytes;
    transfer.TransferBuffer = pRead->pBuffer;
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pRead->pIrp);
    pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    pNext->Parameters.Others.Argument1 = &pRead->Urb;
    IoSetCompletionRoutine(pRead->pIrp, ReadCompleted, pRead, TRUE, TRUE, TRUE);
    pRead->Phase = HidReadSending;
    return true;
}

static bool IsGuarded(const HidDevice* pHid)
{
    return pHid->Options.bLoopGuard && !pHid->Options.bManual;
}

// Sends a read that is out; with the loop guard, again and again while it completes on its way down.
// IRQL <= DISPATCH. Lock: none held.
static VOID SendRead(HidRead* pRead)
{
    bool bLoop = IsGuarded(pRead->pHid);
    for (;;) {
        if (!Prepare(pRead)) {
            Release(pRead);
            return;
        }
        IoCallDriver(pRead->pHid->pLower, pRead->pIrp);
        // Without the guard the read is its completion's from here on.
        if (!bLoop) {
            return;
        }
        const LONG lPhase = InterlockedCompareExchange(&pRead->Phase, HidReadBelow, HidReadSending);
        if (lPhase == HidReadEnded) {
            Release(pRead);
        }
        if (lPhase != HidReadCompleted) {
            return;
        }
    }
}

// A read came back: shows it to the observer, then sends it again or releases it. A failure that came back on
// the way down is not tried again, nor is one that left the keyboard for good. IRQL <= DISPATCH. Lock: none
// held.
static NTSTATUS NTAPI ReadCompleted(PDEVICE_OBJECT, PIRP pIrp, PVOID pContext)
{
    auto pRead = static_cast<HidRead*>(pContext);
    HidDevice* pHid = pRead->pHid;
    NTSTATUS status = pIrp->IoStatus.Status;
    bool bAgain = !pHid->Options.bManual && status != STATUS_DELETE_PENDING &&
                  (NT_SUCCESS(status) || status == STATUS_CANCELLED || pIrp->PendingReturned);
    if (pHid->Options.pObserver) {
        ULONG ulLength = NT_SUCCESS(status) ? pRead->Urb.UrbBulkOrInterruptTransfer.TransferBufferLength : 0;
        pHid->Options.pObserver(pHid->Options.pObserverContext, pRead->pBuffer,
                                ulLength < pHid->ulPacketBytes ? ulLength : pHid->ulPacketBytes, status);
    }
    const LONG lPhase = bAgain ? HidReadCompleted : HidReadEnded;
    if (IsGuarded(pHid) &&
        InterlockedCompareExchange(&pRead->Phase, lPhase, HidReadSending) == HidReadSending) {
        return STATUS_MORE_PROCESSING_REQUIRED; // the sender has not returned: the read stays its own
    }
    if (bAgain) {
        SendRead(pRead);
    } else {
        Release(pRead);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Takes an idle read and counts it as out; null when there is none. IRQL <= DISPATCH. Lock: takes Lock.
static HidRead* Claim(HidDevice* pHid)
{
    HidRead* pRead = nullptr;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    for (ULONG i = 0; i < pHid->Options.ulReads && !pRead; i++) {
        if (!pHid->pReads[i].bOut) {
            pRead = &pHid->pReads[i];
            pRead->bOut = TRUE;
            pHid->ulOut++;
        }
    }
    KeReleaseSpinLock(&pHid->Lock, irql);
    return pRead;
}

NTSTATUS EmuHidRead(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    HidDevice* pHid = HidOf(pDevice);
    if (!Enter(pHid)) {
        return STATUS_DEVICE_NOT_READY;
    }
    HidRead* pRead = Claim(pHid);
    if (!pRead) {
        Leave(pHid);
        return STATUS_DEVICE_BUSY;
    }
    SendRead(pRead);
    return STATUS_SUCCESS;
}

ULONG EmuHidOutstandingReads(PDEVICE_OBJECT pDevice)
{
    HidDevice* pHid = HidOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    ULONG ulOut = pHid->ulOut;
    KeReleaseSpinLock(&pHid->Lock, irql);
    return ulOut;
}

// Frees requests and buffers; what was not allocated is null. IRQL PASSIVE. Nothing is below.
static VOID FreeReads(HidDevice* pHid)
{
    for (ULONG i = 0; pHid->pReads && i < pHid->Options.ulReads; i++) {
        if (pHid->pReads[i].pIrp) {
            IoFreeIrp(pHid->pReads[i].pIrp);
        }
    }
    if (pHid->pReads) {
        ExFreePoolWithTag(pHid->pReads, HidTag);
        pHid->pReads = nullptr;
    }
}

// Allocates the reads and their buffers in one piece, the buffers behind the records.
// IRQL PASSIVE. Fails: STATUS_INSUFFICIENT_RESOURCES, with nothing left behind.
static NTSTATUS MakeReads(HidDevice* pHid)
{
    ULONG ulReads = pHid->Options.ulReads;
    SIZE_T bytes = (sizeof(HidRead) + pHid->ulPacketBytes) * ulReads;
    pHid->pReads = static_cast<HidRead*>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, HidTag));
    if (!pHid->pReads) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pHid->pReads, bytes);
    auto pBuffers = reinterpret_cast<PUCHAR>(pHid->pReads + ulReads);
    for (ULONG i = 0; i < ulReads; i++) {
        HidRead* pRead = &pHid->pReads[i];
        pRead->pHid = pHid;
        pRead->pBuffer = pBuffers + i * pHid->ulPacketBytes;
        pRead->pIrp = IoAllocateIrp((CCHAR)(pHid->pLower->StackSize), FALSE);
        if (!pRead->pIrp) {
            FreeReads(pHid);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS StartReads(HidDevice* pHid)
{
    if (pHid->Options.ulPacketBytes != 0) {
        pHid->ulPacketBytes = pHid->Options.ulPacketBytes;
    } else if (pHid->ulPacketBytes == 0) {
        pHid->ulPacketBytes = 8;
    }
    NTSTATUS status = MakeReads(pHid);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    pHid->bOpen = TRUE;
    KeReleaseSpinLock(&pHid->Lock, irql);
    for (ULONG i = 0; i < pHid->Options.ulReads && !pHid->Options.bManual; i++) {
        EmuHidRead(pHid->pSelf);
    }
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes Lock.
static bool IsOut(HidRead* pRead)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pRead->pHid->Lock);
    bool bOut = pRead->bOut != FALSE;
    KeReleaseSpinLock(&pRead->pHid->Lock, irql);
    return bOut;
}

VOID CloseReads(HidDevice* pHid)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    pHid->bOpen = FALSE;
    KeReleaseSpinLock(&pHid->Lock, irql);
}

VOID CallReadsBack(HidDevice* pHid)
{
    CloseReads(pHid);
    for (ULONG i = 0; pHid->pReads && i < pHid->Options.ulReads; i++) {
        // One that comes back meanwhile is cancelled in vain; its request lives until FreeReads.
        if (IsOut(&pHid->pReads[i])) {
            IoCancelIrp(pHid->pReads[i].pIrp);
        }
    }
}

VOID StopReads(HidDevice* pHid)
{
    CallReadsBack(pHid);
    KeWaitForSingleObject(&pHid->Idle, Executive, KernelMode, FALSE, nullptr);
    // The last Leave sets the event under the lock: passing the lock once more means that it has let go.
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    KeReleaseSpinLock(&pHid->Lock, irql);
    FreeReads(pHid);
}
