// macroqueue.cpp - the driver's macro records for the application: mode changes and captured reports.
//
//   report road, settings ── Queue ──► MacroQueue[1024] ── Get ──► the application's requests
//                            ulMacroWrite ▲        ▲ ulMacroRead
//
// A ring under MacroLock; equal positions mean empty or full, ulMacroCount says which. A full ring drops the
// new record.
#include "control/notification.h"

// IRQL <= DISPATCH. Lock: takes MacroLock. Owns: copies the record. Fails: ring full.
NTSTATUS QueueMacroRecord(const MacroRecord* pRecord)
{
    LockScope lock(Globals.MacroLock);
    if (Globals.ulMacroCount >= MACRO_QUEUE_SIZE) {
        return STATUS_UNSUCCESSFUL;
    }
    Globals.MacroQueue[Globals.ulMacroWrite] = *pRecord;
    Globals.ulMacroCount++;
    Globals.ulMacroWrite = (Globals.ulMacroWrite + 1) % MACRO_QUEUE_SIZE;
    return STATUS_SUCCESS;
}

// The oldest record; ucRemove 1 takes it, any other value leaves it queued.
// IRQL <= DISPATCH. Lock: takes MacroLock. Fails: empty, *pRecord untouched.
NTSTATUS GetMacroRecord(MacroRecord* pRecord, UCHAR ucRemove)
{
    LockScope lock(Globals.MacroLock);
    if (Globals.ulMacroCount == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    *pRecord = Globals.MacroQueue[Globals.ulMacroRead];
    if (ucRemove == 1) {
        Globals.ulMacroCount--;
        Globals.ulMacroRead = (Globals.ulMacroRead + 1) % MACRO_QUEUE_SIZE;
    }
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes MacroLock. Fails: never.
NTSTATUS GetMacroCount(PULONG pulCount)
{
    LockScope lock(Globals.MacroLock);
    *pulCount = Globals.ulMacroCount;
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes MacroLock. Fails: never.
NTSTATUS ClearMacroQueue()
{
    LockScope lock(Globals.MacroLock);
    RtlZeroMemory(Globals.MacroQueue, sizeof(Globals.MacroQueue));
    Globals.ulMacroWrite = 0;
    Globals.ulMacroRead = 0;
    Globals.ulMacroCount = 0;
    return STATUS_SUCCESS;
}
