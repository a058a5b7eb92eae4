// memory_test.cpp - rules about memory, each broken once.
#include "rules.h"

struct InPool {
    KTIMER Timer;
    KDPC Dpc;
    KEVENT Event;
    WORK_QUEUE_ITEM Item;
};

static InPool* Things()
{
    InPool* p = static_cast<InPool*>(Pool(sizeof(InPool)));
    KeInitializeTimer(&p->Timer);
    KeInitializeDpc(&p->Dpc, Nothing, nullptr);
    KeInitializeEvent(&p->Event, NotificationEvent, FALSE);
    ExInitializeWorkItem(
        &p->Item, [](PVOID) {}, nullptr);
    return p;
}

static const Rule MEMORY[] = {
    {"NoBytes", "BAD_POOL_CALLER", [](SmallSystem&) { Pool(0); }},
    {"FreedTwice", "BAD_POOL_CALLER",
     [](SmallSystem&) {
         PVOID p = Pool();
         ExFreePool(p);
         ExFreePool(p);
     }},
    {"FreedWithAnotherTag", "BAD_POOL_CALLER", [](SmallSystem&) { ExFreePoolWithTag(Pool(), 0x32676154); }},
    {"EventSetAfterItsMemoryWent", "DISPATCHER_OBJECT_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         ExFreePool(p);
         KeSetEvent(&p->Event, 0, FALSE);
     }},
    {"TimerSetAfterItsMemoryWent", "DISPATCHER_OBJECT_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         ExFreePool(p);
         KeSetTimer(&p->Timer, Ms(1), nullptr);
     }},
    {"DpcQueuedAfterItsMemoryWent", "DISPATCHER_OBJECT_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         ExFreePool(p);
         KeInsertQueueDpc(&p->Dpc, nullptr, nullptr);
     }},
    {"DpcInFreedPoolRunsElsewhere", "TIMER_OR_DPC_IN_FREED_MEMORY",
     [](SmallSystem& system) {
         system.End();
         SmallSystem threaded(HostThreaded);
         static LONG lRuns, lGo;
         InPool* p = Things();
         KeInitializeDpc(
             &p->Dpc,
             [](PKDPC, PVOID, PVOID, PVOID) {
                 InterlockedExchange(&lRuns, 1);
                 while (InterlockedOr(&lGo, 0) == 0) {
                 }
             },
             nullptr);
         KeInsertQueueDpc(&p->Dpc, nullptr, nullptr);
         while (InterlockedOr(&lRuns, 0) == 0) {
         }
         ExFreePool(p);
     }},
    {"Executable", "EXECUTABLE_POOL", [](SmallSystem&) { ExAllocatePoolWithTag(NonPagedPool, 8, 1); }},
    {"ExecutableMapping", "EXECUTABLE_MDL_MAPPING",
     [](SmallSystem&) {
         PMDL pMdl = IoAllocateMdl(Pool(), 64, FALSE, FALSE, nullptr);
         MmBuildMdlForNonPagedPool(pMdl);
         MmMapLockedPagesSpecifyCache(pMdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
     }},
    {"TagOfZeros", "BAD_POOL_CALLER", [](SmallSystem&) { ExAllocatePoolWithTag(NonPagedPoolNx, 8, 0); }},
    {"MutexInFreedPool", "DISPATCHER_OBJECT_IN_FREED_MEMORY",
     [](SmallSystem&) {
         PKMUTEX pMutex = static_cast<PKMUTEX>(Pool(sizeof(KMUTEX)));
         KeInitializeMutex(pMutex, 0);
         KeWaitForSingleObject(pMutex, Executive, KernelMode, FALSE, nullptr);
         ExFreePool(pMutex);
     }},
    {"EventInPagedPool", "DISPATCHER_OBJECT_IN_PAGED_POOL",
     [](SmallSystem&) {
         PVOID p = ExAllocatePoolWithTag(PagedPool, sizeof(KEVENT), 1);
         KeInitializeEvent(static_cast<PKEVENT>(p), NotificationEvent, FALSE);
     }},
    {"TimerInitialisedWhileSet", "TIMER_OR_DPC_INVALID",
     [](SmallSystem&) {
         InPool* p = Things();
         KeSetTimer(&p->Timer, Ms(1), nullptr);
         KeInitializeTimer(&p->Timer);
     }},
    {"DpcInitialisedWhileQueued", "TIMER_OR_DPC_INVALID",
     [](SmallSystem&) {
         InPool* p = Things();
         Raise();
         KeInsertQueueDpc(&p->Dpc, nullptr, nullptr);
         KeInitializeDpc(&p->Dpc, Nothing, nullptr);
     }},
    {"EventInitialisedWhileAwaited", "DISPATCHER_OBJECT_IN_USE",
     [](SmallSystem&) {
         InPool* p = Things();
         HostStartThread([=] { KeWaitForSingleObject(&p->Event, Executive, KernelMode, FALSE, nullptr); });
         HostSettle();
         KeInitializeEvent(&p->Event, NotificationEvent, FALSE);
     }},
    {"MdlOverPagedPool", "MDL_OVER_PAGED_POOL",
     [](SmallSystem&) {
         PVOID p = ExAllocatePoolWithTag(PagedPool, 64, 1);
         MmBuildMdlForNonPagedPool(IoAllocateMdl(static_cast<UCHAR*>(p) + 8, 8, FALSE, FALSE, nullptr));
     }},
    {"MdlMappedUnlocked", "MDL_NOT_LOCKED",
     [](SmallSystem&) {
         PMDL pMdl = IoAllocateMdl(Pool(), 8, FALSE, FALSE, nullptr);
         MmGetSystemAddressForMdlSafe(pMdl, NormalPagePriority | MdlMappingNoExecute);
     }},
    {"MdlUnmappedTwice", "SYSTEM_PTE_MISUSE",
     [](SmallSystem&) {
         PMDL pMdl = IoAllocateMdl(Pool(), 8, FALSE, FALSE, nullptr);
         pMdl->MdlFlags |= MDL_PAGES_LOCKED;
         PVOID p = MmGetSystemAddressForMdlSafe(pMdl, NormalPagePriority | MdlMappingNoExecute);
         MmUnmapLockedPages(p, pMdl);
         MmUnmapLockedPages(p, pMdl);
     }},
#if !defined(UNDER_ASAN)
    {"WrittenBeforeItsBeginning", "BAD_POOL_HEADER",
     [](SmallSystem&) {
         UCHAR* p = static_cast<UCHAR*>(Pool());
         p[-1] = 0;
         ExFreePool(p);
     }},
    {"WrittenAfterItWasFreed", "FREED_MEMORY_WRITTEN",
     [](SmallSystem&) {
         UCHAR* p = static_cast<UCHAR*>(Pool());
         ExFreePool(p);
         p[7] = 0;
     }},
    {"WrittenBeyondItsEnd", "BAD_POOL_HEADER",
     [](SmallSystem&) {
         UCHAR* p = static_cast<UCHAR*>(Pool());
         p[64] = 0;
         ExFreePool(p);
     }},
#endif
    {"TimerInFreedPool", "TIMER_OR_DPC_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         KeSetTimer(&p->Timer, Ms(5), nullptr);
         ExFreePool(p);
     }},
    {"DpcOfASetTimerInFreedPool", "TIMER_OR_DPC_IN_FREED_MEMORY",
     [](SmallSystem& system) {
         InPool* p = Things();
         KeInitializeTimer(&system.Extension()->Timer);
         KeSetTimer(&system.Extension()->Timer, Ms(5), &p->Dpc);
         ExFreePool(p);
     }},
    {"QueuedDpcInFreedPool", "TIMER_OR_DPC_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         Raise();
         KeInsertQueueDpc(&p->Dpc, nullptr, nullptr);
         ExFreePool(p);
     }},
    {"EventWithAWaiterInFreedPool", "DISPATCHER_OBJECT_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         HostStartThread([=] { KeWaitForSingleObject(&p->Event, Executive, KernelMode, FALSE, nullptr); });
         HostSettle();
         ExFreePool(p);
     }},
    {"QueuedWorkItemInFreedPool", "WORK_ITEM_IN_FREED_MEMORY",
     [](SmallSystem&) {
         InPool* p = Things();
         ExQueueWorkItem(&p->Item, DelayedWorkQueue);
         ExFreePool(p);
     }},
    {"TimerInADeletedDevice", "TIMER_OR_DPC_IN_FREED_MEMORY",
     [](SmallSystem& system) {
         KeInitializeTimer(&system.Extension()->Timer);
         KeSetTimer(&system.Extension()->Timer, Ms(5), nullptr);
         IoDeleteDevice(system.pDevice);
     }},
};
RULES(Memory, MEMORY);

#if defined(UNDER_ASAN)
TEST(PagedMemory, CannotBeTouchedAtDispatchLevel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SmallSystem system;
            volatile UCHAR* p = static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, 8, 1));
            p[0] = 1;
            Raise();
            p[0] = 2;
        },
        "use-after-poison");
}

// Pool memory, a device's extension, a request's buffer: the bytes in front belong to nobody.
TEST(MemoryInFront, CannotBeTouched)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int iDistance : {1, 8}) {
        EXPECT_DEATH(
            {
                SmallSystem system;
                (void)static_cast<volatile UCHAR*>(Pool())[-iDistance];
            },
            "use-after-poison");
        EXPECT_DEATH(
            {
                SmallSystem system;
                static_cast<volatile UCHAR*>(system.pDevice->DeviceExtension)[-iDistance] = 0;
            },
            "use-after-poison");
        EXPECT_DEATH(
            {
                SmallSystem system;
                hooks.Dispatch = [=](PDEVICE_OBJECT, PIRP pIrp) {
                    (void)static_cast<volatile UCHAR*>(pIrp->AssociatedIrp.SystemBuffer)[-iDistance];
                    return CompleteWith(pIrp, STATUS_SUCCESS);
                };
                system.Control("in", 2);
            },
            "use-after-poison");
    }
}

TEST(FreedMemory, CannotBeTouched)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SmallSystem system;
            volatile UCHAR* p = static_cast<UCHAR*>(Pool());
            ExFreePool(const_cast<UCHAR*>(p));
            p[7] = 0;
        },
        "use-after-poison");
}
#endif
