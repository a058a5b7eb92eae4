// timers.cpp - the list of armed timers and the thread that waits for the next one. See timers.h.
//
// An armed timer is linked by TimerListEntry and has Dpc set; both belong to ListLock. Its due time is an interrupt
// time in 100 ns. The thread is made with the first timer and never ends.
#include "timers.h"

#include "wine/dpc.h"

static KSPIN_LOCK ListLock;
static LIST_ENTRY Armed = {&Armed, &Armed}; // the first due comes first
static KEVENT Changed;
static LONG lBegun;
static volatile LONG lReady;

// Takes the first timer out when it is due and queues its call. Otherwise tells how long that will take: 0 for ever.
static bool QueueDue(PLARGE_INTEGER pWait)
{
    PKDPC pDpc = nullptr;
    pWait->QuadPart = 0;
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&ListLock);
    if (!IsListEmpty(&Armed)) {
        PKTIMER pTimer = CONTAINING_RECORD(Armed.Flink, KTIMER, TimerListEntry);
        pWait->QuadPart = static_cast<LONGLONG>(KeQueryInterruptTime() - pTimer->DueTime.QuadPart);
        if (pWait->QuadPart >= 0) {
            RemoveEntryList(&pTimer->TimerListEntry);
            pDpc = pTimer->Dpc;
            pTimer->Dpc = nullptr;
            OwnKeInsertQueueDpc(pDpc, nullptr, nullptr);
        }
    }
    KeReleaseSpinLock(&ListLock, oldIrql);
    return pDpc != nullptr;
}

static VOID NTAPI WatchClock(PVOID)
{
    for (;;) {
        LARGE_INTEGER wait;
        if (!QueueDue(&wait)) {
            KeWaitForSingleObject(&Changed, Executive, KernelMode, FALSE, wait.QuadPart ? &wait : nullptr);
        }
    }
}

static void MakeThread()
{
    if (InterlockedCompareExchange(&lBegun, 1, 0) == 0) {
        HANDLE hThread;
        KeInitializeEvent(&Changed, SynchronizationEvent, FALSE);
        PsCreateSystemThread(&hThread, 0, nullptr, nullptr, nullptr, WatchClock, nullptr);
        ZwClose(hThread);
        InterlockedExchange(&lReady, 1);
    }
    while (!lReady) {
        YieldProcessor();
    }
}

VOID NTAPI OwnKeInitializeTimer(PKTIMER pTimer)
{
    RtlZeroMemory(pTimer, sizeof(*pTimer));
}

// ListLock is held.
static BOOLEAN Disarm(PKTIMER pTimer)
{
    if (pTimer->Dpc == nullptr) {
        return FALSE;
    }
    RemoveEntryList(&pTimer->TimerListEntry);
    pTimer->Dpc = nullptr;
    return TRUE;
}

BOOLEAN NTAPI OwnKeSetTimer(PKTIMER pTimer, LARGE_INTEGER due, PKDPC pDpc)
{
    MakeThread();
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&ListLock);
    BOOLEAN bWasArmed = Disarm(pTimer);
    pTimer->Dpc = pDpc;
    pTimer->DueTime.QuadPart = KeQueryInterruptTime() - due.QuadPart;
    PLIST_ENTRY pNext = Armed.Flink;
    while (pNext != &Armed &&
           CONTAINING_RECORD(pNext, KTIMER, TimerListEntry)->DueTime.QuadPart <= pTimer->DueTime.QuadPart) {
        pNext = pNext->Flink;
    }
    InsertTailList(pNext, &pTimer->TimerListEntry);
    KeReleaseSpinLock(&ListLock, oldIrql);
    KeSetEvent(&Changed, IO_NO_INCREMENT, FALSE);
    return bWasArmed;
}

BOOLEAN NTAPI OwnKeCancelTimer(PKTIMER pTimer)
{
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&ListLock);
    BOOLEAN bWasArmed = Disarm(pTimer);
    KeReleaseSpinLock(&ListLock, oldIrql);
    return bWasArmed;
}
