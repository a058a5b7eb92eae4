// lock.cpp - the interrupt level of a thread, and spin locks.
//
// A spin lock's word holds its owner. A thread holds at most one lock taken with RaiseToDpc, and under it
// at most one leaf taken with AtDpcLevel; nothing may be taken under a leaf. In simulated mode without
// a seed threads never change while a lock is held, so a lock that is found taken can never be released.
#include "core.h"

#include <cctype>

#include <sched.h>

enum : KSPIN_LOCK { DROPPED_LOCK = ~static_cast<KSPIN_LOCK>(0) }; // in the place of an owner

KIRQL KeGetCurrentIrql()
{
    return HostSelf()->Irql;
}

static inline void SetIrql(PKTHREAD pSelf, KIRQL irql)
{
    bool bBefore = pSelf->Irql >= DISPATCH_LEVEL;
    bool bAfter = irql >= DISPATCH_LEVEL;
    pSelf->Irql = irql;
    if (bBefore != bAfter && !HostRunsFreely) {
        HostGuardPaged(bAfter);
    }
}

KIRQL KfRaiseIrql(KIRQL irql)
{
    PKTHREAD pSelf = HostSelf();
    KIRQL before = pSelf->Irql;
    if (irql < before) {
        HostBug("IRQL_NOT_GREATER_OR_EQUAL", "KeRaiseIrql to %u from %u", irql, before);
    }
    SetIrql(pSelf, irql);
    return before;
}

KIRQL KeRaiseIrqlToDpcLevel()
{
    return KfRaiseIrql(DISPATCH_LEVEL);
}

void KeLowerIrql(KIRQL irql)
{
    PKTHREAD pSelf = HostSelf();
    if (irql > pSelf->Irql) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "KeLowerIrql to %u from %u", irql, pSelf->Irql);
    }
    if (pSelf->uHeld != 0 && irql < DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_GREATER_OR_EQUAL", "KeLowerIrql to %u while a spin lock is held", irql);
    }
    SetIrql(pSelf, irql);
    if (irql < DISPATCH_LEVEL && !HostRunsFreely && !IsListEmpty(&g->Dpcs.Queue)) {
        HostRunDpcs();
    }
    SCHEDULE_POINT();
}

// True for the lock that this run shall do without. `pName` is how the driver wrote it.
bool HostIsDropped(const char* pName)
{
    const std::string name = pName;
    const std::string& dropped = g->Options.DroppedLock;
    size_t at = name.find(dropped);
    return !dropped.empty() && at != std::string::npos && (at == 0 || !isalnum(name[at - 1])) &&
           !isalnum(name[at + dropped.size()]);
}

void HostInitializeSpinLock(PKSPIN_LOCK pLock, const char* pName)
{
    __atomic_store_n(pLock, HostIsDropped(pName) ? KSPIN_LOCK{DROPPED_LOCK} : 0, __ATOMIC_RELEASE);
    HostLock lock(g->Lock);
    HostForgetLocks(pLock, sizeof(*pLock));
}

// Takes the lock if it is free.
static inline bool TakeFree(PKSPIN_LOCK pLock, KSPIN_LOCK self)
{
    if (!HostRunsFreely) {
        return *pLock == 0 && (*pLock = self) != 0;
    }
    KSPIN_LOCK expected = 0;
    return __atomic_compare_exchange_n(pLock, &expected, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

// The lock is not free, or was not a moment ago.
static void __attribute__((noinline)) TakeLater(PKTHREAD pSelf, PKSPIN_LOCK pLock, const char* pCall)
{
    const KSPIN_LOCK self = reinterpret_cast<KSPIN_LOCK>(pSelf);
    if (__atomic_load_n(pLock, __ATOMIC_RELAXED) == DROPPED_LOCK) {
        SCHEDULE_POINT();
        return;
    }
    if (__atomic_load_n(pLock, __ATOMIC_RELAXED) == self) {
        HostBug("SPIN_LOCK_ALREADY_OWNED", "%s: the thread holds this lock already", pCall);
    }
    while (!TakeFree(pLock, self)) {
        if (g->Sched.bSeeded) {
            HostLock lock(g->Lock);
            pSelf->pSpinsFor = pLock;
            HostYield(lock, pSelf);
            pSelf->pSpinsFor = nullptr;
        } else if (!HostRunsFreely) {
            HostBug("SPIN_LOCK_ALREADY_OWNED",
                    "%s: the lock is held by a thread that cannot run, or was never "
                    "initialised",
                    pCall);
        } else {
            sched_yield();
        }
    }
}

static inline void Take(PKTHREAD pSelf, PKSPIN_LOCK pLock, const char* pCall)
{
    const KSPIN_LOCK self = reinterpret_cast<KSPIN_LOCK>(pSelf);
    if (pSelf->uHeld != 0 || !pSelf->Mutexes.empty()) {
        const KSPIN_LOCK holder = __atomic_load_n(pLock, __ATOMIC_RELAXED);
        if (holder != DROPPED_LOCK && holder != self) {
            HostLock lock(g->Lock);
            HostNoteOrder(pSelf, pLock);
        }
    }
    if (!TakeFree(pLock, self)) {
        TakeLater(pSelf, pLock, pCall);
    }
    pSelf->uCallsUnderLock = 0;
    pSelf->Held[pSelf->uHeld++] = pLock;
}

static void Give(PKTHREAD pSelf, PKSPIN_LOCK pLock, const char* pCall)
{
    SCHEDULE_POINT();
    if (pSelf->uHeld == 0 || pSelf->Held[pSelf->uHeld - 1] != pLock) {
        HostBug("SPIN_LOCK_NOT_OWNED", "%s: the thread does not hold this lock, or took another after it",
                pCall);
    }
    pSelf->uHeld--;
    if (__atomic_load_n(pLock, __ATOMIC_RELAXED) != DROPPED_LOCK) {
        __atomic_store_n(pLock, 0, __ATOMIC_RELEASE);
    }
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK pLock)
{
    SCHEDULE_POINT();
    PKTHREAD pSelf = HostSelf();
    KIRQL before = pSelf->Irql;
    if (before > DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "%s called at IRQL %u", __func__, before);
    }
    SetIrql(pSelf, DISPATCH_LEVEL);
    if (pSelf->uHeld != 0) {
        HostBug(pSelf->Held[pSelf->uHeld - 1] == pLock ? "SPIN_LOCK_ALREADY_OWNED" : "SPIN_LOCK_SECOND_LOCK",
                "%s: the thread holds a spin lock already", __func__);
    }
    Take(pSelf, pLock, __func__);
    return before;
}

void KeReleaseSpinLock(PKSPIN_LOCK pLock, KIRQL irql)
{
    PKTHREAD pSelf = HostSelf();
    Give(pSelf, pLock, __func__);
    KeLowerIrql(irql);
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK pLock)
{
    SCHEDULE_POINT();
    PKTHREAD pSelf = HostSelf();
    if (pSelf->Irql < DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_GREATER_OR_EQUAL", "%s called at IRQL %u", __func__, pSelf->Irql);
    }
    if (pSelf->bLeafHeld) {
        HostBug(pSelf->Held[pSelf->uHeld - 1] == pLock ? "SPIN_LOCK_ALREADY_OWNED" : "SPIN_LOCK_SECOND_LOCK",
                "%s: a lock under a leaf lock", __func__);
    }
    Take(pSelf, pLock, __func__);
    pSelf->bLeafHeld = true;
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK pLock)
{
    PKTHREAD pSelf = HostSelf();
    Give(pSelf, pLock, __func__);
    pSelf->bLeafHeld = false;
    SCHEDULE_POINT();
}

void IoAcquireCancelSpinLock(PKIRQL pIrql)
{
    *pIrql = KeAcquireSpinLockRaiseToDpc(&g->CancelLock);
}

void IoReleaseCancelSpinLock(KIRQL irql)
{
    KeReleaseSpinLock(&g->CancelLock, irql);
}
