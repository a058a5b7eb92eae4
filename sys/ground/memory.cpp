// memory.cpp - pool memory as the driver wants it: zeroed and tagged.
//
// All of the driver's own memory comes from here or is asked for with POOL_TAG, so that a leak names its
// owner.
#include "ground/ground.h"

// Null when there is none. Freed with ExFreePoolWithTag and POOL_TAG.
// IRQL <= DISPATCH (non-paged), PASSIVE (paged). Owns: the caller.
PVOID AllocateZeroed(POOL_TYPE poolType, SIZE_T ulBytes)
{
    PVOID pMemory = ExAllocatePoolWithTag(poolType, ulBytes, POOL_TAG);
    if (pMemory != nullptr) {
        RtlZeroMemory(pMemory, ulBytes);
    }
    return pMemory;
}
