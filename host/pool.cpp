// pool.cpp - pool memory, its ledger and the traps around it.
//
// Every block has a header in front, which ends in guard bytes (and, without an address sanitizer, guard bytes
// behind), and lies in one list. A freed block stays in a quarantine for a while, so that a second free is recognised:
//
//   fresh ──► live ──► freed: filled, in the quarantine ──► checked: kept by its size ──► live again, and warm
//
// Fresh memory holds a pattern that stands for "never written"; the same pattern found in what is copied to an
// application is memory that nobody wrote. Paged blocks are poisoned while the simulated processor is at
// DISPATCH_LEVEL (only an address sanitizer sees the access).
#include "core.h"

#include <cstdlib>
#include <utility>

#if defined(HOST_ASAN)
enum { GUARD_BYTES = 0 };
#else
enum { GUARD_BYTES = 16 };
#endif
#if defined(HOST_ASAN) || defined(HOST_TSAN)
enum : size_t { KEPT_SIZES = 0 }; // the sanitizer shall see each block come and go
#else
enum : size_t { KEPT_SIZES = 32 };
#endif
enum : size_t { SIZE_STEP = 64, KEPT_OF_A_SIZE = 64 };

const char HostPoolKind[] = "pool memory";
const char HostObjectKind[] = "object";
const char HostExtensionKind[] = "device extension";

enum : ULONG_PTR { LIVE = 0x6576696c6b636c62, FREED = 0x6465657266626c6b };
enum { QUARANTINE_BLOCKS = 256 };

struct alignas(16) Block {
    ULONG_PTR ulState;
    size_t bytes;
    const char* pKind;
    PDRIVER_OBJECT pOwner;
    LIST_ENTRY Link;
    ULONG ulTag;
    bool bPaged;
    alignas(8) UCHAR Before[24]; // what lies right before the body belongs to nobody

    UCHAR* Body() { return reinterpret_cast<UCHAR*>(this + 1); }
};

// Memory of one size that waits for its next block.
struct KeptMemory {
    LIST_ENTRY* pFirst; // linked by Flink alone
    size_t count;
};

static std::mutex PoolLock; // of all that follows
static LIST_ENTRY Blocks = {&Blocks, &Blocks};
static Block* Quarantine[QUARANTINE_BLOCKS]; // a ring
static unsigned uOldest;                     // of them, or a free place
static KeptMemory Kept[KEPT_SIZES + 1];
static std::vector<Block*> PagedBlocks;

// With header and guards, in steps.
static size_t StepsOf(size_t bytes)
{
    return (sizeof(Block) + bytes + GUARD_BYTES + SIZE_STEP - 1) / SIZE_STEP;
}

static size_t BehindBody(size_t bytes)
{
    return StepsOf(bytes) * SIZE_STEP - sizeof(Block) - bytes;
}

// Lock: held.
static void* TakeMemory(size_t steps)
{
    KeptMemory* pKept = steps < KEPT_SIZES ? &Kept[steps] : nullptr;
    if (pKept == nullptr || pKept->pFirst == nullptr) {
        return malloc(steps * SIZE_STEP);
    }
    LIST_ENTRY* pFirst = pKept->pFirst;
    pKept->pFirst = pFirst->Flink;
    pKept->count--;
    return pFirst;
}

// Lock: held.
static void GiveMemory(void* p, size_t steps)
{
    KeptMemory* pKept = steps < KEPT_SIZES ? &Kept[steps] : nullptr;
    if (pKept == nullptr || pKept->count == KEPT_OF_A_SIZE) {
        free(p);
        return;
    }
    LIST_ENTRY* pFirst = static_cast<LIST_ENTRY*>(p);
    pFirst->Flink = pKept->pFirst;
    pKept->pFirst = pFirst;
    pKept->count++;
}

static void Guard(Block* pBlock)
{
    if (GUARD_BYTES != 0) {
        memcpy(pBlock->Before, HostUnwritten, sizeof(pBlock->Before));
        memcpy(pBlock->Body() + pBlock->bytes, HostUnwritten, GUARD_BYTES);
    }
    ASAN_POISON_MEMORY_REGION(pBlock->Before, sizeof(pBlock->Before));
}

static Block* NewBlock(size_t bytes, const char* pKind, ULONG ulTag, PDRIVER_OBJECT pOwner)
{
    HostLock lock(PoolLock);
    Block* pBlock = static_cast<Block*>(TakeMemory(StepsOf(bytes)));
    if (pBlock == nullptr) {
        HostBug("OUT_OF_MEMORY", "%zu bytes", bytes);
    }
    pBlock->ulState = LIVE;
    pBlock->bytes = bytes;
    pBlock->pKind = pKind;
    pBlock->pOwner = pOwner;
    pBlock->ulTag = ulTag;
    pBlock->bPaged = false;
    Guard(pBlock);
    ASAN_POISON_MEMORY_REGION(pBlock->Body() + bytes, BehindBody(bytes));
    InsertTailList(&Blocks, &pBlock->Link);
    return pBlock;
}

// Memory of the host or of a driver, filled with the pattern. Never fails.
// IRQL: any.
void* HostAllocate(size_t bytes, const char* pKind, ULONG ulTag, PDRIVER_OBJECT pOwner)
{
    Block* pBlock = NewBlock(bytes, pKind, ulTag, pOwner);
    HostFillUnwritten(pBlock->Body(), bytes);
    return pBlock->Body();
}

void* HostAllocateBare(size_t bytes, const char* pKind, PDRIVER_OBJECT pOwner)
{
    return NewBlock(bytes, pKind, 0, pOwner)->Body();
}

// Each byte is the one before it, and the first one is right.
static bool IsAllFreed(const UCHAR* p, size_t bytes)
{
    return bytes == 0 || (p[0] == HOST_FREED_BYTE && memcmp(p, p + 1, bytes - 1) == 0);
}

// Lock: held.
static void FreeBlock(Block* pBlock)
{
    ASAN_UNPOISON_MEMORY_REGION(pBlock->Before, sizeof(pBlock->Before));
    ASAN_UNPOISON_MEMORY_REGION(pBlock->Body(), pBlock->bytes + BehindBody(pBlock->bytes));
    if (pBlock->ulState == FREED && !IsAllFreed(pBlock->Body(), pBlock->bytes)) {
        size_t i = 0;
        while (pBlock->Body()[i] == HOST_FREED_BYTE) {
            i++;
        }
        HostBug("FREED_MEMORY_WRITTEN", "%s (%zu bytes) was written at byte %zu after it was freed",
                pBlock->pKind, pBlock->bytes, i);
    }
    GiveMemory(pBlock, StepsOf(pBlock->bytes));
}

// Puts a freed block into the quarantine; the oldest one there leaves it.
// Lock: held.
static void Seclude(Block* pBlock)
{
    Block* pOldest = std::exchange(Quarantine[uOldest], pBlock);
    uOldest = (uOldest + 1) % QUARANTINE_BLOCKS;
    if (pOldest != nullptr) {
        FreeBlock(pOldest);
    }
}

static Block* CheckBlock(void* p, const char* pKind)
{
    Block* pBlock = static_cast<Block*>(p) - 1;
    if (pBlock->ulState == FREED) {
        HostBug("BAD_POOL_CALLER", "%s at %p is freed twice", pKind, p);
    }
    if (pBlock->ulState != LIVE || pBlock->pKind != pKind) {
        HostBug("BAD_POOL_CALLER", "%s at %p is freed, but no such block begins there", pKind, p);
    }
    if (GUARD_BYTES != 0 && memcmp(pBlock->Before, HostUnwritten, sizeof(pBlock->Before)) != 0) {
        HostBug("BAD_POOL_HEADER", "%s at %p was written before its beginning", pKind, p);
    }
    if (memcmp(pBlock->Body() + pBlock->bytes, HostUnwritten, GUARD_BYTES) != 0) {
        HostBug("BAD_POOL_HEADER", "%s at %p (%zu bytes) was written beyond its end", pKind, p,
                pBlock->bytes);
    }
    return pBlock;
}

// Frees a block that HostAllocate gave under the same kind.
// IRQL: any. Lock: takes Lock.
void HostRelease(void* p, const char* pKind)
{
    Block* pBlock = CheckBlock(p, pKind);
    HostCheckNoLiveThings(p, pBlock->bytes, pKind);
    HostLock lock(PoolLock);
    RemoveEntryList(&pBlock->Link);
    if (pBlock->bPaged) {
        for (size_t i = 0; i < PagedBlocks.size(); i++) {
            if (PagedBlocks[i] == pBlock) {
                PagedBlocks.erase(PagedBlocks.begin() + static_cast<long>(i));
                break;
            }
        }
    }
    pBlock->ulState = FREED;
    memset(pBlock->Body(), HOST_FREED_BYTE, pBlock->bytes);
    ASAN_POISON_MEMORY_REGION(pBlock->Body(), pBlock->bytes);
    Seclude(pBlock);
}

void HostBugInFreed(const void* pObject, const char* pCall)
{
    HostBug("DISPATCHER_OBJECT_IN_FREED_MEMORY", "%s: the object at %p lies in freed memory", pCall, pObject);
}

static bool Within(const void* pThing, const void* p, size_t bytes)
{
    return pThing >= p && pThing < static_cast<const UCHAR*>(p) + bytes;
}

// What the system uses at DISPATCH_LEVEL must not lie in paged pool.
// IRQL: any. Lock: takes PoolLock.
void HostCheckNotPaged(const void* pThing, const char* pCode, const char* pCall)
{
    HostLock lock(PoolLock);
    for (Block* pBlock : PagedBlocks) {
        if (Within(pThing, pBlock->Body(), pBlock->bytes)) {
            HostBug(pCode, "%s of an address in paged pool", pCall);
        }
    }
}

#if defined(HOST_ASAN)
// Makes paged memory unusable, or usable again, as the level crosses DISPATCH_LEVEL. Simulated mode only.
void HostGuardPaged(bool bGuard)
{
    for (Block* pBlock : PagedBlocks) {
        if (bGuard) {
            ASAN_POISON_MEMORY_REGION(pBlock->Body(), pBlock->bytes);
        } else {
            ASAN_UNPOISON_MEMORY_REGION(pBlock->Body(), pBlock->bytes);
        }
    }
}
#endif

// Tells the pool blocks that a driver still owns.
unsigned HostAuditPool(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    HostLock lock(PoolLock);
    for (PLIST_ENTRY pEntry = Blocks.Flink; pEntry != &Blocks; pEntry = pEntry->Flink) {
        Block* pBlock = CONTAINING_RECORD(pEntry, Block, Link);
        bool bTold = pBlock->pKind == HostObjectKind || pBlock->pKind == HostExtensionKind ||
                     pBlock->pKind == HostIrpKind; // by its own ledger
        if (pBlock->pOwner == pDriver && !bTold) {
            char tag[5] = {};
            memcpy(tag, &pBlock->ulTag, 4);
            HostLeak(uLeaks, "%s: %zu bytes%s%s", pBlock->pKind, pBlock->bytes, tag[0] ? ", tag " : "", tag);
        }
    }
    return uLeaks;
}

void HostDropMemory(bool bFree)
{
    if (!bFree) {
        InitializeListHead(&Blocks);
        PagedBlocks.clear();
        return;
    }
    while (!IsListEmpty(&Blocks)) {
        Block* pBlock = CONTAINING_RECORD(RemoveHeadList(&Blocks), Block, Link);
        if (pBlock->pKind == HostObjectKind) {
            HostObject* pObject = reinterpret_cast<HostObject*>(pBlock->Body());
            if (pObject->pDestroy != nullptr) {
                pObject->pDestroy(pObject + 1);
            }
        }
        FreeBlock(pBlock);
    }
    for (Block*& pBlock : Quarantine) {
        if (Block* pFreed = std::exchange(pBlock, nullptr)) {
            FreeBlock(pFreed);
        }
    }
    PagedBlocks.clear();
}

static PVOID AllocatePool(POOL_TYPE type, SIZE_T bytes, ULONG ulTag, const char* pCall)
{
    HostEnter(pCall, type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL);
    if (bytes == 0) {
        HostBug("BAD_POOL_CALLER", "%s of no bytes", pCall);
    }
    if (ulTag == 0) {
        HostBug("BAD_POOL_CALLER", "%s with tag 0", pCall);
    }
    if (type != PagedPool && type != NonPagedPoolNx) {
        HostBug("EXECUTABLE_POOL", "%s of executable memory: use NonPagedPoolNx", pCall);
    }
    if (HostShouldFail("pool", pCall, [&] {
            const char tag[] = {static_cast<char>(ulTag), static_cast<char>(ulTag >> 8),
                                static_cast<char>(ulTag >> 16), static_cast<char>(ulTag >> 24), 0};
            return std::to_string(bytes) + " bytes of '" + tag + "'";
        })) {
        return nullptr;
    }
    void* p = HostAllocate(bytes, HostPoolKind, ulTag, HostSelf()->pDriver);
    if (type == PagedPool) {
        Block* pBlock = static_cast<Block*>(p) - 1;
        HostLock lock(PoolLock);
        pBlock->bPaged = true;
        PagedBlocks.push_back(pBlock);
    }
    return p;
}

PVOID ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG ulTag)
{
    return AllocatePool(type, bytes, ulTag, __func__);
}

void ExFreePool(PVOID p)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    if (p == nullptr) {
        HostBug("BAD_POOL_CALLER", "ExFreePool of a null pointer");
    }
    if (CheckBlock(p, HostPoolKind)->bPaged) {
        HostEnter("ExFreePool of paged memory", APC_LEVEL);
    }
    HostRelease(p, HostPoolKind);
}

void ExFreePoolWithTag(PVOID p, ULONG ulTag)
{
    if (p != nullptr && ulTag != 0) {
        Block* pBlock = CheckBlock(p, HostPoolKind);
        if (pBlock->ulTag != ulTag) {
            HostBug("BAD_POOL_CALLER", "ExFreePoolWithTag with tag 0x%08x, allocated with 0x%08x", ulTag,
                    pBlock->ulTag);
        }
    }
    ExFreePool(p);
}
