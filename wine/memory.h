// memory.h - the driver's pool, filled with garbage at allocation and counted; locked pages, for which this
// kernel has only a stub.
#pragma once

#include <kernel.h>

PVOID NTAPI OwnExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG ulTag);
VOID NTAPI OwnExFreePoolWithTag(PVOID pBlock, ULONG ulTag);
PVOID NTAPI OwnMmMapLockedPagesSpecifyCache(PMDL pMdl, KPROCESSOR_MODE mode, MEMORY_CACHING_TYPE caching,
                                            PVOID pWanted, ULONG ulBugCheck, ULONG ulPriority);
unsigned TakePoolBlocks(); // how many are allocated; counts from 0 again
