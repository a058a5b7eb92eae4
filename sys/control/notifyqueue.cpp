// notifyqueue.cpp - one keyboard's events for the application, oldest first.
//
//   report road, timers ── Queue ──► NotifyQueue[1024] ── Get ──► the application's requests
//                            ulNotifyWrite ▲       ▲ ulNotifyRead
//
// A ring under NotifyLock. A full one drops the new record. Lives and dies with the keyboard's record; no close empties it.
#include "control/notification.h"

#include "ground/ring.h"
#include "log/events.h"

// The stamp of a record: wraps about every five days.
// IRQL any.
ULONG NotifyTime()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return static_cast<ULONG>(now.QuadPart / 1000);
}

// Copies the record behind the others. Fails: false, ring full.
static bool Append(DeviceContext* pContext, const NotifyRecord* pRecord) REQUIRES_LOCK(pContext->NotifyLock)
{
    if (!AppendToRing(pContext->NotifyQueue, pContext->ulNotifyWrite, pContext->ulNotifyCount, *pRecord)) {
        Trace(NotifyQueueFull, pContext->ulDeviceIndex, pRecord->ulId, pRecord->ulValue);
        return false;
    }
    return true;
}

// A record made from these fields and stamped now.
static NotifyRecord MakeRecord(ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource)
{
    NotifyRecord record = {};
    record.ulValue = ulValue;
    record.ulEscAbort = ulEscAbort;
    record.ucSource = ucSource;
    record.ucValid = 1;
    record.ulTime = NotifyTime();
    record.ulId = ulId;
    return record;
}

// IRQL <= DISPATCH. Lock: takes NotifyLock. Owns: copies the record. Fails: ring full.
NTSTATUS QueueNotifyRecord(PDEVICE_OBJECT device, const NotifyRecord* pRecord)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->NotifyLock);
    return Append(pContext, pRecord) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// The application sees a loss as a gap.
// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: ring full.
NTSTATUS QueueEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource)
{
    const NotifyRecord record = MakeRecord(ulId, ulValue, ulEscAbort, ucSource);
    return QueueNotifyRecord(device, &record);
}

// An event and its signal in one hold of the lock.
// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: a full ring drops the event; the signal comes all the same.
void QueueAndSignalEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource)
{
    DeviceContext* pContext = FilterContextOf(device);
    const NotifyRecord record = MakeRecord(ulId, ulValue, ulEscAbort, ucSource);
    LockScope lock(pContext->NotifyLock);
    (void)Append(pContext, &record);
    if (pContext->pNotifyEvent != nullptr) { // an application without an event polls
        KeSetEvent(pContext->pNotifyEvent, IO_NO_INCREMENT, FALSE);
    }
}

// The oldest record; ucRemove 1 takes it, any other value leaves it queued.
// Lock: takes NotifyLock. Fails: empty, *pRecord untouched.
static NTSTATUS GetRecordOf(DeviceContext* pContext, NotifyRecord* pRecord, UCHAR ucRemove)
{
    LockScope lock(pContext->NotifyLock);
    return ReadFromRing(pContext->NotifyQueue, pContext->ulNotifyRead, pContext->ulNotifyCount, pRecord,
                        ucRemove == 1)
               ? STATUS_SUCCESS
               : STATUS_UNSUCCESSFUL;
}

// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: unknown index, empty; *pRecord untouched.
NTSTATUS GetNotifyRecord(ULONG ulDeviceIndex, NotifyRecord* pRecord, UCHAR ucRemove)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    return GetRecordOf(keyboard.Context(), pRecord, ucRemove);
}

// Takes up to ulCount records, the oldest first; where none is left the slot stays as it is.
// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: unknown index.
NTSTATUS TakeNotifyRecords(ULONG ulDeviceIndex, NotifyRecord* pRecords, ULONG ulCount)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    for (ULONG i = 0; i < ulCount; i++) {
        (void)GetRecordOf(keyboard.Context(), &pRecords[i], 1);
    }
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: unknown index.
NTSTATUS GetNotifyCount(ULONG ulDeviceIndex, PULONG pulCount)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    DeviceContext* pContext = keyboard.Context();
    LockScope lock(pContext->NotifyLock);
    *pulCount = pContext->ulNotifyCount;
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: unknown index.
NTSTATUS ClearNotifyQueue(ULONG ulDeviceIndex)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    DeviceContext* pContext = keyboard.Context();
    LockScope lock(pContext->NotifyLock);
    ClearRing(pContext->NotifyQueue, pContext->ulNotifyWrite, pContext->ulNotifyRead,
              pContext->ulNotifyCount);
    return STATUS_SUCCESS;
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeNotifyQueue(DeviceContext* pContext)
{
    KeInitializeSpinLock(&pContext->NotifyLock.Lock);
}
