// work.cpp - work items and the worker threads that run them at PASSIVE_LEVEL.
//
// Workers are started when there is work and none is idle, up to four. A work item is off the queue when
// its routine starts: the routine may free it or queue it again.
#include "core.h"

enum { MAXIMUM_WORKERS = 4 };

struct _IO_WORKITEM {
    PDEVICE_OBJECT pDevice;
    bool bQueued;
};

static void Worker()
{
    PKTHREAD pSelf = HostSelf();
    HostLock lock(g->Lock);
    for (;;) {
        if (g->Work.Queue.empty()) {
            if (g->bStopping) {
                return;
            }
            g->Work.Idle.push_back(pSelf);
            pSelf->bWaiting = true;
            HostBlock(lock, pSelf);
            continue;
        }
        HostWorkers::Item work = std::move(g->Work.Queue.front());
        g->Work.Queue.pop_front();
        g->Work.uBusy++;
        pSelf->pWorkOf = work.pOwner;
        lock.unlock();
        {
            HostDriverScope scope(work.pOwner, "a work routine");
            work.Run();
        }
        work.Run = nullptr;
        lock.lock();
        pSelf->pWorkOf = nullptr;
        g->Work.uBusy--;
    }
}

// Hands work to a worker. The identity is the memory that must stay until the routine starts.
// IRQL <= DISPATCH. Lock: takes Lock.
void HostQueueWork(std::function<void()> work, const void* pIdentity, PDRIVER_OBJECT pOwner)
{
    bool bSpawn = false;
    {
        HostLock lock(g->Lock);
        g->Work.Queue.push_back({std::move(work), pIdentity, pOwner});
        if (!g->Work.Idle.empty()) {
            PKTHREAD pWorker = g->Work.Idle.back();
            g->Work.Idle.pop_back();
            HostWake(pWorker);
        } else {
            bSpawn = g->Work.All.size() < MAXIMUM_WORKERS;
        }
    }
    if (bSpawn) {
        PKTHREAD pWorker = HostSpawn("worker", Worker, 0);
        HostLock lock(g->Lock);
        g->Work.All.push_back(pWorker);
    }
}

void HostEndWorkers()
{
    std::vector<PKTHREAD> workers;
    {
        HostLock lock(g->Lock);
        workers.swap(g->Work.All);
        for (PKTHREAD pWorker : g->Work.Idle) {
            HostWake(pWorker);
        }
        g->Work.Idle.clear();
    }
    for (PKTHREAD pWorker : workers) {
        KeWaitForSingleObject(pWorker, Executive, KernelMode, FALSE, nullptr);
        HostDereference(pWorker);
    }
}

void ExQueueWorkItem(PWORK_QUEUE_ITEM pItem, WORK_QUEUE_TYPE)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    {
        HostLock lock(g->Lock);
        if (pItem->List.Flink != nullptr) {
            HostBug("WORK_ITEM_QUEUED_TWICE", "ExQueueWorkItem of an item that is queued already");
        }
        pItem->List.Flink = &pItem->List;
    }
    PDRIVER_OBJECT pDriver = HostSelf()->pDriver;
    HostQueueWork(
        [pItem] {
            PWORKER_THREAD_ROUTINE pRoutine;
            PVOID pParameter;
            {
                HostLock lock(g->Lock);
                pItem->List.Flink = nullptr;
                pRoutine = pItem->WorkerRoutine;
                pParameter = pItem->Parameter;
            }
            pRoutine(pParameter);
        },
        pItem, pDriver);
}

static const char WorkItemKind[] = "work item";

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT pDevice)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    if (HostShouldFail("workitem")) {
        return nullptr;
    }
    PIO_WORKITEM pItem =
        static_cast<PIO_WORKITEM>(HostAllocate(sizeof(*pItem), WorkItemKind, 0, pDevice->DriverObject));
    *pItem = {pDevice, false};
    return pItem;
}

// Queues the routine; the device is referenced until the routine has returned.
void IoQueueWorkItem(PIO_WORKITEM pItem, PIO_WORKITEM_ROUTINE pRoutine, WORK_QUEUE_TYPE, PVOID pContext)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    PDEVICE_OBJECT pDevice = pItem->pDevice;
    {
        HostLock lock(g->Lock);
        if (pItem->bQueued) {
            HostBug("WORK_ITEM_QUEUED_TWICE", "IoQueueWorkItem of an item that is queued already");
        }
        pItem->bQueued = true;
    }
    HostReference(pDevice);
    HostQueueWork(
        [=] {
            {
                HostLock lock(g->Lock);
                pItem->bQueued = false;
            }
            pRoutine(pDevice, pContext);
            HostDereference(pDevice);
        },
        pItem, pDevice->DriverObject);
}

void IoFreeWorkItem(PIO_WORKITEM pItem)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    {
        HostLock lock(g->Lock);
        if (pItem->bQueued) {
            HostBug("WORK_ITEM_FREED_WHILE_QUEUED", "IoFreeWorkItem of an item that is still queued");
        }
    }
    HostRelease(pItem, WorkItemKind);
}
