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
#include "macro/parkedfields.h"

namespace
{
void PublishFirst(ParkedFields& parked) REQUIRES_LOCK(parked.ParkLock)
{
    (void)InterlockedExchangePointer(reinterpret_cast<PVOID*>(&parked.pFirstParked),
                                     parked.ParkedRequests[0]);
}

void TraceParkedReads(const ParkedFields& parked, ULONG ulDeviceIndex) REQUIRES_LOCK(parked.ParkLock)
{
    for (ULONG i = 0; IsTraced(TRACE_VERBOSE) && i < parked.ulParkedCount; i++) {
        Trace(ParkedRead, ulDeviceIndex, i, parked.ulParkedCount, parked.ParkedRequests[i]);
    }
}

void RemoveSlot(ParkedFields& parked, ULONG ulDeviceIndex, ULONG ulSlot) REQUIRES_LOCK(parked.ParkLock)
{
    Trace(ReadUnparked, ulDeviceIndex, parked.ParkedRequests[ulSlot]);
    parked.ulParkedCount--;
    RtlMoveMemory(&parked.ParkedRequests[ulSlot], &parked.ParkedRequests[ulSlot + 1],
                  (parked.ulParkedCount - ulSlot) * sizeof(parked.ParkedRequests[0]));
    parked.ParkedRequests[parked.ulParkedCount] = nullptr;
    PublishFirst(parked);
    TraceParkedReads(parked, ulDeviceIndex);
}

void ArmTimer(ParkedFields& parked) REQUIRES_LOCK(parked.ParkLock)
{
    WriteShared(GlobalPace.ucKorvexTimerRunning, 1);
    parked.ucKorvexDelayArmed = 1;
    KeSetTimer(&parked.KorvexDelay.Timer, RelativeMs(ReadShared(SettingsOfPace.ulKorvexDelay)),
               &parked.KorvexDelay.Dpc);
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
void DisarmTimer(ParkedFields& parked)
{
    LockScope lock(parked.ParkLock);
    if (parked.ucKorvexDelayArmed) {
        parked.ucKorvexDelayArmed = 0;
        KeCancelTimer(&parked.KorvexDelay.Timer);
        WriteShared(GlobalPace.ucKorvexTimerRunning, 0);
    }
}
} // namespace

// Keeps a read, which is marked pending already, until the timer serves it.
// IRQL <= DISPATCH. Lock: takes ParkLock. Owns: the request and a reference on the keyboard, unless it fails.
// Fails: 200 parked, the keyboard is being removed; STATUS_CANCELLED: the request was cancelled before.
NTSTATUS ParkReadRequest(PDEVICE_OBJECT device, PIRP request)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(device);
    LockScope lock(parked.ParkLock);
    if (parked.ulParkedCount >= PARKED_REQUEST_SIZE || !AcquireDevice(device)) {
        return STATUS_UNSUCCESSFUL;
    }
    parked.ParkedRequests[parked.ulParkedCount++] = request;
    PublishFirst(parked);
    IoSetCancelRoutine(request, CancelParkedRead);
    if (ReadShared(request->Cancel) && IoSetCancelRoutine(request, nullptr) != nullptr) {
        RemoveSlot(parked, IndexOf(device), parked.ulParkedCount - 1);
        ReleaseDevice(device);
        return STATUS_CANCELLED;
    }
    if (!parked.ucKorvexDelayArmed) {
        ArmTimer(parked);
    }
    Trace(ReadParked, IndexOf(device), request);
    TraceParkedReads(parked, IndexOf(device));
    return STATUS_SUCCESS;
}

// Takes a read off the list; one that is not found changes nothing.
// IRQL <= DISPATCH. Lock: takes ParkLock. Fails: not found.
NTSTATUS UnparkReadRequest(PDEVICE_OBJECT device, PIRP request)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(device);
    LockScope lock(parked.ParkLock);
    for (ULONG i = 0; i < parked.ulParkedCount; i++) {
        if (parked.ParkedRequests[i] == request) {
            RemoveSlot(parked, IndexOf(device), i);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNSUCCESSFUL;
}

// Takes the oldest read that nobody cancels; null when there is none.
// IRQL <= DISPATCH. Lock: takes ParkLock. Owns: the caller, who gives it to CompleteParkedRequest. Fails: never.
NTSTATUS GetFirstParkedRequest(PDEVICE_OBJECT device, PIRP* pRequest)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(device);
    LockScope lock(parked.ParkLock);
    *pRequest = nullptr;
    while (*pRequest == nullptr && parked.ulParkedCount != 0) {
        PIRP first = parked.ParkedRequests[0];
        RemoveSlot(parked, IndexOf(device), 0);
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
    DisarmTimer(FieldsOf<ParkedFields>(device));
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
    ParkedFields& parked = FieldsOf<ParkedFields>(device);
    LockScope lock(parked.ParkLock);
    return parked.ucKorvexDelayArmed != 0;
}

// The pace begins anew, unless the keyboard is being removed.
// IRQL <= DISPATCH. Lock: takes ParkLock.
void StartKorvexDelay(PDEVICE_OBJECT device)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(device);
    LockScope lock(parked.ParkLock);
    if (!ReadShared(FieldsOf<FrameFields>(device).ucRemoving)) {
        ArmTimer(parked);
    }
}

// The keyboard's timer has expired.
// IRQL <= DISPATCH. Lock: takes ParkLock.
void EndKorvexDelay(PDEVICE_OBJECT device)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(device);
    LockScope lock(parked.ParkLock);
    parked.ucKorvexDelayArmed = 0;
    WriteShared(GlobalPace.ucKorvexTimerRunning, 0);
}

// The timer is not armed and its deferred call not queued; one that runs may still be under way.
// IRQL = PASSIVE.
void StopKorvexDelay(PDEVICE_OBJECT device)
{
    TimerWithDpc& delay = FieldsOf<ParkedFields>(device).KorvexDelay;
    KeCancelTimer(&delay.Timer);
    KeRemoveQueueDpc(&delay.Dpc);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeParkedReads(DeviceContext* pContext)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(pContext);
    KeInitializeSpinLock(&parked.ParkLock.Lock);
}
