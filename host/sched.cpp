// sched.cpp - threads, and in simulated mode the baton that lets exactly one of them run.
//
//   ready queue   threads whose wait has ended, in the order in which it ended
//   settling      threads that let all others run first (HostSettle)
//   clock         moves when both are empty: to the next timer or timed wait
//
// A thread that waits hands the baton on itself; when nobody is ready it plays the idle loop: it moves the
// clock and runs the DPCs of the timers that expire, until somebody, maybe itself, is ready. With nothing
// due either, or only timers that ended no wait for a whole day, the run stops and says who waits for what.
#include "core.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <unistd.h>

static thread_local PKTHREAD tSelf;
static thread_local ULONGLONG tGeneration;

static void InitThread(PKTHREAD pThread, const char* pName)
{
    new (pThread) HostThreadObject();
    HostInitHeader(&pThread->Header, 6, sizeof(DISPATCHER_HEADER), 0);
    pThread->Name = pName;
}

static void DestroyThread(void* pBody)
{
    static_cast<HostThreadObject*>(pBody)->~HostThreadObject();
}

static PKTHREAD NewThread(const char* pName)
{
    PKTHREAD pThread =
        static_cast<PKTHREAD>(HostNewObject(HostKindThread, sizeof(HostThreadObject), DestroyThread));
    InitThread(pThread, pName);
    return pThread;
}

// A thread that the host did not start: the one that started the host, or, when threads run freely, any.
static PKTHREAD Adopt()
{
    if (g == nullptr) {
        HostBug("HOST_NOT_STARTED", "a kernel service was called without HostStart");
    }
    if (!g->bThreaded && g->pMain != nullptr) {
        HostBug("FOREIGN_THREAD", "simulated mode knows only threads that HostStartThread started");
    }
    PKTHREAD pThread = NewThread(g->pMain == nullptr ? "main" : "adopted");
    tSelf = pThread;
    tGeneration = g->ullGeneration;
    HostLock lock(g->Lock);
    g->Threads.push_back(pThread);
    g->Adopted.push_back(pThread);
    return pThread;
}

PKTHREAD HostSelf()
{
    if (__builtin_expect(tSelf != nullptr && g != nullptr && tGeneration == g->ullGeneration, 1)) {
        return tSelf;
    }
    return Adopt();
}

// Ends the wait of a thread; it runs when its turn comes.
// Lock: held.
void HostWake(PKTHREAD pThread)
{
    pThread->bWaiting = false;
    if (g->bThreaded) {
        pThread->Wake.notify_all();
    } else {
        g->Ready.push_back(pThread);
    }
}

[[noreturn]] static void StopForDeadlock()
{
    std::string who;
    for (PKTHREAD pThread : g->Threads) {
        if (pThread->bWaiting && pThread->ulBlocks != 0) {
            who += "\n  thread '" + pThread->Name + "' waits for " + HostDescribeWait(pThread);
        }
    }
    HostBug("WAIT_NEVER_ENDS", "nothing that can still happen ends a wait%s", who.c_str());
}

enum : LONGLONG { IDLE_DAY = 864000000000 };

static bool IsTimedWaitDue()
{
    for (const auto& due : g->Due) {
        if (due.second.pThread != nullptr) {
            return true;
        }
    }
    return false;
}

// The next thread that may run; runs the idle loop on the calling thread until there is one.
static PKTHREAD PickNext(HostLock& lock, PKTHREAD pSelf)
{
    const LONGLONG llBegin = g->llNow;
    for (;;) {
        std::deque<PKTHREAD>& queue = g->Ready.empty() ? g->Settling : g->Ready;
        if (!queue.empty()) {
            PKTHREAD pNext = queue.front();
            queue.pop_front();
            return pNext;
        }
        if (g->Due.empty() || (g->llNow - llBegin > IDLE_DAY && !IsTimedWaitDue())) {
            StopForDeadlock();
        }
        if (g->Due.begin()->first.first > g->llNow) {
            g->llNow = g->Due.begin()->first.first;
        }
        HostExpire(g->llNow);
        while (!IsListEmpty(&g->DpcQueue)) {
            HostRunOneDpc(lock, pSelf);
        }
    }
}

static void PassBaton(HostLock& lock, PKTHREAD pSelf, PKTHREAD pNext)
{
    if (pNext == pSelf) {
        return;
    }
    pSelf->bMayRun = false;
    pNext->bMayRun = true;
    pNext->Wake.notify_all();
    while (!pSelf->bMayRun) {
        pSelf->Wake.wait(lock);
    }
}

// Waits until HostWake was called for this thread, or, when threads run freely, its time is over.
// Lock: held, released while waiting.
void HostBlock(HostLock& lock, PKTHREAD pSelf)
{
    if (!g->bThreaded) {
        PassBaton(lock, pSelf, PickNext(lock, pSelf));
        return;
    }
    while (pSelf->bWaiting) {
        if (!pSelf->bTimed) {
            pSelf->Wake.wait(lock);
            continue;
        }
        LONGLONG llLeft = pSelf->Due.first - HostNow();
        if (llLeft <= 0) {
            HostEndWait(pSelf, STATUS_TIMEOUT);
            return;
        }
        auto until = std::chrono::system_clock::now() + std::chrono::microseconds(llLeft / 10 + 1);
        pSelf->Wake.wait_until(lock, until);
    }
}

static void Quiet(HostLock& lock)
{
    while (!IsListEmpty(&g->DpcQueue) || g->bDpcRunning || !g->WorkQueue.empty() || g->uBusyWorkers != 0) {
        lock.unlock();
        usleep(200);
        lock.lock();
    }
}

void HostSettle()
{
    HostRequireIrql("HostSettle", PASSIVE_LEVEL);
    PKTHREAD pSelf = HostSelf();
    HostLock lock(g->Lock);
    if (g->bThreaded) {
        Quiet(lock);
        return;
    }
    while (!g->Ready.empty()) {
        g->Settling.push_back(pSelf);
        PassBaton(lock, pSelf, PickNext(lock, pSelf));
    }
}

static void EndThread(HostLock& lock, PKTHREAD pSelf)
{
    pSelf->pOs->bEnded = true;
    pSelf->Header.SignalState = 1;
    HostSignal(&pSelf->Header);
    for (size_t i = 0; i < g->Threads.size(); i++) {
        if (g->Threads[i] == pSelf) {
            g->Threads.erase(g->Threads.begin() + static_cast<long>(i));
            break;
        }
    }
    if (!g->bThreaded) {
        PKTHREAD pNext = PickNext(lock, pSelf);
        pNext->bMayRun = true;
        pNext->Wake.notify_all();
    }
}

static void* RunThread(void* pContext)
{
    PKTHREAD pSelf = static_cast<PKTHREAD>(pContext);
    tSelf = pSelf;
    tGeneration = g->ullGeneration;
    {
        HostLock lock(g->Lock);
        while (!g->bThreaded && !pSelf->bMayRun) {
            pSelf->Wake.wait(lock);
        }
    }
    {
        HostDriverScope scope(pSelf->pDriver, pSelf->Name.c_str());
        try {
            pSelf->Body();
        } catch (const NTSTATUS&) {
            // PsTerminateSystemThread unwinds to here.
        }
    }
    pSelf->Body = nullptr;
    {
        HostLock lock(g->Lock);
        EndThread(lock, pSelf);
    }
    HostDereference(pSelf);
    return nullptr;
}

// Starts a thread of the host. The caller gets a reference, the running thread holds another.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
PKTHREAD HostSpawn(const char* pName, std::function<void()> body, size_t stackBytes, PDRIVER_OBJECT pDriver)
{
    PKTHREAD pThread = NewThread(pName);
    pThread->Body = std::move(body);
    pThread->pDriver = pDriver;
    HostReference(pThread);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stackBytes != 0 && pthread_attr_setstacksize(&attributes, stackBytes) != 0) {
        HostBug("BAD_STACK_SIZE", "a stack of %zu bytes is not possible", stackBytes);
    }
    HostLock lock(g->Lock);
    g->OsThreads.push_back(std::make_unique<HostOsThread>());
    pThread->pOs = g->OsThreads.back().get();
    int iError = pthread_create(&pThread->pOs->Os, &attributes, RunThread, pThread);
    if (iError != 0) {
        HostBug("NO_THREAD", "%s", strerror(iError));
    }
    pthread_attr_destroy(&attributes);
    g->Threads.push_back(pThread);
    if (!g->bThreaded) {
        g->Ready.push_back(pThread);
    }
    return pThread;
}

void HostStartSystemThreads()
{
    if (g->bThreaded) {
        g->SystemThreads.push_back(HostSpawn("dpc", HostDpcThread, 0));
        g->SystemThreads.push_back(HostSpawn("timer", HostTimerThread, 0));
    }
}

// Ends workers and system threads and joins every thread that has ended. One that still runs is let go.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
bool HostEndSystemThreads()
{
    if (!g->bThreaded) {
        HostSettle();
    }
    {
        HostLock lock(g->Lock);
        g->bStopping = true;
        g->DpcWake.notify_all();
        g->TimerWake.notify_all();
    }
    HostEndWorkers();
    for (PKTHREAD pThread : g->SystemThreads) {
        KeWaitForSingleObject(pThread, Executive, KernelMode, FALSE, nullptr);
        HostDereference(pThread);
    }
    bool bAllEnded = true;
    for (auto& os : g->OsThreads) {
        bool bEnded;
        {
            HostLock lock(g->Lock);
            bEnded = os->bEnded;
        }
        bEnded ? pthread_join(os->Os, nullptr) : pthread_detach(os->Os);
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

PKTHREAD KeGetCurrentThread()
{
    return HostSelf();
}

KPROCESSOR_MODE ExGetPreviousMode()
{
    return KernelMode;
}

void KeEnterCriticalRegion()
{
    HostRequireIrql(__func__, APC_LEVEL);
}

void KeLeaveCriticalRegion()
{
    HostRequireIrql(__func__, APC_LEVEL);
}

NTSTATUS PsCreateSystemThread(PHANDLE pHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PCLIENT_ID pClient,
                              PKSTART_ROUTINE pRoutine, PVOID pContext)
{
    HostRequireIrql(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("thread")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PKTHREAD pThread = HostSpawn(
        "system thread", [=] { pRoutine(pContext); }, 0, HostSelf()->pDriver);
    *pHandle = HostNewHandle(pThread, false);
    if (pClient != nullptr) {
        *pClient = {nullptr, pThread};
    }
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS status)
{
    HostRequireIrql(__func__, APC_LEVEL);
    throw status;
}
