// mdl.cpp - memory descriptor lists: a stretch of memory, locked, and mapped into the system.
//
// All memory of the host is mapped anyway; what is kept is what the platform would know: locked, mapped, paged.
#include "core.h"

static const char MdlKind[] = "MDL";

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
    HostCheckNotPaged(MmGetMdlVirtualAddress(pMdl), "MDL_OVER_PAGED_POOL", __func__);
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
    if (!(pMdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA)) {
        HostBug("SYSTEM_PTE_MISUSE", "MmUnmapLockedPages of an MDL that is not mapped");
    }
    pMdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
}
