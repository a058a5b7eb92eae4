// live.cpp - memory that the system still knows of: it must not be freed, nor what lies in it be initialised anew.
//
// Set timers and their DPCs, queued and running DPCs, objects that somebody waits for, mutexes that somebody
// owns, queued work items. Any IRQL.
#include "core.h"

struct Codes {
    const char* pTimer;
    const char* pObject;
    const char* pWork;
};
static const Codes FREED = {"TIMER_OR_DPC_IN_FREED_MEMORY", "DISPATCHER_OBJECT_IN_FREED_MEMORY",
                            "WORK_ITEM_IN_FREED_MEMORY"};
static const Codes INITIALISED = {"TIMER_OR_DPC_INVALID", "DISPATCHER_OBJECT_IN_USE", nullptr};

// A stretch of memory and what happens to it.
struct Stretch {
    const void* pBegin;
    size_t bytes;
    const char* pWhat;
    const char* pDeed;
    const Codes& Code;

    bool Has(const void* p) const { return p >= pBegin && p < static_cast<const UCHAR*>(pBegin) + bytes; }
    [[noreturn]] void Stop(const char* pCode, const char* pWhy) const
    {
        HostBug(pCode, "%s is %s while %s", pWhat, pDeed, pWhy);
    }
};

// Lock: held.
static void CheckTimers(const Stretch& stretch)
{
    for (const auto& due : g->Clock.Due) {
        if (due.second.pTimer != nullptr && stretch.Has(due.second.pTimer)) {
            stretch.Stop(stretch.Code.pTimer, "a timer in it is set");
        }
        if (due.second.pTimer != nullptr && stretch.Has(due.second.pTimer->Dpc)) {
            stretch.Stop(stretch.Code.pTimer, "a timer is set for a DPC in it");
        }
    }
    for (PLIST_ENTRY pEntry = g->Dpcs.Queue.Flink; pEntry != &g->Dpcs.Queue; pEntry = pEntry->Flink) {
        if (stretch.Has(pEntry)) {
            stretch.Stop(stretch.Code.pTimer, "a DPC in it is queued");
        }
    }
    PKTHREAD pSelf = HostSelf();
    for (const HostDpcs::RunningDpc& running : g->Dpcs.Running) {
        if (running.pThread != pSelf && stretch.Has(running.pDpc)) {
            stretch.Stop(stretch.Code.pTimer, "a DPC in it runs on another processor");
        }
    }
}

// Lock: held.
static void CheckThreads(const Stretch& stretch)
{
    for (PKTHREAD pThread : g->Threads.All) {
        for (ULONG i = 0; i < pThread->ulBlocks; i++) {
            if (stretch.Has(pThread->pBlocks[i].Object)) {
                std::string who =
                    "thread '" + pThread->Name + "' waits for " + HostDescribeWait(pThread) + " in it";
                stretch.Stop(stretch.Code.pObject, who.c_str());
            }
        }
        for (const void* pMutex : pThread->Mutexes) {
            if (stretch.Has(pMutex)) {
                std::string who = "thread '" + pThread->Name + "' owns a mutex in it";
                stretch.Stop(stretch.Code.pObject, who.c_str());
            }
        }
    }
}

// Memory that goes away must not hold anything that the system still knows of.
// Lock: takes Lock.
void HostCheckNoLiveThings(const void* p, size_t bytes, const char* pWhat)
{
    HostLock lock(g->Lock);
    if (!HostMayBeKnown(p, bytes)) {
        return;
    }
    HostForgetLocks(p, bytes);
    const Stretch stretch = {p, bytes, pWhat, "freed", FREED};
    CheckTimers(stretch);
    CheckThreads(stretch);
    for (const HostWorkers::Item& work : g->Work.Queue) {
        if (stretch.Has(work.pIdentity)) {
            stretch.Stop(stretch.Code.pWork, "a work item in it is queued");
        }
    }
}

// A timer, DPC, event or mutex is initialised: it is not in use, and lies where the system can reach it at
// any level.
// Lock: takes Lock.
void HostCheckInitialise(const void* pObject, size_t bytes, const char* pCall)
{
    HostCheckNotPaged(pObject, "DISPATCHER_OBJECT_IN_PAGED_POOL", pCall);
    const Stretch stretch = {pObject, bytes, pCall, "called", INITIALISED};
    HostLock lock(g->Lock);
    CheckTimers(stretch);
    CheckThreads(stretch);
}
