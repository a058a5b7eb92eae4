// timer.cpp - the clock, timers, and what becomes due.
//
// Times are in 100 ns since the host's start. What is due lies in one ordered list: by time, then by the
// order in which it was set. Simulated: the clock stands until somebody moves it. Threaded: a timer thread
// waits for the first entry.
#include "core.h"

#include <algorithm>
#include <chrono>

// 2014-03-07 09:41:05 UTC in 100 ns since 1601.
static const LONGLONG SIMULATED_BASE = (1394185265LL + 11644473600LL) * 10000000LL;

static LONGLONG Monotonic()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
               .count() /
           100;
}

LONGLONG HostNow()
{
    return g->bThreaded ? Monotonic() - g->Clock.llStart : g->Clock.llNow;
}

// The system time at the host's start.
LONGLONG HostSystemBase()
{
    static const LONGLONG llRealBase = std::chrono::duration_cast<std::chrono::microseconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                               .count() *
                                           10 +
                                       11644473600LL * 10000000LL - Monotonic();
    return g->bThreaded ? llRealBase + g->Clock.llStart : SIMULATED_BASE;
}

static std::pair<LONGLONG, ULONGLONG> KeyOf(PKTIMER pTimer)
{
    return {static_cast<LONGLONG>(pTimer->DueTime.QuadPart),
            reinterpret_cast<ULONGLONG>(pTimer->TimerListEntry.Flink)};
}

static void Arm(PKTIMER pTimer, LONGLONG llDue)
{
    pTimer->DueTime.QuadPart = static_cast<ULONGLONG>(llDue);
    pTimer->TimerListEntry.Flink = reinterpret_cast<PLIST_ENTRY>(++g->Clock.ullSequence);
    pTimer->Header.Inserted = 1;
    g->Clock.Due[KeyOf(pTimer)] = {pTimer, nullptr};
    if (g->bThreaded) {
        g->Clock.Wake.notify_all();
    }
}

static bool Disarm(PKTIMER pTimer)
{
    if (!pTimer->Header.Inserted) {
        return false;
    }
    g->Clock.Due.erase(KeyOf(pTimer));
    pTimer->Header.Inserted = 0;
    return true;
}

static void Fire(PKTIMER pTimer)
{
    if (pTimer->Period != 0) {
        Arm(pTimer, static_cast<LONGLONG>(pTimer->DueTime.QuadPart) + pTimer->Period * 10000LL);
    }
    pTimer->Header.SignalState = 1;
    if (pTimer->Dpc != nullptr) {
        HostQueueDpc(pTimer->Dpc, nullptr, nullptr);
    }
    HostSignal(&pTimer->Header);
}

// Fires a timer or ends a timed wait. Lock: held.
static void Expire(HostClock::DueThing thing)
{
    if (thing.pThread != nullptr) {
        HostEndWait(thing.pThread, STATUS_TIMEOUT);
    } else {
        Disarm(thing.pTimer);
        Fire(thing.pTimer);
    }
}

// Expires all that is due, in order. Threads that run freely end their timed waits themselves. Lock: held.
void HostExpire(LONGLONG llNow)
{
    for (auto it = g->Clock.Due.begin(); it != g->Clock.Due.end() && it->first.first <= llNow;) {
        if (it->second.pThread != nullptr && g->bThreaded) {
            ++it;
            continue;
        }
        Expire(it->second);
        it = g->Clock.Due.begin();
    }
}

void HostTimerThread()
{
    HostLock lock(g->Lock);
    while (!g->bStopping) {
        HostExpire(HostNow());
        LONGLONG llWait = 10000000;
        for (const auto& entry : g->Clock.Due) {
            if (entry.second.pTimer != nullptr) {
                llWait = entry.first.first - HostNow();
                break;
            }
        }
        if (llWait > 0) {
            g->Clock.Wake.wait_for(lock, std::chrono::microseconds(llWait / 10 + 1));
        }
    }
}

void KeInitializeTimer(PKTIMER pTimer)
{
    KeInitializeTimerEx(pTimer, NotificationTimer);
}

void KeInitializeTimerEx(PKTIMER pTimer, TIMER_TYPE type)
{
    HostCheckInitialise(pTimer, sizeof(KTIMER), __func__);
    HostInitHeader(&pTimer->Header, type == NotificationTimer ? 8 : 9, sizeof(KTIMER), 0);
    pTimer->DueTime.QuadPart = 0;
    pTimer->TimerListEntry = {nullptr, nullptr};
    pTimer->Dpc = nullptr;
    pTimer->Processor = 0;
    pTimer->Period = 0;
}

static void CheckTimer(PKTIMER pTimer, const char* pCall)
{
    HostEnter(pCall, DISPATCH_LEVEL);
    HostCheckNotFreed(pTimer, pCall);
    if (pTimer->Header.Size == 0) {
        HostBug("DISPATCHER_OBJECT_NOT_INITIALISED", "%s on a timer that was never initialised", pCall);
    }
}

BOOLEAN KeSetTimer(PKTIMER pTimer, LARGE_INTEGER due, PKDPC pDpc)
{
    return KeSetTimerEx(pTimer, due, 0, pDpc);
}

BOOLEAN KeSetTimerEx(PKTIMER pTimer, LARGE_INTEGER due, LONG lPeriod, PKDPC pDpc)
{
    CheckTimer(pTimer, __func__);
    HostLock lock(g->Lock);
    bool bWasSet = Disarm(pTimer);
    pTimer->Header.SignalState = 0;
    pTimer->Dpc = pDpc;
    pTimer->Period = static_cast<ULONG>(lPeriod);
    LONGLONG llDue = due.QuadPart <= 0 ? HostNow() - due.QuadPart : due.QuadPart - HostSystemBase();
    if (llDue > HostNow()) {
        Arm(pTimer, llDue);
        return bWasSet;
    }
    pTimer->DueTime.QuadPart = static_cast<ULONGLONG>(HostNow());
    Fire(pTimer);
    lock.unlock();
    if (!g->bThreaded && KeGetCurrentIrql() < DISPATCH_LEVEL) {
        HostRunDpcs();
    }
    return bWasSet;
}

BOOLEAN KeCancelTimer(PKTIMER pTimer)
{
    CheckTimer(pTimer, __func__);
    HostLock lock(g->Lock);
    return Disarm(pTimer);
}

BOOLEAN KeReadStateTimer(PKTIMER pTimer)
{
    CheckTimer(pTimer, __func__);
    HostLock lock(g->Lock);
    return pTimer->Header.SignalState != 0;
}

void KeQuerySystemTime(PLARGE_INTEGER pTime)
{
    pTime->QuadPart = HostSystemBase() + HostNow();
}

ULONGLONG KeQueryInterruptTime()
{
    return static_cast<ULONGLONG>(HostNow());
}

unsigned long long HostNowUs()
{
    return static_cast<unsigned long long>(HostNow() / 10);
}

bool HostNextTimerUs(unsigned long long* pullUs)
{
    HostLock lock(g->Lock);
    if (g->Clock.Due.empty()) {
        return false;
    }
    *pullUs = static_cast<unsigned long long>((g->Clock.Due.begin()->first.first + 9) / 10);
    return true;
}

// Two timers of one microsecond are two steps: what the first causes has run before the second fires.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
bool HostExpireNext(unsigned long long ullUs)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostSettle();
    {
        HostLock lock(g->Lock);
        if (g->bThreaded || g->Clock.Due.empty() ||
            g->Clock.Due.begin()->first.first > static_cast<LONGLONG>(ullUs) * 10) {
            return false;
        }
        g->Clock.llNow = std::max(g->Clock.llNow, g->Clock.Due.begin()->first.first);
        Expire(g->Clock.Due.begin()->second);
    }
    HostRunDpcs();
    HostSettle();
    return true;
}

// Steps from one due time to the next up to the given time; what can run runs after each step.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
void HostAdvanceToUs(unsigned long long ullUs)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    LONGLONG llTarget = static_cast<LONGLONG>(ullUs) * 10;
    if (g->bThreaded) {
        LARGE_INTEGER delay;
        delay.QuadPart = HostNow() - llTarget;
        if (delay.QuadPart < 0) {
            KeDelayExecutionThread(KernelMode, FALSE, &delay);
        }
        HostSettle();
        return;
    }
    for (;;) {
        HostSettle();
        {
            HostLock lock(g->Lock);
            if (g->Clock.Due.empty() || g->Clock.Due.begin()->first.first > llTarget) {
                g->Clock.llNow = llTarget > g->Clock.llNow ? llTarget : g->Clock.llNow;
                return;
            }
            LONGLONG llDue = g->Clock.Due.begin()->first.first;
            g->Clock.llNow = llDue > g->Clock.llNow ? llDue : g->Clock.llNow;
            HostExpire(g->Clock.llNow);
        }
        HostRunDpcs();
    }
}
