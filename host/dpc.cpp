// dpc.cpp - deferred procedure calls.
//
// Simulated: the queue is emptied on the running thread as soon as its level is below DISPATCH_LEVEL.
// Threaded: a thread of its own runs them at DISPATCH_LEVEL, one after the other. With a seed: two threads,
// so that two calls, even of the same DPC, may run at once, as they may on two processors.
#include "core.h"

enum : UCHAR { DPC_TYPE = 0x13 };

void KeInitializeDpc(PRKDPC pDpc, PKDEFERRED_ROUTINE pRoutine, PVOID pContext)
{
    HostCheckInitialise(pDpc, sizeof(KDPC), __func__);
    pDpc->Type = DPC_TYPE;
    pDpc->Importance = 1;
    pDpc->Number = 0;
    pDpc->DpcListEntry = {nullptr, nullptr};
    pDpc->DeferredRoutine = pRoutine;
    pDpc->DeferredContext = pContext;
    pDpc->SystemArgument1 = nullptr;
    pDpc->SystemArgument2 = nullptr;
    pDpc->DpcData = HostSelf()->pDriver; // whose code it is
}

// Somebody has work for the threads that run the calls.
// Lock: held.
void HostWakeDpcThreads()
{
    if (g->bThreaded) {
        g->Dpcs.Wake.notify_all();
    }
    for (PKTHREAD pThread : g->Dpcs.IdleThreads) {
        HostWake(pThread);
    }
    g->Dpcs.IdleThreads.clear();
}

// Appends the call; one that is queued already stays where it is.
// Lock: held.
void HostQueueDpc(PKDPC pDpc, PVOID pArgument1, PVOID pArgument2)
{
    if (pDpc->Type != DPC_TYPE) {
        HostBug("DPC_NOT_INITIALISED", "a DPC that was never initialised is queued");
    }
    if (pDpc->DpcListEntry.Flink != nullptr) {
        return;
    }
    pDpc->SystemArgument1 = pArgument1;
    pDpc->SystemArgument2 = pArgument2;
    InsertTailList(&g->Dpcs.Queue, &pDpc->DpcListEntry);
    HostWakeDpcThreads();
}

// Takes the first call from the queue and makes it at DISPATCH_LEVEL on this thread.
// Lock: held, released during the call.
void HostRunOneDpc(HostLock& lock, PKTHREAD pSelf)
{
    PKDPC pDpc = CONTAINING_RECORD(RemoveHeadList(&g->Dpcs.Queue), KDPC, DpcListEntry);
    pDpc->DpcListEntry = {nullptr, nullptr};
    PKDEFERRED_ROUTINE pRoutine = pDpc->DeferredRoutine;
    PVOID pContext = pDpc->DeferredContext;
    PVOID pArgument1 = pDpc->SystemArgument1;
    PVOID pArgument2 = pDpc->SystemArgument2;
    PDRIVER_OBJECT pDriver = static_cast<PDRIVER_OBJECT>(pDpc->DpcData);
    g->Dpcs.Running.push_back({pDpc, pSelf, pDriver});
    lock.unlock();
    KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
    const UCHAR* pInterrupted = pSelf->pStackTop;
    pSelf->pStackTop = nullptr; // DPCs have a stack of their own
    {
        HostDriverScope scope(pDriver, "a DPC routine");
        pRoutine(pDpc, pContext, pArgument1, pArgument2);
    }
    pSelf->pStackTop = pInterrupted;
    pSelf->Irql = before;
    if (!g->bThreaded && before < DISPATCH_LEVEL) {
        HostGuardPaged(false);
    }
    SCHEDULE_POINT();
    lock.lock();
    for (size_t i = 0; i < g->Dpcs.Running.size(); i++) {
        if (g->Dpcs.Running[i].pThread == pSelf) {
            g->Dpcs.Running.erase(g->Dpcs.Running.begin() + static_cast<long>(i));
            break;
        }
    }
    if (g->bThreaded) {
        g->Dpcs.Idle.notify_all();
    }
}

void HostRunDpcs()
{
    PKTHREAD pSelf = HostSelf();
    HostLock lock(g->Lock);
    while (!g->Sched.bSeeded && !IsListEmpty(&g->Dpcs.Queue)) {
        HostRunOneDpc(lock, pSelf);
    }
}

void HostDpcThread()
{
    PKTHREAD pSelf = HostSelf();
    HostLock lock(g->Lock);
    while (!g->bStopping) {
        if (IsListEmpty(&g->Dpcs.Queue) && g->Sched.bSeeded) {
            g->Dpcs.IdleThreads.push_back(pSelf);
            pSelf->bWaiting = true;
            HostBlock(lock, pSelf);
        } else if (IsListEmpty(&g->Dpcs.Queue)) {
            g->Dpcs.Wake.wait(lock);
        } else {
            HostRunOneDpc(lock, pSelf);
        }
    }
}

BOOLEAN KeInsertQueueDpc(PRKDPC pDpc, PVOID pArgument1, PVOID pArgument2)
{
    SCHEDULE_POINT();
    HostCheckNotFreed(pDpc, __func__);
    bool bQueued;
    {
        HostLock lock(g->Lock);
        bQueued = pDpc->DpcListEntry.Flink == nullptr;
        HostQueueDpc(pDpc, pArgument1, pArgument2);
    }
    if (!g->bThreaded && KeGetCurrentIrql() < DISPATCH_LEVEL) {
        HostRunDpcs();
    }
    return bQueued;
}

BOOLEAN KeRemoveQueueDpc(PRKDPC pDpc)
{
    SCHEDULE_POINT();
    HostLock lock(g->Lock);
    if (pDpc->DpcListEntry.Flink == nullptr) {
        return FALSE;
    }
    RemoveEntryList(&pDpc->DpcListEntry);
    pDpc->DpcListEntry = {nullptr, nullptr};
    return TRUE;
}

// Returns when every call that was queued before has been made. Simulated without a seed: none can be left.
void KeFlushQueuedDpcs()
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostLock lock(g->Lock);
    while ((g->bThreaded || g->Sched.bSeeded) && (!IsListEmpty(&g->Dpcs.Queue) || !g->Dpcs.Running.empty())) {
        if (g->bThreaded) {
            g->Dpcs.Idle.wait(lock);
        } else {
            HostYield(lock, HostSelf());
        }
    }
}
