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
#include "log/events.h"
#include "log/log.h"
#include "macro/parked.h"
#include "usb/pending.h"

namespace
{
enum { MAX_REQUEST_ENTRIES = 32 };

// Starts the pacing when a pace is set and no keyboard's timer runs.
void StartPacing(PDEVICE_OBJECT device)
{
    if (ReadShared(Settings.ulKorvexDelay) != 0 && ReadShared(Globals.ucKorvexTimerRunning) == 0) {
        StartKorvexDelay(device);
    }
}

// Takes the oldest report and starts the pacing. Fails: empty, *pEntry untouched.
NTSTATUS TakeOldest(PDEVICE_OBJECT device, DeviceContext* pContext, FifoEntry* pEntry)
{
    {
        LockScope lock(pContext->FifoLock);
        if (!ReadFromRing(pContext->Fifo, pContext->ulFifoRead, pContext->ulFifoCount, pEntry)) {
            Trace(FifoEmpty, pContext->ulDeviceIndex);
            return STATUS_UNSUCCESSFUL;
        }
    }
    StartPacing(device);
    return STATUS_SUCCESS;
}

bool IsFifoEmpty(DeviceContext* pContext)
{
    LockScope lock(pContext->FifoLock);
    return pContext->ulFifoCount == 0;
}

// Waits until the queue has run empty, the keyboard goes or the process ends. One set of the event lets one
// waiter through, which then lets the next one through.
NTSTATUS WaitForFifo(DeviceContext* pContext)
{
    InterlockedIncrement(&pContext->lFifoWaiters);
    NTSTATUS status = STATUS_SUCCESS;
    if (!ReadShared(pContext->ucRemoving)) { // else removal set the event before it was reset
        status = KeWaitForSingleObject(&pContext->FifoEvent, UserRequest, UserMode, FALSE, nullptr);
    }
    if (InterlockedDecrement(&pContext->lFifoWaiters) > 0 &&
        (ReadShared(pContext->ucRemoving) || IsFifoEmpty(pContext))) {
        KeSetEvent(&pContext->FifoEvent, IO_NO_INCREMENT, FALSE);
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
    KeResetEvent(&pContext->FifoEvent);
    ULONG ulFlags = QueueEntries(device, pRequest, usCount);
    if (CancelPendingRead(device)) {
        WriteShared(pContext->ulIrpCancelledForInsert, 1u);
    }
    return ulFlags == 1 ? WaitForFifo(pContext) : STATUS_SUCCESS;
}
} // namespace

// Appends one report.
// IRQL <= DISPATCH. Lock: takes FifoLock. Owns: copies the entry. Fails: full, or more than 10 bytes.
NTSTATUS InsertUSBPacketFifin(PDEVICE_OBJECT device, const FifoEntry* pEntry)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (pEntry->usLength > sizeof(pEntry->ucData)) {
        return STATUS_UNSUCCESSFUL;
    }
    LockScope lock(pContext->FifoLock);
    if (!AppendToRing(pContext->Fifo, pContext->ulFifoWrite, pContext->ulFifoCount, *pEntry)) {
        Trace(FifoFull, pContext->ulDeviceIndex, {pEntry->ucData, pEntry->usLength});
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
    DeviceContext* pContext = keyboard.Context();
    LockScope lock(pContext->FifoLock);
    *pulCount = pContext->ulFifoCount;
    return STATUS_SUCCESS;
}

// Puts the oldest report into a read's buffer, dumped before and after under the two titles. With the last one
// the waits for an empty queue end.
// IRQL <= DISPATCH. Lock: takes FifoLock. Fails: empty, the buffer is untouched.
NTSTATUS TakeFifoReport(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, const char* pszEntryTitle,
                        const char* pszBufferTitle)
{
    DeviceContext* pContext = FilterContextOf(device);
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
        KeSetEvent(&pContext->FifoEvent, IO_KEYBOARD_INCREMENT, FALSE);
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
    KeInitializeSpinLock(&pContext->FifoLock.Lock);
    KeInitializeEvent(&pContext->FifoEvent, SynchronizationEvent, FALSE);
}
