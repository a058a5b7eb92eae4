// drain.cpp - the reader's side of the log: the text goes to the file, the buffer is emptied.
//
//   LogWrite ── LogEvent ──▶ drain thread ── WriteLogFile ──▶ file
//      └─ LogDpc ──┘              └─ takes what was written off the buffer's front
//
// Writers only ever append, so the drain reads the text that was there without the lock, and takes it off
// under the lock once it is in the file. A file that cannot be written (early in the start of the system)
// leaves the text where it is until the next signal. The thread writes what is left before it ends.
// A system thread at PASSIVE_LEVEL.
#include "ground/ground.h"

#include "log/fields.h"
#include "log/file.h"
#include "log/log.h"
#include "log/text.h"

namespace
{
KDEFERRED_ROUTINE LogDpcRoutine;
KSTART_ROUTINE DrainThread;

// A message came above DISPATCH_LEVEL.
// IRQL = DISPATCH.
void NTAPI LogDpcRoutine(PKDPC, PVOID, PVOID, PVOID)
{
    WriteShared(GlobalLog.ucLogDpcPending, 0);
    SignalLogEvent();
}
} // namespace

// IRQL = PASSIVE, once at driver entry.
void InitializeLog()
{
    KeInitializeSpinLock(&GlobalLog.LogLock);
    KeInitializeDpc(&GlobalLog.LogDpc, LogDpcRoutine, nullptr);
    KeInitializeEvent(&GlobalLog.LogEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&GlobalLog.LogEnded, NotificationEvent, FALSE);
}

namespace
{
// What is to be written now, and whether text was lost behind it.
// IRQL = PASSIVE. Lock: takes LogLock.
ULONG MeasureText(PUCHAR pucCut)
{
    LogScope scope;
    *pucCut = GlobalLog.ucLogCut;
    return GlobalLog.ulLogLength;
}

// Takes the written text off; a mark is settled only by the text that ended at it.
// IRQL = PASSIVE. Lock: takes LogLock.
void TakeText(ULONG ulLength, UCHAR ucCut)
{
    LogScope scope;
    const ULONG ulRest = GlobalLog.ulLogLength - ulLength;
    RtlMoveMemory(GlobalLog.pLogBuffer, GlobalLog.pLogBuffer + ulLength, ulRest + 1); // with its NUL
    WriteShared(GlobalLog.ulLogLength, ulRest);
    if (ucCut != 0) {
        WriteShared(GlobalLog.ucLogCut, 0);
    }
}

// IRQL = PASSIVE. Fails: the file refuses; what was not written stays.
NTSTATUS DrainOnce()
{
    UCHAR ucCut = 0;
    ULONG ulWritten = 0;
    const ULONG ulLength = MeasureText(&ucCut);
    if (ulLength == 0 && ucCut == 0) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status =
        WriteLogFile(GlobalLog.pLogBuffer, ulLength, ucCut, &GlobalLog.cLogWritten, &ulWritten);
    TakeText(ulWritten, NT_SUCCESS(status) ? ucCut : 0);
    return status;
}

// IRQL = PASSIVE.
void NTAPI DrainThread(PVOID)
{
    bool bStop = false;
    while (!bStop) {
        KeWaitForSingleObject(&GlobalLog.LogEvent, Executive, KernelMode, FALSE, nullptr);
        WriteShared(GlobalLog.ucLogEventPending, 0);
        bStop = ReadShared(GlobalLog.ucLogStop) != 0;
        DrainOnce(); // a failure is tried again at the next signal
    }
    KeSetEvent(&GlobalLog.LogEnded, IO_NO_INCREMENT, FALSE);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

// Ends the drain, which writes what is left first, and takes the buffer from the writers.
// IRQL = PASSIVE, nobody writes any more.
void EndDrain()
{
    WriteShared(GlobalLog.ucLogStop, 1);
    KeSetEvent(&GlobalLog.LogEvent, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(&GlobalLog.LogEnded, Executive, KernelMode, FALSE, nullptr);
    if (GlobalLog.pLogThread != nullptr) {
        KeWaitForSingleObject(GlobalLog.pLogThread, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(GlobalLog.pLogThread);
        GlobalLog.pLogThread = nullptr;
    }
}

// IRQL = PASSIVE.
void FreeLogBuffer()
{
    char* pBuffer = ExchangeShared(GlobalLog.pLogBuffer, static_cast<char*>(nullptr));
    if (pBuffer != nullptr) {
        ExFreePoolWithTag(pBuffer, POOL_TAG);
    }
}

// The thread object is held, so that StopLog can wait until the last instruction of the drain is through.
// IRQL = PASSIVE. Owns: the thread until EndDrain. Fails: no thread, no reference; no thread runs then.
NTSTATUS StartDrain()
{
    HANDLE hThread = nullptr;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    NTSTATUS status = PsCreateSystemThread(&hThread, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr,
                                           DrainThread, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ObReferenceObjectByHandle(hThread, THREAD_ALL_ACCESS, nullptr, KernelMode, &GlobalLog.pLogThread,
                                       nullptr);
    ZwClose(hThread);
    if (!NT_SUCCESS(status)) {
        GlobalLog.pLogThread = nullptr;
        EndDrain();
    }
    return status;
}
} // namespace

// Without a log file name there is no log and nothing to start.
// IRQL = PASSIVE, once. Owns: buffer and thread until StopLog. Fails: no memory, no thread; the log stays
// off.
NTSTATUS StartLog()
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (SettingsOfLog.LogFileName.Length == 0) {
        return STATUS_SUCCESS;
    }
    char* pBuffer = static_cast<char*>(AllocateZeroed(NonPagedPoolNx, LOG_BUFFER_BYTES));
    if (pBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    WriteShared(GlobalLog.pLogBuffer, pBuffer);
    const NTSTATUS status = StartDrain();
    if (!NT_SUCCESS(status)) {
        FreeLogBuffer();
    }
    return status;
}

// IRQL = PASSIVE, nobody writes any more. Lock: takes LogLock.
void StopLog()
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (GlobalLog.pLogThread != nullptr) {
        KeRemoveQueueDpc(&GlobalLog.LogDpc);
        KeFlushQueuedDpcs();
        EndDrain();
    }
    FreeLogBuffer();
}
