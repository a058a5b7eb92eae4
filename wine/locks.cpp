// locks.cpp - see locks.h.
#include "locks.h"

#include "faults.h"
#include "usermode.h"

static void Take(PKSPIN_LOCK pLock)
{
    while (__atomic_exchange_n(pLock, 1, __ATOMIC_ACQUIRE) != 0) {
        YieldProcessor();
    }
}

KIRQL NTAPI OwnKeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK pLock)
{
    KIRQL oldIrql = ThreadLevel();
    if (oldIrql > DISPATCH_LEVEL) {
        TellFault("a spin lock is acquired at level %u", oldIrql);
    }
    SetThreadLevel(DISPATCH_LEVEL);
    Take(pLock);
    return oldIrql;
}

VOID NTAPI OwnKeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK pLock)
{
    if (ThreadLevel() != DISPATCH_LEVEL) {
        TellFault("a spin lock of DISPATCH_LEVEL is acquired at level %u", ThreadLevel());
    }
    Take(pLock);
}

VOID NTAPI OwnKeReleaseSpinLock(PKSPIN_LOCK pLock, KIRQL oldIrql)
{
    __atomic_store_n(pLock, 0, __ATOMIC_RELEASE);
    SetThreadLevel(oldIrql);
}

VOID NTAPI OwnKeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK pLock)
{
    __atomic_store_n(pLock, 0, __ATOMIC_RELEASE);
}
