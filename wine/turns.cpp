// turns.cpp - counts who runs. See turns.h.
//
// A waiting thread looks at its object every millisecond. Nothing runs when every counted thread waits, no
// deferred call is queued, and then each waiting thread has looked once more in vain: without that look a
// thread whose object was just signalled, and which has not noticed, would be taken for one that waits.
#include "turns.h"

#include <list>
#include <mutex>

#include "clock.h"
#include "dpc.h"
#include "faults.h"
#include "usermode.h"

namespace
{
struct Waiter {
    Turn Kind;
    ULONG ulLooked; // the round in which it looked last
};

std::mutex g_Lock; // guards what follows
std::list<Waiter> g_Waiters;
ULONG g_ulRound;
ULONG g_ulChanges; // waits, requests and work items that began or ended
ULONG g_ulAsking, g_ulWork;

thread_local Turn t_Turn = Turn::None;

ULONG CountWaiters(Turn turn)
{
    ULONG ulCount = 0;
    for (const Waiter& waiter : g_Waiters) {
        ulCount += waiter.Kind == turn;
    }
    return ulCount;
}

bool AllWait(bool bAll)
{
    return CountWaiters(Turn::Work) == g_ulWork &&
           (!bAll || (g_ulAsking != 0 && CountWaiters(Turn::Request) >= g_ulAsking));
}

bool AllLooked()
{
    for (const Waiter& waiter : g_Waiters) {
        if (waiter.ulLooked != g_ulRound) {
            return false;
        }
    }
    return true;
}

// A routine that waits for at most the time it is given, called until what it waits for has come.
template <typename Wait> NTSTATUS WaitByLooking(Wait wait)
{
    std::list<Waiter>::iterator self;
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        g_ulChanges++;
        self = g_Waiters.insert(g_Waiters.end(), {t_Turn, 0});
    }
    for (;;) {
        ULONG ulRound;
        {
            std::lock_guard<std::mutex> guard(g_Lock);
            ulRound = g_ulRound;
        }
        LARGE_INTEGER step;
        step.QuadPart = -10000;
        NTSTATUS status = wait(&step);
        std::lock_guard<std::mutex> guard(g_Lock);
        self->ulLooked = ulRound;
        if (status != STATUS_TIMEOUT) {
            g_ulChanges++;
            g_Waiters.erase(self);
            return status;
        }
    }
}

// Only waits without a limit are the clock's affair: the driver makes no others but for a moment.
bool IsCounted(PLARGE_INTEGER pTimeout)
{
    if (ThreadLevel() >= DISPATCH_LEVEL && (!pTimeout || pTimeout->QuadPart != 0)) {
        TellFault("a wait at level %u", ThreadLevel());
    }
    return t_Turn != Turn::None && !pTimeout;
}

struct Work {
    PIO_WORKITEM_ROUTINE pRoutine;
    PVOID pContext;
};

VOID NTAPI RunWork(PDEVICE_OBJECT pDevice, PVOID pContext)
{
    auto pWork = static_cast<Work*>(pContext);
    TakeTurn(Turn::Work);
    pWork->pRoutine(pDevice, pWork->pContext);
    TakeTurn(Turn::None);
    delete pWork;
    std::lock_guard<std::mutex> guard(g_Lock);
    g_ulWork--;
    g_ulChanges++;
}

void MoveClockWhenAllWait()
{
    for (;;) {
        SleepMs(1);
        if (NothingRuns(true)) {
            ExpireNext(~0ull);
        }
    }
}
} // namespace

void TakeTurn(Turn turn)
{
    t_Turn = turn;
}

Asking::Asking()
{
    std::lock_guard<std::mutex> guard(g_Lock);
    g_ulAsking++;
    g_ulChanges++;
}

Asking::~Asking()
{
    std::lock_guard<std::mutex> guard(g_Lock);
    g_ulAsking--;
    g_ulChanges++;
}

bool NothingRuns(bool bAll)
{
    OwnKeFlushQueuedDpcs();
    ULONG ulChanges;
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        if (!AllWait(bAll)) {
            return false;
        }
        g_ulRound++;
        ulChanges = g_ulChanges;
    }
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(g_Lock);
            if (ulChanges != g_ulChanges) {
                return false;
            }
            if (AllLooked()) {
                return true;
            }
        }
        SleepMs(1);
    }
}

void StartTurns()
{
    StartThread(MoveClockWhenAllWait);
}

VOID NTAPI OwnIoQueueWorkItem(PIO_WORKITEM pItem, PIO_WORKITEM_ROUTINE pRoutine, WORK_QUEUE_TYPE queue,
                              PVOID pContext)
{
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        g_ulWork++;
        g_ulChanges++;
    }
    IoQueueWorkItem(pItem, RunWork, queue, new Work{pRoutine, pContext});
}

NTSTATUS NTAPI OwnKeWaitForSingleObject(PVOID pObject, KWAIT_REASON reason, KPROCESSOR_MODE mode,
                                        BOOLEAN bAlertable, PLARGE_INTEGER pTimeout)
{
    static auto pReal =
        reinterpret_cast<decltype(&KeWaitForSingleObject)>(KernelExport("KeWaitForSingleObject"));
    auto wait = [&](PLARGE_INTEGER pLimit) { return pReal(pObject, reason, mode, bAlertable, pLimit); };
    return IsCounted(pTimeout) ? WaitByLooking(wait) : wait(pTimeout);
}

NTSTATUS NTAPI OwnKeWaitForMultipleObjects(ULONG ulCount, PVOID* ppObjects, WAIT_TYPE type,
                                           KWAIT_REASON reason, KPROCESSOR_MODE mode, BOOLEAN bAlertable,
                                           PLARGE_INTEGER pTimeout, PKWAIT_BLOCK pBlocks)
{
    static auto pReal =
        reinterpret_cast<decltype(&KeWaitForMultipleObjects)>(KernelExport("KeWaitForMultipleObjects"));
    auto wait = [&](PLARGE_INTEGER pLimit) {
        return pReal(ulCount, ppObjects, type, reason, mode, bAlertable, pLimit, pBlocks);
    };
    return IsCounted(pTimeout) ? WaitByLooking(wait) : wait(pTimeout);
}
