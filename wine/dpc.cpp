// dpc.cpp - the queue of deferred calls and the thread that runs them. See dpc.h.
//
// A queued call is linked by DpcListEntry, and its DpcData points at the queue; both belong to QueueLock. The
// thread is made with the first call and never ends.
#include "dpc.h"

void (*pSetDpcLevel)(KIRQL level);

static KSPIN_LOCK QueueLock;
static LIST_ENTRY Queue = {&Queue, &Queue};
static KEVENT Wake; // something was queued
static KEVENT Idle; // nothing is queued and nothing runs
static LONG lBegun;
static volatile LONG lReady;

// Takes the first call out, its arguments first, as it may be queued anew from now on; null: the queue is
// empty.
static PKDPC TakeNext(PVOID* ppFirst, PVOID* ppSecond)
{
    PKDPC pDpc = nullptr;
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&QueueLock);
    if (IsListEmpty(&Queue)) {
        KeSetEvent(&Idle, 0, FALSE);
    } else {
        pDpc = CONTAINING_RECORD(RemoveHeadList(&Queue), KDPC, DpcListEntry);
        *ppFirst = pDpc->SystemArgument1;
        *ppSecond = pDpc->SystemArgument2;
        pDpc->DpcData = nullptr;
    }
    KeReleaseSpinLock(&QueueLock, oldIrql);
    return pDpc;
}

static void SetLevel(KIRQL level)
{
    if (pSetDpcLevel) {
        pSetDpcLevel(level);
    }
}

static VOID NTAPI RunDeferredCalls(PVOID)
{
    for (;;) {
        KeWaitForSingleObject(&Wake, Executive, KernelMode, FALSE, nullptr);
        PVOID pFirst, pSecond;
        while (PKDPC pDpc = TakeNext(&pFirst, &pSecond)) {
            SetLevel(DISPATCH_LEVEL);
            pDpc->DeferredRoutine(pDpc, pDpc->DeferredContext, pFirst, pSecond);
            SetLevel(PASSIVE_LEVEL);
        }
    }
}

static void MakeThread()
{
    if (InterlockedCompareExchange(&lBegun, 1, 0) == 0) {
        HANDLE hThread;
        KeInitializeEvent(&Wake, SynchronizationEvent, FALSE);
        KeInitializeEvent(&Idle, NotificationEvent, TRUE);
        PsCreateSystemThread(&hThread, 0, nullptr, nullptr, nullptr, RunDeferredCalls, nullptr);
        ZwClose(hThread);
        InterlockedExchange(&lReady, 1);
    }
    while (!lReady) {
        YieldProcessor();
    }
}

VOID NTAPI OwnKeInitializeDpc(PRKDPC pDpc, PKDEFERRED_ROUTINE pRoutine, PVOID pContext)
{
    RtlZeroMemory(pDpc, sizeof(*pDpc));
    pDpc->DeferredRoutine = pRoutine;
    pDpc->DeferredContext = pContext;
}

BOOLEAN NTAPI OwnKeInsertQueueDpc(PRKDPC pDpc, PVOID pFirst, PVOID pSecond)
{
    MakeThread();
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&QueueLock);
    BOOLEAN bNew = pDpc->DpcData != &Queue;
    if (bNew) {
        pDpc->DpcData = &Queue;
        pDpc->SystemArgument1 = pFirst;
        pDpc->SystemArgument2 = pSecond;
        InsertTailList(&Queue, &pDpc->DpcListEntry);
        KeClearEvent(&Idle);
    }
    KeReleaseSpinLock(&QueueLock, oldIrql);
    KeSetEvent(&Wake, 0, FALSE);
    return bNew;
}

BOOLEAN NTAPI OwnKeRemoveQueueDpc(PRKDPC pDpc)
{
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&QueueLock);
    BOOLEAN bQueued = pDpc->DpcData == &Queue;
    if (bQueued) {
        RemoveEntryList(&pDpc->DpcListEntry);
        pDpc->DpcData = nullptr;
    }
    KeReleaseSpinLock(&QueueLock, oldIrql);
    return bQueued;
}

VOID NTAPI OwnKeFlushQueuedDpcs()
{
    if (lReady) {
        KeWaitForSingleObject(&Idle, Executive, KernelMode, FALSE, nullptr);
    }
}
