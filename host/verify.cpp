// verify.cpp - how a broken rule ends the run, how a leak is told, and which call fails next.
//
// Every rule of the host ends in HostBug; its code is the name that the platform's own verifier uses
// where it has one. Fault injection: each fallible call asks HostShouldFail once, by its kind.
#include "core.h"

#include <cstdio>
#include <cstdlib>

HostState* g;
bool HostRunsFreely;

// Prints the rule's code and what broke it, then aborts.
// IRQL: any.
void HostBug(const char* pCode, const char* pFormat, ...)
{
    char text[8192];
    va_list arguments;
    va_start(arguments, pFormat);
    vsnprintf(text, sizeof(text), pFormat, arguments);
    va_end(arguments);
    fflush(stdout);
    if (g != nullptr && g->Sched.bSeeded) {
        fprintf(stderr, "HOST STOP %s: %s (seed %llu)\n", pCode, text, g->Options.Seed);
    } else {
        fprintf(stderr, "HOST STOP %s: %s\n", pCode, text);
    }
    fflush(stderr);
    abort();
}

// Counts one thing that was left behind and tells what it is.
// IRQL: any.
void HostLeak(unsigned& uCount, const char* pFormat, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, pFormat);
    vsnprintf(text, sizeof(text), pFormat, arguments);
    va_end(arguments);
    fprintf(stderr, "HOST LEAK %s\n", text);
    uCount++;
}

// Kinds are literals: the same one, nearly always, has the same address. One that is asked for moves ahead by a place.
static void CountFallible(const char* pKind)
{
    auto& kinds = g->Failing.ByKind;
    for (size_t i = 0; i < kinds.size(); i++) {
        if (kinds[i].first == pKind) {
            kinds[i].second++;
            if (i != 0) {
                std::swap(kinds[i], kinds[i - 1]);
            }
            return;
        }
    }
    kinds.push_back({pKind, 1});
}

// Lock: held.
bool HostFailsHeld(const char* pKind)
{
    PDRIVER_OBJECT pDriver = HostSelf()->pDriver;
    if (!g->Failing.In.empty() && (pDriver == nullptr || HostServiceOf(pDriver) != g->Failing.In)) {
        return false;
    }
    CountFallible(pKind);
    if (!g->Failing.Kind.empty() && g->Failing.Kind != pKind) {
        return false;
    }
    g->Failing.uCalls++;
    return g->Failing.bOn ? g->Failing.uNth != 0 && g->Failing.uCalls >= g->Failing.uNth
                          : g->Failing.uCalls == g->Failing.uNth;
}

// IRQL: any. Lock: takes Lock, and calls whoever listens without it.
void HostTellFailure(const char* pCall, const std::string& about)
{
    std::function<void(const std::string&)> told;
    {
        HostLock lock(g->Lock);
        told = g->Failing.Told;
    }
    if (told) {
        told(about.empty() ? pCall : pCall + (", " + about));
    }
}

void HostListenToFailures(std::function<void(const std::string& call)> told)
{
    HostLock lock(g->Lock);
    g->Failing.Told = std::move(told);
}

std::string HostShown(PCUNICODE_STRING pText)
{
    std::string shown;
    for (USHORT i = 0; pText != nullptr && i < pText->Length / sizeof(WCHAR); i++) {
        const auto c = static_cast<unsigned>(pText->Buffer[i]);
        shown += c >= ' ' && c < 0x7f ? static_cast<char>(c) : '?';
    }
    return shown;
}

// Lock: held.
static void SeeWhetherAsked()
{
    g->Failing.bAsked = !g->Failing.Kind.empty() || !g->Failing.In.empty() || g->Failing.uNth != 0;
}

void HostFailNth(const char* pWhat, unsigned ulNth, bool bFromThenOn)
{
    HostLock lock(g->Lock);
    g->Failing.Kind = pWhat == nullptr ? "" : pWhat;
    g->Failing.uNth = ulNth;
    g->Failing.bOn = bFromThenOn;
    SeeWhetherAsked();
    g->Failing.uCalls = 0;
    g->Failing.ByKind.clear();
}

void HostFailOnlyIn(const WCHAR* pServiceName)
{
    HostLock lock(g->Lock);
    g->Failing.In = pServiceName == nullptr ? HostText() : HostTextOf(pServiceName);
    SeeWhetherAsked();
}

std::map<std::string, unsigned> HostFallibleByKind()
{
    HostLock lock(g->Lock);
    std::map<std::string, unsigned> byKind;
    for (const auto& kind : g->Failing.ByKind) {
        byKind[kind.first] += kind.second;
    }
    return byKind;
}

unsigned HostFallibleCalls()
{
    HostLock lock(g->Lock);
    return g->Failing.uCalls;
}

// The caller of a kernel service runs at this level or lower.
// IRQL: any.
void HostCheckIrqlAtMost(const char* pRoutine, KIRQL highest)
{
    PKTHREAD pSelf = HostSelf();
    if (pSelf->Irql > highest) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "%s called at IRQL %u, at most %u is allowed", pRoutine,
                pSelf->Irql, highest);
    }
    const UCHAR* pHere = static_cast<const UCHAR*>(__builtin_frame_address(0));
    if (pSelf->pStackTop != nullptr && pSelf->pStackTop - pHere > HOST_STACK_BYTES) {
        HostBug("KERNEL_STACK_OVERFLOW", "%s: drivers take %td bytes of the thread's stack", pRoutine,
                pSelf->pStackTop - pHere);
    }
    if (pSelf->uHeld != 0 && ++pSelf->uCallsUnderLock > HOST_MOST_CALLS_UNDER_LOCK) {
        HostBug("SPIN_LOCK_HELD_TOO_LONG", "%s: more than %u kernel calls under one spin lock", pRoutine,
                HOST_MOST_CALLS_UNDER_LOCK);
    }
}

// What a driver claims with NT_ASSERT does not hold.
// IRQL: any.
void HostAssertionFailed(const char* pRoutine, const char* pExpression)
{
    HostBug("ASSERTION_FAILURE", "%s: %s does not hold", pRoutine, pExpression);
}

void HostCheckIrqlIs(const char* pRoutine, KIRQL level)
{
    PKTHREAD pSelf = HostSelf();
    if (pSelf->Irql != level) {
        HostBug(pSelf->Irql > level ? "IRQL_NOT_LESS_OR_EQUAL" : "IRQL_NOT_GREATER_OR_EQUAL",
                "%s called at IRQL %u, it runs at %u", pRoutine, pSelf->Irql, level);
    }
}

void HostDriverScope::BugGone(PDRIVER_OBJECT pDriver, const char* pWhat)
{
    HostBug("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", "%s of %s runs after its unload", pWhat,
            HostUtf8(HostServiceOf(pDriver)).c_str());
}

void HostDriverScope::CheckLeft()
{
    if (__atomic_load_n(&pThread->uOnStack, __ATOMIC_RELAXED) != 0) {
        HostCheckNoStackObjects(pThread, this);
    }
    if (pThread->uHeld != uHeld) {
        HostBug("SPIN_LOCK_HELD_ON_RETURN", "%s returned with %u spin locks held, entered with %u", pWhat,
                pThread->uHeld, uHeld);
    }
    if (pThread->Mutexes.size() != mutexes || pThread->uCriticalRegions != uCriticalRegions) {
        HostBug("APC_INDEX_MISMATCH",
                "%s returned with %zu mutexes held and in %u critical regions, entered with %zu and in %u",
                pWhat, pThread->Mutexes.size(), pThread->uCriticalRegions, mutexes, uCriticalRegions);
    }
    if (pThread->Irql != Irql) {
        HostBug("IRQL_UNEXPECTED_VALUE", "%s entered at IRQL %u and returned at %u", pWhat, Irql,
                pThread->Irql);
    }
}
