// macroqueue.cpp - the driver's macro records for the application: mode changes and captured reports.
//
//   report road, settings ── Queue ──► MacroQueue[1024] ── Get ──► the application's requests
//                            ulMacroWrite ▲        ▲ ulMacroRead
//
// A ring under MacroLock. A full one drops the new record.
#include "control/notification.h"

#include "control/fields.h"
#include "ground/ring.h"
#include "log/events.h"

// IRQL <= DISPATCH. Lock: takes MacroLock. Owns: copies the record. Fails: ring full.
NTSTATUS QueueMacroRecord(const MacroRecord* pRecord)
{
    LockScope lock(GlobalEvents.MacroLock);
    if (!AppendToRing(GlobalEvents.MacroQueue, GlobalEvents.ulMacroWrite, GlobalEvents.ulMacroCount,
                      *pRecord)) {
        Trace(MacroQueueFull, pRecord->usType);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// The oldest record; ucRemove 1 takes it, any other value leaves it queued.
// IRQL <= DISPATCH. Lock: takes MacroLock. Fails: empty, *pRecord untouched.
NTSTATUS GetMacroRecord(MacroRecord* pRecord, UCHAR ucRemove)
{
    LockScope lock(GlobalEvents.MacroLock);
    return ReadFromRing(GlobalEvents.MacroQueue, GlobalEvents.ulMacroRead, GlobalEvents.ulMacroCount, pRecord,
                        ucRemove == 1)
               ? STATUS_SUCCESS
               : STATUS_UNSUCCESSFUL;
}

// IRQL <= DISPATCH. Lock: takes MacroLock. Fails: never.
NTSTATUS GetMacroCount(PULONG pulCount)
{
    LockScope lock(GlobalEvents.MacroLock);
    *pulCount = GlobalEvents.ulMacroCount;
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes MacroLock. Fails: never.
NTSTATUS ClearMacroQueue()
{
    LockScope lock(GlobalEvents.MacroLock);
    ClearRing(GlobalEvents.MacroQueue, GlobalEvents.ulMacroWrite, GlobalEvents.ulMacroRead,
              GlobalEvents.ulMacroCount);
    return STATUS_SUCCESS;
}
