// sched.cpp - in simulated mode: which thread runs.
//
//   ready queue   threads whose wait has ended, in the order in which it ended
//   settling      threads that let all others run first (HostSettle)
//   clock         moves when both are empty: to the next timer or timed wait
//
// A thread that waits hands on to the next; when nobody is ready it plays the idle loop: it moves the
// clock and runs the DPCs of the timers that expire, until somebody, maybe itself, is ready. With nothing
// due either, or only timers that ended no wait for a whole day, the run stops and says who waits for what.
//
// With a seed, chance takes the place of the queue's order. At every kernel call and shared access others
// may run first, at any level: that is what several processors look like. A thread at DISPATCH_LEVEL keeps
// its processor; when all are taken, only such threads go on. DPCs run on two threads of
// their own. Now and then the clock moves to the next timer although somebody could run, and now and then a
// thread is slow: it does not run for a while as long as others can.
#include "irp.h"

#include <chrono>
#include <unistd.h>

// Ends the wait of a thread; it runs when its turn comes.
// Lock: held.
void HostWake(PKTHREAD pThread)
{
    pThread->bWaiting = false;
    if (g->bThreaded) {
        pThread->Wake.notify_all();
    } else if (HostStops(pThread)) {
        pThread->bStopped = true;
    } else {
        g->Sched.Ready.push_back(pThread);
    }
}

[[noreturn]] static void StopForDeadlock()
{
    std::string who;
    for (PKTHREAD pThread : g->Threads.All) {
        if (pThread->bWaiting && pThread->ulBlocks != 0) {
            who += "\n  thread '" + pThread->Name + "' waits for " + HostDescribeWait(pThread);
            who += pThread->pRequest == nullptr ? "" : HostHistoryOf(HostIrpOf(pThread->pRequest));
        }
    }
    HostBug("WAIT_NEVER_ENDS", "nothing that can still happen ends a wait%s", who.c_str());
}

enum : LONGLONG { IDLE_DAY = 864000000000, NEAR_BY = 200000 }; // a day, 20 ms
enum : unsigned { PROCESSORS = 3, CLOCK_ONE_IN = 16, SLOW_ONE_IN = 16, SLOW_LOG2 = 10 };

bool HostSeeded;

// A small generator of our own: the same numbers everywhere.
static unsigned Chance(unsigned uOneIn)
{
    g->Sched.ullRandom += 0x9e3779b97f4a7c15;
    ULONGLONG ull = g->Sched.ullRandom;
    ull = (ull ^ (ull >> 30)) * 0xbf58476d1ce4e5b9;
    ull = (ull ^ (ull >> 27)) * 0x94d049bb133111eb;
    return static_cast<unsigned>((ull ^ (ull >> 31)) % uOneIn);
}

// Before the first thread starts.
void HostSeedSchedule(ULONGLONG ullSeed)
{
    static const unsigned ONE_IN[] = {1, 2, 3, 4, 8, 16, 32, 64};
    HostSeeded = g->Sched.bSeeded = ullSeed != 0;
    g->Sched.ullRandom = ullSeed * 0x2545f4914f6cdd1d;
    g->Sched.uOneIn = ONE_IN[Chance(sizeof(ONE_IN) / sizeof(ONE_IN[0]))];
}

unsigned long long HostScheduleDigest()
{
    return g->Sched.ullDigest;
}

static bool IsTimedWaitDue()
{
    for (const auto& due : g->Clock.Due) {
        if (due.second.pThread != nullptr) {
            return true;
        }
    }
    return false;
}

// A thread from the ready queue that can go on: its lock is free, and there is a processor for it. A slow one
// only when there is no other.
// Lock: held.
static PKTHREAD ChooseReady()
{
    unsigned uHigh = 0;
    for (PKTHREAD pThread : g->Sched.Ready) {
        uHigh += pThread->Irql >= DISPATCH_LEVEL;
    }
    size_t able[64], slow[64];
    unsigned uAble = 0, uSlow = 0;
    g->Sched.ullSwitches++;
    for (size_t i = 0; i < g->Sched.Ready.size() && i < 64; i++) {
        PKTHREAD pThread = g->Sched.Ready[i];
        bool bLockFree = pThread->pSpinsFor == nullptr || *pThread->pSpinsFor == 0;
        if (!bLockFree || (pThread->Irql < DISPATCH_LEVEL && uHigh >= PROCESSORS)) {
            continue;
        }
        if (pThread->ullSlowUntil > g->Sched.ullSwitches) {
            slow[uSlow++] = i;
        } else {
            able[uAble++] = i;
        }
    }
    if (uAble + uSlow == 0) {
        HostBug("SPIN_LOCK_DEADLOCK", "every thread that could run spins for a lock");
    }
    size_t chosen = uAble != 0 ? able[Chance(uAble)] : slow[Chance(uSlow)];
    PKTHREAD pNext = g->Sched.Ready[chosen];
    g->Sched.Ready.erase(g->Sched.Ready.begin() + static_cast<long>(chosen));
    return pNext;
}

static PKTHREAD TakeNext()
{
    std::deque<PKTHREAD>& queue = g->Sched.Ready.empty() ? g->Sched.Settling : g->Sched.Ready;
    PKTHREAD pNext;
    if (g->Sched.bSeeded && !g->Sched.Ready.empty()) {
        pNext = ChooseReady();
    } else {
        pNext = queue.front();
        queue.pop_front();
    }
    g->Sched.ullDigest = (g->Sched.ullDigest ^ pNext->uNumber) * 0x100000001b3;
    return pNext;
}

// The next thread that may run; runs the idle loop on the calling thread until there is one.
static PKTHREAD PickNext(HostLock& lock, PKTHREAD pSelf)
{
    const LONGLONG llBegin = g->Clock.llNow;
    for (;;) {
        if (!g->Sched.Ready.empty() || !g->Sched.Settling.empty()) {
            return TakeNext();
        }
        if (g->Clock.Due.empty() || (g->Clock.llNow - llBegin > IDLE_DAY && !IsTimedWaitDue())) {
            StopForDeadlock();
        }
        if (g->Clock.Due.begin()->first.first > g->Clock.llNow) {
            g->Clock.llNow = g->Clock.Due.begin()->first.first;
        }
        HostExpire(g->Clock.llNow);
        while (!g->Sched.bSeeded && !IsListEmpty(&g->Dpcs.Queue)) {
            HostRunOneDpc(lock, pSelf);
        }
    }
}

// Lets go of a thread that has ended: it could not while its own stack was in use.
void HostArrived(HostLock& lock)
{
    PKTHREAD pEnded = g->Sched.pEnded;
    if (pEnded != nullptr) {
        g->Sched.pEnded = nullptr;
        lock.unlock();
        HostDeleteFiber(pEnded->pFiber);
        pEnded->pFiber = nullptr;
        HostDereference(pEnded);
        lock.lock();
    }
}

static void Switch(HostLock& lock, PKTHREAD pSelf, PKTHREAD pNext, bool bEnds)
{
    bool bHigh = pNext->Irql >= DISPATCH_LEVEL;
    if (bHigh != (pSelf->Irql >= DISPATCH_LEVEL)) {
        HostGuardPaged(bHigh);
    }
    HostSetSelf(pNext);
    lock.unlock();
    HostSwitchFiber(pSelf->pFiber, pNext->pFiber, bEnds);
    lock.lock();
    HostArrived(lock);
}

void HostLeave(HostLock& lock, PKTHREAD pSelf)
{
    PKTHREAD pNext = PickNext(lock, pSelf);
    g->Sched.pEnded = pSelf;
    Switch(lock, pSelf, pNext, true);
    __builtin_unreachable();
}

void HostYield(HostLock& lock, PKTHREAD pSelf)
{
    g->Sched.Ready.push_back(pSelf);
    PKTHREAD pNext = PickNext(lock, pSelf);
    if (pNext != pSelf) {
        Switch(lock, pSelf, pNext, false);
    }
}

// With a seed: the place where others may run first.
// IRQL: any. Lock: takes Lock.
void HostPreempt()
{
    PKTHREAD pSelf = HostSelf();
    if (Chance(g->Sched.uOneIn) != 0) {
        return;
    }
    HostLock lock(g->Lock);
    if (Chance(CLOCK_ONE_IN) == 0 && !g->Clock.Due.empty() &&
        g->Clock.Due.begin()->first.first <= g->Clock.llNow + NEAR_BY) {
        LONGLONG llDue = g->Clock.Due.begin()->first.first;
        g->Clock.llNow = llDue > g->Clock.llNow ? llDue : g->Clock.llNow;
        HostExpire(g->Clock.llNow);
    }
    if (!g->Sched.Ready.empty()) {
        if (Chance(SLOW_ONE_IN) == 0) {
            pSelf->ullSlowUntil = g->Sched.ullSwitches + (1u << Chance(SLOW_LOG2));
        }
        HostYield(lock, pSelf);
    }
}

// Waits until HostWake was called for this thread, or, when threads run freely, its time is over.
// Lock: held, released while waiting.
void HostBlock(HostLock& lock, PKTHREAD pSelf)
{
    if (!g->bThreaded) {
        PKTHREAD pNext = PickNext(lock, pSelf);
        if (pNext != pSelf) {
            Switch(lock, pSelf, pNext, false);
        }
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
        pSelf->Wake.wait_for(lock, std::chrono::microseconds(llLeft / 10 + 1));
    }
}

static void Quiet(HostLock& lock)
{
    while (!IsListEmpty(&g->Dpcs.Queue) || !g->Dpcs.Running.empty() || !g->Work.Queue.empty() ||
           g->Work.uBusy != 0) {
        lock.unlock();
        usleep(200);
        lock.lock();
    }
}

void HostSettle()
{
    HostEnter("HostSettle", PASSIVE_LEVEL);
    PKTHREAD pSelf = HostSelf();
    HostLock lock(g->Lock);
    if (g->bThreaded) {
        Quiet(lock);
        return;
    }
    while (!g->Sched.Ready.empty()) {
        g->Sched.Settling.push_back(pSelf);
        PKTHREAD pNext = PickNext(lock, pSelf);
        if (pNext != pSelf) {
            Switch(lock, pSelf, pNext, false);
        }
    }
}
