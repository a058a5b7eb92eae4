// clock.cpp - see clock.h. A timer that expires queues its deferred call; of those due at once the one set
// first comes first.
#include "clock.h"

#include <host.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <mutex>

#include "dpc.h"
#include "interfaces.h"
#include "modules.h"
#include "turns.h"
#include "usermode.h"

namespace
{
struct SetTimer {
    unsigned long long ullDueUs;
    PKTIMER pTimer;
    PKDPC pDpc;
    const char* pRoutine; // the deferred one
};

std::mutex g_Lock;            // guards what follows, but for reads of the interrupt time
std::list<SetTimer> g_Timers; // in the order in which they were set
unsigned long long g_ullNowUs;
constexpr unsigned long long START = 10000000; // the system's age at the clock's 0, in 100 ns
unsigned long long g_ullInterruptTime = START; // the address that modules read

// Where the system keeps the interrupt time for everybody. Inverted, so that the address does not stand in
// this program, which is searched for it.
const volatile unsigned long long NOT_INTERRUPT_TIME = 0x0000087FFFFFFFF7;

void SetNow(unsigned long long ullUs)
{
    g_ullNowUs = ullUs;
    __atomic_store_n(&g_ullInterruptTime, START + ullUs * 10, __ATOMIC_SEQ_CST);
}

BOOLEAN Remove(PKTIMER pTimer)
{
    size_t before = g_Timers.size();
    g_Timers.remove_if([pTimer](const SetTimer& timer) { return timer.pTimer == pTimer; });
    return g_Timers.size() != before;
}
} // namespace

VOID NTAPI OwnKeInitializeTimer(PKTIMER pTimer)
{
    RtlZeroMemory(pTimer, sizeof(*pTimer));
}

BOOLEAN NTAPI OwnKeSetTimer(PKTIMER pTimer, LARGE_INTEGER due, PKDPC pDpc)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    BOOLEAN bWasSet = Remove(pTimer);
    g_Timers.push_back({g_ullNowUs + static_cast<unsigned long long>(-due.QuadPart) / 10, pTimer, pDpc,
                        pDpc ? reinterpret_cast<const char*>(pDpc->DeferredRoutine) : nullptr});
    return bWasSet;
}

BOOLEAN NTAPI OwnKeCancelTimer(PKTIMER pTimer)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    return Remove(pTimer);
}

void RestartClock()
{
    std::lock_guard<std::mutex> guard(g_Lock);
    g_Timers.clear();
    SetNow(0);
}

unsigned CountTimersOf(const void* pModule, unsigned long ulBytes)
{
    auto pBase = static_cast<const char*>(pModule);
    std::lock_guard<std::mutex> guard(g_Lock);
    return static_cast<unsigned>(std::count_if(g_Timers.begin(), g_Timers.end(), [=](const SetTimer& timer) {
        return timer.pRoutine >= pBase && timer.pRoutine < pBase + ulBytes;
    }));
}

bool ExpireNext(unsigned long long ullUntilUs)
{
    PKDPC pDpc;
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        auto next =
            std::min_element(g_Timers.begin(), g_Timers.end(), [](const auto& one, const auto& other) {
                return one.ullDueUs < other.ullDueUs;
            });
        if (next == g_Timers.end() || next->ullDueUs > ullUntilUs) {
            return false;
        }
        SetNow(std::max(g_ullNowUs, next->ullDueUs));
        pDpc = next->pDpc;
        g_Timers.erase(next);
    }
    if (pDpc) {
        OwnKeInsertQueueDpc(pDpc, nullptr, nullptr);
    }
    return true;
}

// The address stands in the code, which loads from it.
void GiveClock(void* pModule, unsigned long ulBytes)
{
    auto pBase = static_cast<unsigned char*>(pModule);
    const unsigned long long* pOwn = &g_ullInterruptTime;
    const unsigned long long ullSystems = ~NOT_INTERRUPT_TIME;
    for (unsigned long i = 0x1000; i + sizeof(ullSystems) <= ulBytes; i++) {
        if (memcmp(pBase + i, &ullSystems, sizeof(ullSystems)) == 0) {
            WriteModule(pBase + i, &pOwn, sizeof(pOwn));
        }
    }
}

unsigned long long HostNowUs()
{
    std::lock_guard<std::mutex> guard(g_Lock);
    return g_ullNowUs;
}

void HostSettle()
{
    while (DeliverNotifications() || !NothingRuns(false)) {
    }
}

void HostAdvanceToUs(unsigned long long ullUs)
{
    HostSettle();
    while (ExpireNext(ullUs)) {
        HostSettle();
    }
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        SetNow(std::max(g_ullNowUs, ullUs));
    }
    HostSettle();
}
