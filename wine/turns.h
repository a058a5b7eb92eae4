// turns.h - who runs and who waits. When nothing of the drivers can go on by itself, the virtual clock moves:
// so the same calls give the same run, however fast the machine is.
//
// What counts: requests that the application or the system has made and waits for, work items, deferred
// calls. A thread of another kind (the log's) may wait as long as it likes.
#pragma once

#include <kernel.h>

enum class Turn { None, Request, Work };
void TakeTurn(Turn turn); // what the calling thread's waits are counted as, from now on

// From construction to destruction somebody waits for a request.
class Asking
{
public:
    Asking();
    ~Asking();
    Asking(const Asking&) = delete;
    Asking& operator=(const Asking&) = delete;
};

// True when neither a deferred call nor a work item can go on by itself; bAll: nor a request.
bool NothingRuns(bool bAll);
void StartTurns(); // the thread that moves the clock while somebody waits for a request

VOID NTAPI OwnIoQueueWorkItem(PIO_WORKITEM pItem, PIO_WORKITEM_ROUTINE pRoutine, WORK_QUEUE_TYPE queue,
                              PVOID pContext);
NTSTATUS NTAPI OwnKeWaitForSingleObject(PVOID pObject, KWAIT_REASON reason, KPROCESSOR_MODE mode,
                                        BOOLEAN bAlertable, PLARGE_INTEGER pTimeout);
NTSTATUS NTAPI OwnKeWaitForMultipleObjects(ULONG ulCount, PVOID* ppObjects, WAIT_TYPE type,
                                           KWAIT_REASON reason, KPROCESSOR_MODE mode, BOOLEAN bAlertable,
                                           PLARGE_INTEGER pTimeout, PKWAIT_BLOCK pBlocks);
