// notifyqueue.cpp - one keyboard's events for the application, oldest first.
//
//   report road, timers ── Queue ──► NotifyQueue[1024] ── Get ──► the application's requests
//                            ulNotifyWrite ▲       ▲ ulNotifyRead
//
// A ring under NotifyLock. A full one drops the new record. Lives and dies with the keyboard's record; no close empties it.
#include "control/notification.h"

#include "control/fields.h"
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

namespace
{
// Copies the record behind the others. Fails: false, ring full.
bool Append(NotifyFields& told, ULONG ulDeviceIndex, const NotifyRecord* pRecord)
    REQUIRES_LOCK(told.NotifyLock)
{
    if (!AppendToRing(told.NotifyQueue, told.ulNotifyWrite, told.ulNotifyCount, *pRecord)) {
        Trace(NotifyQueueFull, ulDeviceIndex, pRecord->ulId, pRecord->ulValue);
        return false;
    }
    return true;
}

// A record made from these fields and stamped now.
NotifyRecord MakeRecord(ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource)
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
} // namespace

// IRQL <= DISPATCH. Lock: takes NotifyLock. Owns: copies the record. Fails: ring full.
NTSTATUS QueueNotifyRecord(PDEVICE_OBJECT device, const NotifyRecord* pRecord)
{
    NotifyFields& told = FieldsOf<NotifyFields>(device);
    LockScope lock(told.NotifyLock);
    return Append(told, IndexOf(device), pRecord) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
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
    NotifyFields& told = FieldsOf<NotifyFields>(device);
    const NotifyRecord record = MakeRecord(ulId, ulValue, ulEscAbort, ucSource);
    LockScope lock(told.NotifyLock);
    (void)Append(told, IndexOf(device), &record);
    if (told.pNotifyEvent != nullptr) { // an application without an event polls
        KeSetEvent(told.pNotifyEvent, IO_NO_INCREMENT, FALSE);
    }
}

namespace
{
// The oldest record; ucRemove 1 takes it, any other value leaves it queued.
// Lock: takes NotifyLock. Fails: empty, *pRecord untouched.
NTSTATUS GetRecordOf(NotifyFields& told, NotifyRecord* pRecord, UCHAR ucRemove)
{
    LockScope lock(told.NotifyLock);
    return ReadFromRing(told.NotifyQueue, told.ulNotifyRead, told.ulNotifyCount, pRecord, ucRemove == 1)
               ? STATUS_SUCCESS
               : STATUS_UNSUCCESSFUL;
}
} // namespace

// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: unknown index, empty; *pRecord untouched.
NTSTATUS GetNotifyRecord(ULONG ulDeviceIndex, NotifyRecord* pRecord, UCHAR ucRemove)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    return GetRecordOf(FieldsOf<NotifyFields>(keyboard.Context()), pRecord, ucRemove);
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
        (void)GetRecordOf(FieldsOf<NotifyFields>(keyboard.Context()), &pRecords[i], 1);
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
    NotifyFields& told = FieldsOf<NotifyFields>(keyboard.Context());
    LockScope lock(told.NotifyLock);
    *pulCount = told.ulNotifyCount;
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes NotifyLock. Fails: unknown index.
NTSTATUS ClearNotifyQueue(ULONG ulDeviceIndex)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    NotifyFields& told = FieldsOf<NotifyFields>(keyboard.Context());
    LockScope lock(told.NotifyLock);
    ClearRing(told.NotifyQueue, told.ulNotifyWrite, told.ulNotifyRead, told.ulNotifyCount);
    return STATUS_SUCCESS;
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeNotifyQueue(DeviceContext* pContext)
{
    NotifyFields& told = FieldsOf<NotifyFields>(pContext);
    KeInitializeSpinLock(&told.NotifyLock.Lock);
}
