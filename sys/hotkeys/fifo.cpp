// fifo.cpp - whole reports that the system shall see as if the keyboard had sent them.
//
//   InsertUSBPackets, macro playback ──► Fifo[16] ──► the keyboard's next reads
//                  write ▲                   ▲ read      (answered above the keyboard)
//
// A ring of 16 under FifoLock. Taking a report starts the pacing timer
// of the macro mode when a pace is set.
#include "hotkeys/buffers.h"

#include "ground/ring.h"
#include "ground/sums.h"
#include "hotkeys/bufferfields.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/parked.h"
#include "macro/parkedfields.h"
#include "usb/pending.h"
#include "usb/pendingfields.h"

namespace
{
enum { MAX_REQUEST_ENTRIES = 32 };

// Starts the pacing when a pace is set and no keyboard's timer runs.
void StartPacing(PDEVICE_OBJECT device)
{
    if (ReadShared(SettingsOfPace.ulKorvexDelay) != 0 && ReadShared(GlobalPace.ucKorvexTimerRunning) == 0) {
        StartKorvexDelay(device);
    }
}

// Takes the oldest report and starts the pacing. Fails: empty, *pEntry untouched.
NTSTATUS TakeOldest(PDEVICE_OBJECT device, DeviceContext* pContext, FifoEntry* pEntry)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    {
        LockScope lock(buffers.FifoLock);
        if (!ReadFromRing(buffers.Fifo, buffers.ulFifoRead, buffers.ulFifoCount, pEntry)) {
            Trace(FifoEmpty, IndexOf(pContext));
            return STATUS_UNSUCCESSFUL;
        }
    }
    StartPacing(device);
    return STATUS_SUCCESS;
}

bool IsFifoEmpty(DeviceContext* pContext)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    LockScope lock(buffers.FifoLock);
    return buffers.ulFifoCount == 0;
}

// Waits until the queue has run empty, the keyboard goes or the process ends. One set of the event lets one
// waiter through, which then lets the next one through.
NTSTATUS WaitForFifo(DeviceContext* pContext)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    InterlockedIncrement(&buffers.lFifoWaiters);
    NTSTATUS status = STATUS_SUCCESS;
    if (!ReadShared(frame.ucRemoving)) { // else removal set the event before it was reset
        status = KeWaitForSingleObject(&buffers.FifoEvent, UserRequest, UserMode, FALSE, nullptr);
    }
    if (InterlockedDecrement(&buffers.lFifoWaiters) > 0 &&
        (ReadShared(frame.ucRemoving) || IsFifoEmpty(pContext))) {
        KeSetEvent(&buffers.FifoEvent, IO_NO_INCREMENT, FALSE);
    }
    return status == STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// Every entry fits a report buffer, and there are neither none nor too many.
bool IsRequestSound(const UCHAR* pRequest, USHORT usCount)
{
    if (usCount == 0 || usCount > MAX_REQUEST_ENTRIES) {
        return false;
    }
    for (USHORT i = 0; i < usCount; i++) {
        FifoEntry entry;
        RtlCopyMemory(&entry, pRequest + 4 + i * sizeof(entry), sizeof(entry));
        if (entry.usLength > sizeof(entry.ucData)) {
            return false;
        }
    }
    return true;
}

// Queues the entries up to the first refusal. Returns the flags of the last one handled.
ULONG QueueEntries(PDEVICE_OBJECT device, const UCHAR* pRequest, USHORT usCount)
{
    FifoEntry entry = {};
    for (USHORT i = 0; i < usCount; i++) {
        RtlCopyMemory(&entry, pRequest + 4 + i * sizeof(entry), sizeof(entry));
        if (!NT_SUCCESS(InsertUSBPacketFifin(device, &entry))) {
            break;
        }
    }
    return entry.ulFlags;
}

NTSTATUS InsertIntoFifo(PDEVICE_OBJECT device, const UCHAR* pRequest, USHORT usCount)
{
    DeviceContext* pContext = FilterContextOf(device);
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    PendingFields& pending = FieldsOf<PendingFields>(pContext);
    KeResetEvent(&buffers.FifoEvent);
    ULONG ulFlags = QueueEntries(device, pRequest, usCount);
    if (CancelPendingRead(device)) {
        WriteShared(pending.ulIrpCancelledForInsert, 1u);
    }
    return ulFlags == 1 ? WaitForFifo(pContext) : STATUS_SUCCESS;
}
} // namespace

// Appends one report.
// IRQL <= DISPATCH. Lock: takes FifoLock. Owns: copies the entry. Fails: full, or more than 10 bytes.
NTSTATUS InsertUSBPacketFifin(PDEVICE_OBJECT device, const FifoEntry* pEntry)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    if (pEntry->usLength > sizeof(pEntry->ucData)) {
        return STATUS_UNSUCCESSFUL;
    }
    LockScope lock(buffers.FifoLock);
    if (!AppendToRing(buffers.Fifo, buffers.ulFifoWrite, buffers.ulFifoCount, *pEntry)) {
        Trace(FifoFull, IndexOf(device), {pEntry->ucData, pEntry->usLength});
        return STATUS_UNSUCCESSFUL;
    }
    LogHexDump("(InsertUSBPacketFifin) adding entry:", pEntry->usLength, pEntry->ucData);
    return STATUS_SUCCESS;
}

// Takes the oldest report and starts the pacing.
// IRQL <= DISPATCH. Lock: takes FifoLock. Fails: unknown index, empty; *pEntry untouched.
NTSTATUS GetUSBPacketFifo(ULONG ulDeviceIndex, FifoEntry* pEntry)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    return TakeOldest(keyboard.Device(), keyboard.Context(), pEntry);
}

// IRQL <= DISPATCH. Lock: takes FifoLock. Fails: unknown index.
NTSTATUS GetFifoCount(ULONG ulDeviceIndex, PULONG pulCount)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    BufferFields& buffers = FieldsOf<BufferFields>(keyboard.Context());
    LockScope lock(buffers.FifoLock);
    *pulCount = buffers.ulFifoCount;
    return STATUS_SUCCESS;
}

// Puts the oldest report into a read's buffer, dumped before and after under the two titles. With the last one
// the waits for an empty queue end.
// IRQL <= DISPATCH. Lock: takes FifoLock. Fails: empty, the buffer is untouched.
NTSTATUS TakeFifoReport(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, const char* pszEntryTitle,
                        const char* pszBufferTitle)
{
    DeviceContext* pContext = FilterContextOf(device);
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    FifoEntry entry;
    NTSTATUS status = TakeOldest(device, pContext, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONG ulReport = LowerOf(entry.usLength, sizeof(entry.ucData));
    LogHexDump(pszEntryTitle, ulReport, entry.ucData);
    RtlCopyMemory(pBuf, entry.ucData, LowerOf(ulReport, ulLen));
    LogHexDump(pszBufferTitle, ulLen, pBuf);
    if (IsFifoEmpty(pContext)) {
        KeSetEvent(&buffers.FifoEvent, IO_KEYBOARD_INCREMENT, FALSE);
    }
    return STATUS_SUCCESS;
}

// The application's request: queues its reports, has the stack read anew and, when its last entry says so,
// waits until they were delivered. Entries behind a full queue are not queued, which is no failure.
// IRQL = PASSIVE. Fails: unknown index, no entries or more than 32, an entry above 10 bytes, end of the process.
NTSTATUS InsertUSBPackets(ULONG ulDeviceIndex, const UCHAR* pRequest)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    if (pRequest != nullptr) {
        USHORT usCount;
        RtlCopyMemory(&usCount, pRequest, sizeof(usCount));
        if (IsRequestSound(pRequest, usCount)) {
            status = InsertIntoFifo(keyboard.Device(), pRequest, usCount);
        }
    }
    return status;
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeFifo(DeviceContext* pContext)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    KeInitializeSpinLock(&buffers.FifoLock.Lock);
    KeInitializeEvent(&buffers.FifoEvent, SynchronizationEvent, FALSE);
}

// Who waits sees the removal and returns; the next in line is woken by them.
// IRQL <= DISPATCH, after RefuseNewReferences.
void WakeInsertUSBPackets(DeviceContext* pContext)
{
    KeSetEvent(&FieldsOf<BufferFields>(pContext).FifoEvent, IO_NO_INCREMENT, FALSE);
}
