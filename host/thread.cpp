// thread.cpp - threads: their start and end, who the caller is, and the threads of the host itself.
//
// Simulated mode: all threads are fibers of the thread that started the host (fiber.h), and sched.cpp
// says which one runs. Threaded mode: each is a thread of the system.
#include "core.h"

#include <algorithm>
#include <cstring>
#include <iterator>

__thread PKTHREAD HostKnownSelf;
__thread ULONGLONG HostKnownIn;
ULONGLONG HostRun;

static void InitThread(PKTHREAD pThread, const char* pName)
{
    new (pThread) HostThreadObject();
    HostInitHeader(&pThread->Header, 6, sizeof(DISPATCHER_HEADER), 0);
    pThread->Name = pName;
}

static void DestroyThread(void* pBody)
{
    HostThreadObject* pThread = static_cast<HostThreadObject*>(pBody);
    if (pThread->pFiber != nullptr) {
        HostDeleteFiber(pThread->pFiber);
    }
    pThread->~HostThreadObject();
}

static PKTHREAD NewThread(const char* pName)
{
    PKTHREAD pThread =
        static_cast<PKTHREAD>(HostNewObject(HostKindThread, sizeof(HostThreadObject), DestroyThread));
    InitThread(pThread, pName);
    pThread->uNumber = __atomic_add_fetch(&g->Threads.uStarted, 1, __ATOMIC_RELAXED);
    return pThread;
}

void HostSetSelf(PKTHREAD pThread)
{
    HostKnownSelf = pThread;
    HostKnownIn = HostRun;
}

// A thread that the host did not start: the one that started the host, or, when threads run freely, any.
PKTHREAD HostAdopt()
{
    if (g == nullptr) {
        HostBug("HOST_NOT_STARTED", "a kernel service was called without HostStart");
    }
    if (!g->bThreaded && g->Threads.pMain != nullptr) {
        HostBug("FOREIGN_THREAD", "simulated mode knows only threads that HostStartThread started");
    }
    PKTHREAD pThread = NewThread(g->Threads.pMain == nullptr ? "main" : "adopted");
    if (!g->bThreaded) {
        pThread->pFiber = HostCallerFiber();
    }
    HostSetSelf(pThread);
    HostLock lock(g->Lock);
    g->Threads.All.push_back(pThread);
    g->Threads.Adopted.push_back(pThread);
    return pThread;
}

static void EndThread(PKTHREAD pSelf)
{
    pSelf->pOs->bEnded = true;
    pSelf->Header.SignalState = 1;
    HostSignal(&pSelf->Header);
    for (size_t i = 0; i < g->Threads.All.size(); i++) {
        if (g->Threads.All[i] == pSelf) {
            g->Threads.All.erase(g->Threads.All.begin() + static_cast<long>(i));
            break;
        }
    }
}

static void RunBody(PKTHREAD pSelf)
{
    {
        HostDriverScope scope(pSelf->pDriver, pSelf->Name.c_str());
        try {
            pSelf->Body();
        } catch (const NTSTATUS&) {
            // PsTerminateSystemThread unwinds to here.
        }
        if (!pSelf->Mutexes.empty()) {
            HostBug("THREAD_TERMINATE_HELD_MUTEX", "thread '%s' ends and owns a mutex", pSelf->Name.c_str());
        }
    }
    pSelf->Body = nullptr;
}

__attribute__((noreturn)) static void RunFiber(void* pContext)
{
    PKTHREAD pSelf = static_cast<PKTHREAD>(pContext);
    {
        HostLock lock(g->Lock);
        HostArrived(lock);
    }
    RunBody(pSelf);
    HostLock lock(g->Lock);
    EndThread(pSelf);
    HostLeave(lock, pSelf);
}

static void* RunThread(void* pContext)
{
    PKTHREAD pSelf = static_cast<PKTHREAD>(pContext);
    HostSetSelf(pSelf);
    RunBody(pSelf);
    {
        HostLock lock(g->Lock);
        EndThread(pSelf);
    }
    HostDereference(pSelf);
    return nullptr;
}

static void StartOsThread(PKTHREAD pThread, size_t stackBytes)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stackBytes != 0 && pthread_attr_setstacksize(&attributes, stackBytes) != 0) {
        HostBug("BAD_STACK_SIZE", "a stack of %zu bytes is not possible", stackBytes);
    }
    int iError = pthread_create(&pThread->pOs->Os, &attributes, RunThread, pThread);
    if (iError != 0) {
        HostBug("NO_THREAD", "%s", strerror(iError));
    }
    pthread_attr_destroy(&attributes);
}

// Joins the threads that have ended since: a process that lives long starts many.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
static void JoinEnded()
{
    std::vector<std::unique_ptr<HostOsThread>> ended;
    {
        HostLock lock(g->Lock);
        auto& all = g->Threads.Os;
        auto first = std::partition(all.begin(), all.end(), [](const auto& os) { return !os->bEnded; });
        std::move(first, all.end(), std::back_inserter(ended));
        all.erase(first, all.end());
    }
    for (const auto& os : ended) {
        pthread_join(os->Os, nullptr);
    }
}

// Starts a thread of the host. The caller gets a reference, the running thread holds another.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
PKTHREAD HostSpawn(const char* pName, std::function<void()> body, size_t stackBytes, PDRIVER_OBJECT pDriver)
{
    PKTHREAD pThread = NewThread(pName);
    pThread->Body = std::move(body);
    pThread->pDriver = pDriver;
    HostReference(pThread);
    if (g->bThreaded) {
        JoinEnded();
    }
    HostLock lock(g->Lock);
    g->Threads.Os.push_back(std::make_unique<HostOsThread>());
    pThread->pOs = g->Threads.Os.back().get();
    g->Threads.All.push_back(pThread);
    if (g->bThreaded) {
        StartOsThread(pThread, stackBytes);
    } else {
        pThread->pFiber = HostNewFiber(stackBytes, RunFiber, pThread);
        g->Sched.Ready.push_back(pThread);
    }
    return pThread;
}

void HostStartSystemThreads()
{
    if (g->bThreaded) {
        g->Threads.System.push_back(HostSpawn("dpc", HostDpcThread, 0));
        g->Threads.System.push_back(HostSpawn("timer", HostTimerThread, 0));
    } else if (g->Sched.bSeeded) {
        g->Threads.System.push_back(HostSpawn("dpc", HostDpcThread, 0));
        g->Threads.System.push_back(HostSpawn("dpc", HostDpcThread, 0));
    }
}

// Ends workers and system threads and joins every thread that has ended. One that still runs freely is let go;
// in simulated mode it never runs again.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
bool HostEndSystemThreads()
{
    if (!g->bThreaded) {
        HostSettle();
    }
    {
        HostLock lock(g->Lock);
        g->bStopping = true;
        HostWakeDpcThreads();
        g->Clock.Wake.notify_all();
    }
    HostEndWorkers();
    for (PKTHREAD pThread : g->Threads.System) {
        KeWaitForSingleObject(pThread, Executive, KernelMode, FALSE, nullptr);
        HostDereference(pThread);
    }
    bool bAllEnded = true;
    for (size_t i = 0; g->bThreaded && i < g->Threads.Os.size(); i++) {
        bool bEnded;
        {
            HostLock lock(g->Lock);
            bEnded = g->Threads.Os[i]->bEnded;
        }
        bEnded ? pthread_join(g->Threads.Os[i]->Os, nullptr) : pthread_detach(g->Threads.Os[i]->Os);
        bAllEnded = bAllEnded && bEnded;
    }
    return bAllEnded;
}

HostThread HostStartThread(std::function<void()> body, size_t stackBytes)
{
    return static_cast<HostThread>(HostSpawn("application", std::move(body), stackBytes));
}

void HostJoinThread(HostThread t)
{
    KeWaitForSingleObject(t, Executive, KernelMode, FALSE, nullptr);
    HostDereference(t);
}

void HostSetCaller32(bool b32)
{
    HostSelf()->b32 = b32;
}

void KeEnterCriticalRegion()
{
    HostEnter(__func__, APC_LEVEL);
    HostSelf()->uCriticalRegions++;
}

void KeLeaveCriticalRegion()
{
    HostEnter(__func__, APC_LEVEL);
    PKTHREAD pSelf = HostSelf();
    if (pSelf->uCriticalRegions == 0) {
        HostBug("APC_INDEX_MISMATCH", "KeLeaveCriticalRegion by a thread that is in none");
    }
    pSelf->uCriticalRegions--;
    HostStopHere();
}

// A suspension reaches a thread as an ordinary kernel APC: not in a critical region, which a mutex is as well.
// Lock: held.
bool HostStops(PKTHREAD pThread)
{
    return pThread->bSuspended && pThread->uCriticalRegions == 0 && pThread->Mutexes.empty() &&
           pThread->Irql < APC_LEVEL;
}

void HostStopHere()
{
    PKTHREAD pSelf = HostSelf();
    if (!pSelf->bSuspended) {
        return;
    }
    HostLock lock(g->Lock);
    if (HostStops(pSelf)) {
        pSelf->bStopped = true;
        HostBlock(lock, pSelf);
    }
}

void HostSuspendThread(HostThread t)
{
    HostLock lock(g->Lock);
    if (g->bThreaded) {
        HostBug("NOT_SIMULATED", "HostSuspendThread while threads run freely");
    }
    t->bSuspended = true;
}

// What was signalled meanwhile ends its wait now.
void HostResumeThread(HostThread t)
{
    HostLock lock(g->Lock);
    t->bSuspended = false;
    if (t->bStopped) {
        t->bStopped = false;
        g->Sched.Ready.push_back(t);
    } else if (t->bWaiting) {
        HostRetryWait(t);
    }
}

NTSTATUS PsCreateSystemThread(PHANDLE pHandle, ULONG ulDesired, POBJECT_ATTRIBUTES pAttributes, HANDLE,
                              PCLIENT_ID pClient, PKSTART_ROUTINE pRoutine, PVOID pContext)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("thread")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PKTHREAD pThread = HostSpawn(
        "system thread", [=] { pRoutine(pContext); }, 0, HostSelf()->pDriver);
    *pHandle = HostNewHandle(pThread, pAttributes == nullptr ? 0 : pAttributes->Attributes, ulDesired);
    if (pClient != nullptr) {
        *pClient = {nullptr, pThread};
    }
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS status)
{
    HostEnter(__func__, APC_LEVEL);
    throw status;
}
