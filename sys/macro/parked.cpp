// parked.cpp - reads that are held back while played-back reports are paced, and the timer that sets the pace.
//
//   ParkReadRequest ──► ParkedRequests[200] ──► GetFirstParkedRequest: the timer's callback, removal
//                              └──────────────► CancelParkedRead: the stack above gave it up
//
// Who takes a read's cancel routine away completes the read: whoever finds it gone leaves the read to the
// cancel routine. A parked read holds a reference on the keyboard, and the keyboard's own timer is armed while
// one is parked, so that each is served: when the queue has run empty, all that are left at once.
// ucKorvexTimerRunning is the same of all keyboards together: what one of them sets another may clear, and then
// that one's pace is a report short.
#include "macro/parked.h"

#include "ground/sums.h"
#include "log/events.h"

namespace
{
void PublishFirst(DeviceContext* pContext) REQUIRES_LOCK(pContext->ParkLock)
{
    (void)InterlockedExchangePointer(reinterpret_cast<PVOID*>(&pContext->pFirstParked),
                                     pContext->ParkedRequests[0]);
}

void TraceParkedReads(DeviceContext* pContext) REQUIRES_LOCK(pContext->ParkLock)
{
    for (ULONG i = 0; IsTraced(TRACE_VERBOSE) && i < pContext->ulParkedCount; i++) {
        Trace(ParkedRead, pContext->ulDeviceIndex, i, pContext->ulParkedCount, pContext->ParkedRequests[i]);
    }
}

void RemoveSlot(DeviceContext* pContext, ULONG ulSlot) REQUIRES_LOCK(pContext->ParkLock)
{
    Trace(ReadUnparked, pContext->ulDeviceIndex, pContext->ParkedRequests[ulSlot]);
    pContext->ulParkedCount--;
    RtlMoveMemory(&pContext->ParkedRequests[ulSlot], &pContext->ParkedRequests[ulSlot + 1],
                  (pContext->ulParkedCount - ulSlot) * sizeof(pContext->ParkedRequests[0]));
    pContext->ParkedRequests[pContext->ulParkedCount] = nullptr;
    PublishFirst(pContext);
    TraceParkedReads(pContext);
}

void ArmTimer(DeviceContext* pContext) REQUIRES_LOCK(pContext->ParkLock)
{
    WriteShared(Globals.ucKorvexTimerRunning, 1);
    pContext->ucKorvexDelayArmed = 1;
    KeSetTimer(&pContext->KorvexDelay.Timer, RelativeMs(ReadShared(Settings.ulKorvexDelay)),
               &pContext->KorvexDelay.Dpc);
}

// The stack above gave a parked read up.
// IRQL = DISPATCH, with the cancel spin lock, which is released. Lock: takes ParkLock.
void NTAPI CancelParkedRead(PDEVICE_OBJECT device, PIRP request)
{
    IoReleaseCancelSpinLock(request->CancelIrql);
    (void)UnparkReadRequest(device, request); // may have been taken off the list already
    CompleteParkedRequest(device, request, STATUS_CANCELLED);
}

// The others do not wait for a keyboard that goes.
void DisarmTimer(DeviceContext* pContext)
{
    LockScope lock(pContext->ParkLock);
    if (pContext->ucKorvexDelayArmed) {
        pContext->ucKorvexDelayArmed = 0;
        KeCancelTimer(&pContext->KorvexDelay.Timer);
        WriteShared(Globals.ucKorvexTimerRunning, 0);
    }
}
} // namespace

// Keeps a read, which is marked pending already, until the timer serves it.
// IRQL <= DISPATCH. Lock: takes ParkLock. Owns: the request and a reference on the keyboard, unless it fails.
// Fails: 200 parked, the keyboard is being removed; STATUS_CANCELLED: the request was cancelled before.
NTSTATUS ParkReadRequest(PDEVICE_OBJECT device, PIRP request)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->ParkLock);
    if (pContext->ulParkedCount >= PARKED_REQUEST_SIZE || !AcquireDevice(device)) {
        return STATUS_UNSUCCESSFUL;
    }
    pContext->ParkedRequests[pContext->ulParkedCount++] = request;
    PublishFirst(pContext);
    IoSetCancelRoutine(request, CancelParkedRead);
    if (ReadShared(request->Cancel) && IoSetCancelRoutine(request, nullptr) != nullptr) {
        RemoveSlot(pContext, pContext->ulParkedCount - 1);
        ReleaseDevice(device);
        return STATUS_CANCELLED;
    }
    if (!pContext->ucKorvexDelayArmed) {
        ArmTimer(pContext);
    }
    Trace(ReadParked, pContext->ulDeviceIndex, request);
    TraceParkedReads(pContext);
    return STATUS_SUCCESS;
}

// Takes a read off the list; one that is not found changes nothing.
// IRQL <= DISPATCH. Lock: takes ParkLock. Fails: not found.
NTSTATUS UnparkReadRequest(PDEVICE_OBJECT device, PIRP request)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->ParkLock);
    for (ULONG i = 0; i < pContext->ulParkedCount; i++) {
        if (pContext->ParkedRequests[i] == request) {
            RemoveSlot(pContext, i);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNSUCCESSFUL;
}

// Takes the oldest read that nobody cancels; null when there is none.
// IRQL <= DISPATCH. Lock: takes ParkLock. Owns: the caller, who gives it to CompleteParkedRequest. Fails: never.
NTSTATUS GetFirstParkedRequest(PDEVICE_OBJECT device, PIRP* pRequest)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->ParkLock);
    *pRequest = nullptr;
    while (*pRequest == nullptr && pContext->ulParkedCount != 0) {
        PIRP first = pContext->ParkedRequests[0];
        RemoveSlot(pContext, 0);
        if (IoSetCancelRoutine(first, nullptr) != nullptr) {
            *pRequest = first;
        }
    }
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Owns: the request is gone, and so is its reference on the keyboard.
void CompleteParkedRequest(PDEVICE_OBJECT device, PIRP request, NTSTATUS status)
{
    auto pUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(request)->Parameters.Others.Argument1);
    pUrb->UrbHeader.Status = NT_SUCCESS(status)           ? USBD_STATUS_SUCCESS
                             : status == STATUS_CANCELLED ? USBD_STATUS_CANCELED
                                                          : USBD_STATUS_DEVICE_GONE;
    request->IoStatus.Status = status;
    request->IoStatus.Information = 0;
    IoCompleteRequest(request, IO_KEYBOARD_INCREMENT);
    ReleaseDevice(device);
}

// The keyboard goes: its parked reads come back, and its timer stops. A stack that reads again all the same
// keeps this from nothing but the reads that were parked before.
// IRQL = PASSIVE. Lock: takes ParkLock.
void CompleteParkedReads(PDEVICE_OBJECT device)
{
    PIRP request;
    DisarmTimer(FilterContextOf(device));
    for (ULONG i = 0; i < PARKED_REQUEST_SIZE; i++) {
        (void)GetFirstParkedRequest(device, &request);
        if (request == nullptr) {
            return;
        }
        CompleteParkedRequest(device, request, STATUS_DELETE_PENDING);
    }
}

// IRQL <= DISPATCH. Lock: takes ParkLock.
bool IsKorvexDelayArmed(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->ParkLock);
    return pContext->ucKorvexDelayArmed != 0;
}

// The pace begins anew, unless the keyboard is being removed.
// IRQL <= DISPATCH. Lock: takes ParkLock.
void StartKorvexDelay(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->ParkLock);
    if (!ReadShared(pContext->ucRemoving)) {
        ArmTimer(pContext);
    }
}

// The keyboard's timer has expired.
// IRQL <= DISPATCH. Lock: takes ParkLock.
void EndKorvexDelay(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->ParkLock);
    pContext->ucKorvexDelayArmed = 0;
    WriteShared(Globals.ucKorvexTimerRunning, 0);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeParkedReads(DeviceContext* pContext)
{
    KeInitializeSpinLock(&pContext->ParkLock.Lock);
}
