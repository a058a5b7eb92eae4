// lock.h - the driver's spin locks and mutexes and the scopes that hold one; the stretch that no suspension cuts.
//
// A spin lock is taken only up to DISPATCH_LEVEL; above it the guarded data is used without the lock.
// No path holds two of them at once. The one exception is the log's own lock, a leaf that log.cpp takes
// by itself. clang's thread-safety analysis checks GUARDED_BY.
#pragma once

#include "ground/compiler.h"

#include <kernel.h>

#define GUARDED_BY(lock) LOCK_ATTRIBUTE(guarded_by(lock))
#define REQUIRES_LOCK(lock) LOCK_ATTRIBUTE(requires_capability(lock))
#define WITHOUT_LOCK_ANALYSIS LOCK_ATTRIBUTE(no_thread_safety_analysis)

struct LOCK_ATTRIBUTE(capability("spin lock")) SpinLock {
    KSPIN_LOCK Lock;
};

class LOCK_ATTRIBUTE(scoped_lockable) LockScope
{
public:
    explicit LockScope(SpinLock& lock) LOCK_ATTRIBUTE(acquire_capability(lock))
        : pLock(KeGetCurrentIrql() <= DISPATCH_LEVEL ? &lock.Lock : nullptr)
    {
        if (pLock != nullptr) {
            OldIrql = KeAcquireSpinLockRaiseToDpc(pLock);
        }
    }

    ~LockScope() LOCK_ATTRIBUTE(release_capability())
    {
        if (pLock != nullptr) {
            KeReleaseSpinLock(pLock, OldIrql);
        }
    }

    LockScope(const LockScope&) = delete;
    LockScope& operator=(const LockScope&) = delete;

private:
    PKSPIN_LOCK pLock;
    KIRQL OldIrql = 0;
};

struct LOCK_ATTRIBUTE(capability("mutex")) Mutex {
    KMUTEX Object;
};

// IRQL = PASSIVE.
class LOCK_ATTRIBUTE(scoped_lockable) MutexScope
{
public:
    explicit MutexScope(Mutex& mutex) LOCK_ATTRIBUTE(acquire_capability(mutex)) : pMutex(&mutex.Object)
    {
        (void)KeWaitForSingleObject(pMutex, Executive, KernelMode, FALSE, nullptr);
    }

    ~MutexScope() LOCK_ATTRIBUTE(release_capability()) { KeReleaseMutex(pMutex, FALSE); }

    MutexScope(const MutexScope&) = delete;
    MutexScope& operator=(const MutexScope&) = delete;

private:
    PKMUTEX pMutex;
};

// While it lives the thread is not suspended: a debugger that stops an application's thread would else stop it with
// what it holds, and a keyboard's removal waits for that in the system's own thread. The end of the process still
// ends its waits. IRQL <= APC.
class CriticalRegion
{
public:
    CriticalRegion() { KeEnterCriticalRegion(); }
    ~CriticalRegion() { KeLeaveCriticalRegion(); }
    CriticalRegion(const CriticalRegion&) = delete;
    CriticalRegion& operator=(const CriticalRegion&) = delete;
};
