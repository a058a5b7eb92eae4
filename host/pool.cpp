// pool.cpp - pool memory, its ledger and the traps around it.
//
// Every block has a header in front (and, without an address sanitizer, guard bytes behind) and lies in one
// list. A freed block stays in a quarantine for a while, so that a second free is recognised. Fresh memory
// holds a pattern that stands for "never written"; the same pattern found in what is copied to an
// application is memory that nobody wrote. Paged blocks are poisoned while the simulated processor is at
// DISPATCH_LEVEL (only an address sanitizer sees the access).
#include "core.h"

#include <cstdlib>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOST_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define HOST_ASAN 1
#endif
#if defined(HOST_ASAN)
#include <sanitizer/asan_interface.h>
enum { GUARD_BYTES = 0 };
#else
#define ASAN_POISON_MEMORY_REGION(p, n) ((void)(p), (void)(n))
#define ASAN_UNPOISON_MEMORY_REGION(p, n) ((void)(p), (void)(n))
enum { GUARD_BYTES = 16 };
#endif

const char HostPoolKind[] = "pool memory";
const char HostObjectKind[] = "object";
const char HostExtensionKind[] = "device extension";
static const char MdlKind[] = "MDL";

enum : ULONG_PTR { LIVE = 0x6576696c6b636c62, FREED = 0x6465657266626c6b };
enum { QUARANTINE_BLOCKS = 256, FREED_BYTE = 0xFD };

static const UCHAR UNWRITTEN[4] = {0xC5, 0x3A, 0x96, 0xE1};

struct alignas(16) Block {
    ULONG_PTR ulState;
    size_t bytes;
    const char* pKind;
    PDRIVER_OBJECT pOwner;
    LIST_ENTRY Link;
    ULONG ulTag;
    bool bPaged;

    UCHAR* Body() { return reinterpret_cast<UCHAR*>(this + 1); }
};

static std::mutex PoolLock;
static LIST_ENTRY Blocks = {&Blocks, &Blocks};
static std::deque<Block*> Quarantine;
static std::vector<Block*> PagedBlocks;

void HostFillUnwritten(UCHAR* pData, size_t bytes)
{
    size_t written = bytes < sizeof UNWRITTEN ? bytes : sizeof UNWRITTEN;
    memcpy(pData, UNWRITTEN, written);
    while (written < bytes) { // what is there already, as often as it fits
        size_t more = written < bytes - written ? written : bytes - written;
        memcpy(pData + written, pData, more);
        written += more;
    }
}

// Looks for four bytes in a row of the pattern, wherever it begins.
bool HostFindUnwritten(const UCHAR* pData, size_t bytes, size_t* pOffset)
{
    for (size_t i = 0; i + 4 <= bytes; i++) {
        for (size_t phase = 0; phase < 4; phase++) {
            size_t same = 0;
            while (same < 4 && pData[i + same] == UNWRITTEN[(phase + same) % 4]) {
                same++;
            }
            if (same == 4) {
                *pOffset = i;
                return true;
            }
        }
    }
    return false;
}

// Memory of the host or of a driver, filled with the pattern. Never fails.
// IRQL: any.
void* HostAllocate(size_t bytes, const char* pKind, ULONG ulTag, PDRIVER_OBJECT pOwner)
{
    Block* pBlock =
        static_cast<Block*>(aligned_alloc(16, (sizeof(Block) + bytes + GUARD_BYTES + 15) & ~size_t(15)));
    if (pBlock == nullptr) {
        HostBug("OUT_OF_MEMORY", "%zu bytes", bytes);
    }
    *pBlock = {LIVE, bytes, pKind, pOwner, {nullptr, nullptr}, ulTag, false};
    HostFillUnwritten(pBlock->Body(), bytes + GUARD_BYTES);
    ASAN_POISON_MEMORY_REGION(pBlock->Body() + bytes, ((bytes + 15) & ~size_t(15)) - bytes);
    std::lock_guard<std::mutex> lock(PoolLock);
    InsertTailList(&Blocks, &pBlock->Link);
    return pBlock->Body();
}

static void FreeBlock(Block* pBlock)
{
    ASAN_UNPOISON_MEMORY_REGION(pBlock->Body(), (pBlock->bytes + 15) & ~size_t(15));
    for (size_t i = 0; pBlock->ulState == FREED && i < pBlock->bytes; i++) {
        if (pBlock->Body()[i] != FREED_BYTE) {
            HostBug("FREED_MEMORY_WRITTEN", "%s (%zu bytes) was written at byte %zu after it was freed",
                    pBlock->pKind, pBlock->bytes, i);
        }
    }
    free(pBlock);
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
    for (size_t i = 0; i < GUARD_BYTES; i++) {
        if (pBlock->Body()[pBlock->bytes + i] != UNWRITTEN[(pBlock->bytes + i) % 4]) {
            HostBug("BAD_POOL_HEADER", "%s at %p (%zu bytes) was written beyond its end", pKind, p,
                    pBlock->bytes);
        }
    }
    return pBlock;
}

// Frees a block that HostAllocate gave under the same kind.
// IRQL: any. Lock: takes Lock.
void HostRelease(void* p, const char* pKind)
{
    Block* pBlock = CheckBlock(p, pKind);
    HostCheckNoLiveThings(p, pBlock->bytes, pKind);
    std::lock_guard<std::mutex> lock(PoolLock);
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
    memset(pBlock->Body(), FREED_BYTE, pBlock->bytes);
    ASAN_POISON_MEMORY_REGION(pBlock->Body(), pBlock->bytes);
    Quarantine.push_back(pBlock);
    if (Quarantine.size() > QUARANTINE_BLOCKS) {
        FreeBlock(Quarantine.front());
        Quarantine.pop_front();
    }
}

bool HostIsFreed(const void* p)
{
#if defined(HOST_ASAN)
    return __asan_address_is_poisoned(p);
#else
    (void)p;
    return false;
#endif
}

// A dispatcher object or DPC that somebody uses must not lie in memory that was freed.
// IRQL: any.
void HostCheckNotFreed(const void* pObject, const char* pCall)
{
    const UCHAR* p = static_cast<const UCHAR*>(pObject);
    if (pObject != nullptr &&
        (HostIsFreed(p) || (p[0] == FREED_BYTE && p[1] == FREED_BYTE && p[2] == FREED_BYTE))) {
        HostBug("DISPATCHER_OBJECT_IN_FREED_MEMORY", "%s: the object at %p lies in freed memory", pCall,
                pObject);
    }
}

static bool Within(const void* pThing, const void* p, size_t bytes)
{
    return pThing >= p && pThing < static_cast<const UCHAR*>(p) + bytes;
}

// Memory that goes away must not hold anything that the system still knows of.
// IRQL: any. Lock: takes Lock.
void HostCheckNoLiveThings(const void* p, size_t bytes, const char* pWhat)
{
    HostLock lock(g->Lock);
    for (const auto& due : g->Due) {
        if (due.second.pTimer != nullptr && Within(due.second.pTimer, p, bytes)) {
            HostBug("TIMER_OR_DPC_IN_FREED_MEMORY", "%s is freed while a timer in it is set", pWhat);
        }
        if (due.second.pTimer != nullptr && Within(due.second.pTimer->Dpc, p, bytes)) {
            HostBug("TIMER_OR_DPC_IN_FREED_MEMORY", "%s is freed while a timer is set for a DPC in it",
                    pWhat);
        }
    }
    for (PLIST_ENTRY pEntry = g->DpcQueue.Flink; pEntry != &g->DpcQueue; pEntry = pEntry->Flink) {
        if (Within(pEntry, p, bytes)) {
            HostBug("TIMER_OR_DPC_IN_FREED_MEMORY", "%s is freed while a DPC in it is queued", pWhat);
        }
    }
    PKTHREAD pSelf = HostSelf();
    for (const HostState::RunningDpc& running : g->DpcsRunning) {
        if (running.pThread != pSelf && Within(running.pDpc, p, bytes)) {
            HostBug("TIMER_OR_DPC_IN_FREED_MEMORY", "%s is freed while a DPC in it runs on another processor",
                    pWhat);
        }
    }
    HostForgetLocks(p, bytes);
    for (PKTHREAD pThread : g->Threads) {
        for (ULONG i = 0; i < pThread->ulBlocks; i++) {
            if (Within(pThread->pBlocks[i].Object, p, bytes)) {
                HostBug("DISPATCHER_OBJECT_IN_FREED_MEMORY",
                        "%s is freed while thread '%s' waits for %s in it", pWhat, pThread->Name.c_str(),
                        HostDescribeWait(pThread).c_str());
            }
        }
    }
    for (const HostState::Work& work : g->WorkQueue) {
        if (Within(work.pIdentity, p, bytes)) {
            HostBug("WORK_ITEM_IN_FREED_MEMORY", "%s is freed while a work item in it is queued", pWhat);
        }
    }
}

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

// Tells the pool blocks that a driver still owns.
unsigned HostAuditPool(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    std::lock_guard<std::mutex> lock(PoolLock);
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
    for (Block* pBlock : Quarantine) {
        FreeBlock(pBlock);
    }
    Quarantine.clear();
    PagedBlocks.clear();
}

static PVOID AllocatePool(POOL_TYPE type, SIZE_T bytes, ULONG ulTag, const char* pCall)
{
    HostEnter(pCall, type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL);
    if (bytes == 0) {
        HostBug("BAD_POOL_CALLER", "%s of no bytes", pCall);
    }
    if (type != PagedPool && type != NonPagedPoolNx) {
        HostBug("EXECUTABLE_POOL", "%s of executable memory: use NonPagedPoolNx", pCall);
    }
    if (HostShouldFail("pool")) {
        return nullptr;
    }
    void* p = HostAllocate(bytes, HostPoolKind, ulTag, HostSelf()->pDriver);
    if (type == PagedPool) {
        Block* pBlock = static_cast<Block*>(p) - 1;
        std::lock_guard<std::mutex> lock(PoolLock);
        pBlock->bPaged = true;
        PagedBlocks.push_back(pBlock);
    }
    return p;
}

PVOID ExAllocatePool(POOL_TYPE type, SIZE_T bytes)
{
    return AllocatePool(type, bytes, 0x656e6f4e, __func__);
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

PMDL IoAllocateMdl(PVOID pAddress, ULONG ulLength, BOOLEAN, BOOLEAN, PIRP pIrp)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    if (HostShouldFail("mdl")) {
        return nullptr;
    }
    PMDL pMdl = static_cast<PMDL>(HostAllocate(sizeof(MDL), MdlKind, 0, HostSelf()->pDriver));
    ULONG_PTR ulAddress = reinterpret_cast<ULONG_PTR>(pAddress);
    *pMdl = {};
    pMdl->Size = sizeof(MDL);
    pMdl->StartVa = reinterpret_cast<PVOID>(ulAddress & ~ULONG_PTR(PAGE_SIZE - 1));
    pMdl->ByteOffset = static_cast<ULONG>(ulAddress & (PAGE_SIZE - 1));
    pMdl->ByteCount = ulLength;
    if (pIrp != nullptr) {
        pIrp->MdlAddress = pMdl;
    }
    return pMdl;
}

void IoFreeMdl(PMDL pMdl)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostRelease(pMdl, MdlKind);
}

void MmBuildMdlForNonPagedPool(PMDL pMdl)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    pMdl->MappedSystemVa = MmGetMdlVirtualAddress(pMdl);
    pMdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

PVOID MmMapLockedPagesSpecifyCache(PMDL pMdl, KPROCESSOR_MODE mode, MEMORY_CACHING_TYPE, PVOID, ULONG,
                                   ULONG ulPriority)
{
    HostEnter(__func__, mode == KernelMode ? DISPATCH_LEVEL : APC_LEVEL);
    if (!(pMdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL))) {
        HostBug("MDL_NOT_LOCKED", "MmMapLockedPagesSpecifyCache of an MDL whose pages are not locked");
    }
    if (!(ulPriority & MdlMappingNoExecute)) {
        HostBug("EXECUTABLE_MDL_MAPPING", "MmMapLockedPagesSpecifyCache without MdlMappingNoExecute");
    }
    if (HostShouldFail("map")) {
        return nullptr;
    }
    pMdl->MappedSystemVa = MmGetMdlVirtualAddress(pMdl);
    pMdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return pMdl->MappedSystemVa;
}

void MmUnmapLockedPages(PVOID, PMDL pMdl)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    pMdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
}
