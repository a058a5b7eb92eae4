// locks.h - spin locks that raise the calling thread's level, which this kernel's do not.
#pragma once

#include <kernel.h>

KIRQL NTAPI OwnKeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK pLock);
VOID NTAPI OwnKeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK pLock);
VOID NTAPI OwnKeReleaseSpinLock(PKSPIN_LOCK pLock, KIRQL oldIrql);
VOID NTAPI OwnKeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK pLock);
