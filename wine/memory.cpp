// memory.cpp - see memory.h.
#include "memory.h"

#include <atomic>
#include <cstring>

static std::atomic<unsigned> g_uBlocks;

PVOID NTAPI OwnExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG ulTag)
{
    PVOID pBlock = ExAllocatePoolWithTag(type, bytes, ulTag);
    if (pBlock) {
        memset(pBlock, 0xCD, bytes);
        g_uBlocks++;
    }
    return pBlock;
}

VOID NTAPI OwnExFreePoolWithTag(PVOID pBlock, ULONG ulTag)
{
    g_uBlocks--;
    ExFreePoolWithTag(pBlock, ulTag);
}

// All memory of this kernel is mapped where it lies.
PVOID NTAPI OwnMmMapLockedPagesSpecifyCache(PMDL pMdl, KPROCESSOR_MODE, MEMORY_CACHING_TYPE, PVOID, ULONG,
                                            ULONG)
{
    return static_cast<char*>(pMdl->StartVa) + pMdl->ByteOffset;
}

unsigned TakePoolBlocks()
{
    return g_uBlocks.exchange(0);
}
