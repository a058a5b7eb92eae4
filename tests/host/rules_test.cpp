// rules_test.cpp - every rule of the host with a driver that breaks it: the run must stop with the rule's code.
#include "driver.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ASAN 1
#endif

struct Rule {
    const char* pName;
    const char* pCode;
    void (*pBreak)(SmallSystem& system);
};

class Rules : public testing::TestWithParam<Rule>
{
};

TEST_P(Rules, StopsTheRun)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string pattern = std::string("HOST STOP ") + GetParam().pCode + ":";
    EXPECT_DEATH(
        {
            SmallSystem system;
            GetParam().pBreak(system);
            system.End();
        },
        pattern);
}

static std::string NameOf(const testing::TestParamInfo<Rule>& info)
{
    return info.param.pName;
}

static LARGE_INTEGER Ms(LONGLONG llMs)
{
    LARGE_INTEGER time;
    time.QuadPart = llMs * -10000;
    return time;
}

static void Raise()
{
    KeRaiseIrqlToDpcLevel();
}

static void Nothing(PKDPC, PVOID, PVOID, PVOID) {}

static PVOID Pool(size_t bytes = 64)
{
    return ExAllocatePoolWithTag(NonPagedPoolNx, bytes, 0x31676154);
}

static KSPIN_LOCK first;
static KSPIN_LOCK second;

static void TakeFirst()
{
    KeAcquireSpinLockRaiseToDpc(&first);
}

// --- levels and locks

static const Rule LEVELS[] = {
    {"WaitAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem& system) {
         Raise();
         KeWaitForSingleObject(system.Extension(), Executive, KernelMode, FALSE, nullptr);
     }},
    {"RegistryAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         RtlQueryRegistryValues(0, L"\\Registry\\Machine", nullptr, nullptr, nullptr);
     }},
    {"PagedPoolAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         ExAllocatePoolWithTag(PagedPool, 8, 1);
     }},
    {"PagedFreeAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         PVOID p = ExAllocatePoolWithTag(PagedPool, 8, 1);
         Raise();
         ExFreePool(p);
     }},
    {"ContractOfARoutine", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         IRQL_AT_MOST(APC_LEVEL);
     }},
    {"ContractOfADispatchRoutine", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) { IRQL_IS(DISPATCH_LEVEL); }},
    {"RaiseDownwards", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         KIRQL irql;
         KeRaiseIrql(PASSIVE_LEVEL, &irql);
     }},
    {"LowerUpwards", "IRQL_NOT_LESS_OR_EQUAL", [](SmallSystem&) { KeLowerIrql(DISPATCH_LEVEL); }},
    {"LowerUnderALock", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) {
         TakeFirst();
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"AtDpcLevelTooLow", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) { KeAcquireSpinLockAtDpcLevel(&first); }},
    {"WaitUnderALock", "WAIT_UNDER_SPIN_LOCK",
     [](SmallSystem&) {
         TakeFirst();
         LARGE_INTEGER time = Ms(1);
         KeDelayExecutionThread(KernelMode, FALSE, &time);
     }},
    {"SameLockTwice", "SPIN_LOCK_ALREADY_OWNED",
     [](SmallSystem&) {
         TakeFirst();
         TakeFirst();
     }},
    {"SecondLock", "SPIN_LOCK_SECOND_LOCK",
     [](SmallSystem&) {
         TakeFirst();
         KeAcquireSpinLockRaiseToDpc(&second);
     }},
    {"LockUnderALeaf", "SPIN_LOCK_SECOND_LOCK",
     [](SmallSystem&) {
         Raise();
         KeAcquireSpinLockAtDpcLevel(&first);
         KeAcquireSpinLockAtDpcLevel(&second);
     }},
    {"ReleaseOfALockNotHeld", "SPIN_LOCK_NOT_OWNED",
     [](SmallSystem&) {
         Raise();
         KeReleaseSpinLock(&first, PASSIVE_LEVEL);
     }},
    {"ReleaseOutOfOrder", "SPIN_LOCK_NOT_OWNED",
     [](SmallSystem&) {
         TakeFirst();
         KeAcquireSpinLockAtDpcLevel(&second);
         KeReleaseSpinLock(&first, PASSIVE_LEVEL);
     }},
    {"DispatchKeepsALock", "SPIN_LOCK_HELD_ON_RETURN",
     [](SmallSystem& system) {
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_SUCCESS);
             TakeFirst();
             return STATUS_SUCCESS;
         };
         system.Control();
     }},
    {"DpcChangesTheLevel", "IRQL_UNEXPECTED_VALUE",
     [](SmallSystem& system) {
         KDPC* pDpc = &system.Extension()->Dpc;
         KeInitializeDpc(
             pDpc, [](PKDPC, PVOID, PVOID, PVOID) { KeLowerIrql(PASSIVE_LEVEL); }, nullptr);
         KeInsertQueueDpc(pDpc, nullptr, nullptr);
     }},
    {"WorkRoutineChangesTheLevel", "IRQL_UNEXPECTED_VALUE",
     [](SmallSystem& system) {
         WORK_QUEUE_ITEM* pItem = &system.Extension()->Item;
         ExInitializeWorkItem(
             pItem, [](PVOID) { Raise(); }, nullptr);
         ExQueueWorkItem(pItem, DelayedWorkQueue);
         HostSettle();
     }},
};
INSTANTIATE_TEST_SUITE_P(Levels, Rules, testing::ValuesIn(LEVELS), NameOf);

// --- requests

static void Dispatching(SmallSystem& system, std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> dispatch)
{
    hooks.Dispatch = dispatch;
    UCHAR out[8];
    system.Control("in", 2, out, sizeof(out));
}

// A request of the driver's own to its own device.
static PIRP OwnRequest(SmallSystem& system)
{
    PIRP pIrp = IoAllocateIrp(system.pDevice->StackSize, FALSE);
    IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_READ;
    return pIrp;
}

static NTSTATUS Keep(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

static void LeaveCancelRoutine(PIRP pIrp)
{
    IoSetCancelRoutine(pIrp, [](PDEVICE_OBJECT, PIRP) {});
}

static const Rule REQUESTS[] = {
    {"CompletedTwice", "MULTIPLE_IRP_COMPLETE_REQUESTS",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_SUCCESS);
             IofCompleteRequest(pIrp, 0);
             return STATUS_SUCCESS;
         });
     }},
    {"CompletedTwiceAndKept", "MULTIPLE_IRP_COMPLETE_REQUESTS",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoSetCompletionRoutine(pIrp, Keep, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(system.pDevice, pIrp);
         IoSkipCurrentIrpStackLocation(pIrp);
         IoCompleteRequest(pIrp, 0);
     }},
    {"Lost", "IRP_LOST",
     [](SmallSystem& system) { Dispatching(system, [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }); }},
    {"PendingButNotMarked", "IRP_PENDING_MISMATCH",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_SUCCESS);
             return STATUS_PENDING;
         });
     }},
    {"PendingLaterButNotMarked", "IRP_PENDING_MISMATCH",
     [](SmallSystem& system) {
         static PIRP pKept;
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             pKept = pIrp;
             return STATUS_PENDING;
         };
         HostStartThread([] { CompleteWith(pKept, STATUS_SUCCESS); });
         system.Control();
     }},
    {"MarkedButNotPending", "IRP_PENDING_MISMATCH",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             IoMarkIrpPending(pIrp);
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"CompletedAsPending", "IRP_COMPLETED_PENDING",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_PENDING); });
     }},
    {"CompletedUnderALock", "IRP_UNDER_SPIN_LOCK",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             TakeFirst();
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"SentUnderALock", "IRP_UNDER_SPIN_LOCK",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         TakeFirst();
         IoCallDriver(system.pDevice, pIrp);
     }},
    {"NoLocationLeft", "NO_MORE_IRP_STACK_LOCATIONS",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT pDevice, PIRP pIrp) { return IoCallDriver(pDevice, pIrp); });
     }},
    {"CancelRoutineLeft", "DRIVER_LEFT_CANCEL_ROUTINE",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             LeaveCancelRoutine(pIrp);
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"CancelLockKept", "CANCEL_LOCK_HELD_ON_RETURN",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             IoMarkIrpPending(pIrp);
             LeaveCancelRoutine(pIrp);
             return STATUS_PENDING;
         };
         IoCallDriver(system.pDevice, pIrp);
         IoCancelIrp(pIrp);
     }},
    {"CompletionRoutineChangesTheLevel", "IRQL_UNEXPECTED_VALUE",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoSetCompletionRoutine(
             pIrp,
             [](PDEVICE_OBJECT, PIRP, PVOID) {
                 Raise();
                 return STATUS_MORE_PROCESSING_REQUIRED;
             },
             nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(system.pDevice, pIrp);
     }},
    {"InformationBeyondTheOutput", "IRP_INFORMATION_BEYOND_OUTPUT",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_SUCCESS, 9); });
     }},
    {"OutputNeverWritten", "UNINITIALISED_OUTPUT",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_SUCCESS, 8); });
     }},
    {"OutputFromFreshPool", "UNINITIALISED_OUTPUT",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             UCHAR* p = static_cast<UCHAR*>(Pool());
             memcpy(pIrp->AssociatedIrp.SystemBuffer, p + 3, 8);
             ExFreePool(p);
             return CompleteWith(pIrp, STATUS_SUCCESS, 8);
         });
     }},
    {"FreedInUse", "IRP_FREED_IN_USE",
     [](SmallSystem& system) {
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             IoMarkIrpPending(pIrp);
             return STATUS_PENDING;
         };
         PIRP pIrp = OwnRequest(system);
         IoCallDriver(system.pDevice, pIrp);
         IoFreeIrp(pIrp);
     }},
    {"NobodyTakesItBack", "IRP_NOT_RECLAIMED",
     [](SmallSystem& system) { IoCallDriver(system.pDevice, OwnRequest(system)); }},
    {"CreateAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_CREATE;
         Raise();
         IoCallDriver(system.pDevice, pIrp);
     }},
};
INSTANTIATE_TEST_SUITE_P(Requests, Rules, testing::ValuesIn(REQUESTS), NameOf);

// --- memory

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
    {"Executable", "EXECUTABLE_POOL", [](SmallSystem&) { ExAllocatePoolWithTag(NonPagedPool, 8, 1); }},
#if !defined(UNDER_ASAN)
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
INSTANTIATE_TEST_SUITE_P(Memory, Rules, testing::ValuesIn(MEMORY), NameOf);

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
#endif

// --- objects, devices, drivers

static PDEVICE_OBJECT Second(SmallSystem& system)
{
    PDEVICE_OBJECT pDevice;
    IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
    return pDevice;
}

static PIO_WORKITEM QueuedItem(SmallSystem& system)
{
    PIO_WORKITEM pItem = IoAllocateWorkItem(system.pDevice);
    IoQueueWorkItem(
        pItem, [](PDEVICE_OBJECT, PVOID) {}, DelayedWorkQueue, nullptr);
    return pItem;
}

static const Rule OBJECTS[] = {
    {"EventNotInitialised", "DISPATCHER_OBJECT_NOT_INITIALISED",
     [](SmallSystem& system) { KeSetEvent(&system.Extension()->Event, 0, FALSE); }},
    {"TimerNotInitialised", "DISPATCHER_OBJECT_NOT_INITIALISED",
     [](SmallSystem& system) { KeSetTimer(&system.Extension()->Timer, Ms(1), nullptr); }},
    {"DpcNotInitialised", "DPC_NOT_INITIALISED",
     [](SmallSystem& system) { KeInsertQueueDpc(&system.Extension()->Dpc, nullptr, nullptr); }},
    {"MutexOfAnother", "THREAD_NOT_MUTEX_OWNER",
     [](SmallSystem&) {
         KMUTEX mutex;
         KeInitializeMutex(&mutex, 0);
         KeReleaseMutex(&mutex, FALSE);
     }},
    {"WaitThatNothingEnds", "WAIT_NEVER_ENDS",
     [](SmallSystem& system) {
         KEVENT* pEvent = &system.Extension()->Event;
         KeInitializeEvent(pEvent, NotificationEvent, FALSE);
         KeWaitForSingleObject(pEvent, Executive, KernelMode, FALSE, nullptr);
     }},
    {"WaitThatOnlyTimersOutlive", "WAIT_NEVER_ENDS",
     [](SmallSystem& system) {
         SmallExtension* p = system.Extension();
         KeInitializeEvent(&p->Event, NotificationEvent, FALSE);
         KeInitializeTimer(&p->Timer);
         KeSetTimerEx(&p->Timer, Ms(1000), 1000, nullptr);
         KeWaitForSingleObject(&p->Event, Executive, KernelMode, FALSE, nullptr);
     }},
    {"WorkItemQueuedTwice", "WORK_ITEM_QUEUED_TWICE",
     [](SmallSystem& system) {
         IoQueueWorkItem(
             QueuedItem(system), [](PDEVICE_OBJECT, PVOID) {}, DelayedWorkQueue, nullptr);
     }},
    {"WorkItemFreedWhileQueued", "WORK_ITEM_FREED_WHILE_QUEUED",
     [](SmallSystem& system) { IoFreeWorkItem(QueuedItem(system)); }},
    {"DereferencedTooOften", "REFERENCE_BY_POINTER",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pDevice = Second(system);
         IoDeleteDevice(pDevice);
         ObDereferenceObject(pDevice);
     }},
    {"SentToADeviceThatIsGone", "REFERENCE_BY_POINTER",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pDevice = Second(system);
         IoDeleteDevice(pDevice);
         IoCallDriver(pDevice, OwnRequest(system));
     }},
    {"DeletedTwice", "DEVICE_DELETED_TWICE",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pDevice = Second(system);
         ObReferenceObject(pDevice);
         IoDeleteDevice(pDevice);
         IoDeleteDevice(pDevice);
     }},
    {"DeletedWhileAttached", "DEVICE_DELETED_WHILE_ATTACHED",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pDevice = Second(system);
         IoAttachDeviceToDeviceStack(pDevice, system.pDevice);
         IoDeleteDevice(pDevice);
     }},
    {"DetachedFromNothing", "DEVICE_NOT_ATTACHED",
     [](SmallSystem& system) { IoDetachDevice(system.pDevice); }},
    {"StillInitializing", "DEVICE_STILL_INITIALIZING",
     [](SmallSystem& system) {
         system.pDriver->DriverExtension->AddDevice = [](PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical) {
             PDEVICE_OBJECT pDevice;
             IoCreateDevice(pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
             IoAttachDeviceToDeviceStack(pDevice, pPhysical);
             return STATUS_SUCCESS;
         };
         HostAddDevice(system.pDriver, system.pDevice);
     }},
    {"HandleNotOpen", "INVALID_KERNEL_HANDLE",
     [](SmallSystem& system) {
         InDriver(system, [](PDEVICE_OBJECT) { ZwClose(reinterpret_cast<HANDLE>(0x1234)); });
     }},
    {"UnknownNotification", "NOTIFICATION_NOT_REGISTERED",
     [](SmallSystem&) { IoUnregisterPlugPlayNotification(&first); }},
    {"FailedEntryLeavesThings", "DRIVER_ENTRY_LEFT_THINGS",
     [](SmallSystem&) {
         PDRIVER_OBJECT pDriver;
         HostLoadDriver(
             [](PDRIVER_OBJECT, PUNICODE_STRING) {
                 Pool();
                 return STATUS_UNSUCCESSFUL;
             },
             L"Bad", &pDriver);
     }},
    {"BadRegistryText", "BAD_REGISTRY_TEXT",
     [](SmallSystem& system) {
         system.End();
         SmallSystem another(HostSimulated, "[HKEY_LOCAL_MACHINE\\X]\n\"a\"=dword:xyz\n");
     }},
};
INSTANTIATE_TEST_SUITE_P(Objects, Rules, testing::ValuesIn(OBJECTS), NameOf);

// --- what a driver leaves at unload

struct Leak {
    const char* pName;
    const char* pText;
    void (*pLeave)(PDEVICE_OBJECT pDevice);
};

class Leaks : public testing::TestWithParam<Leak>
{
};

TEST_P(Leaks, AreToldAtUnload)
{
    SmallSystem system;
    InDriver(system, GetParam().pLeave);
    testing::internal::CaptureStderr();
    EXPECT_EQ(1u, system.End());
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(GetParam().pText));
}

static const GUID CLASS = {1, 2, 3, {4}};

static const Leak LEAKS[] = {
    {"Pool", "pool memory: 64 bytes, tag Tag1", [](PDEVICE_OBJECT) { Pool(); }},
    {"Mdl", "MDL", [](PDEVICE_OBJECT pDevice) { IoAllocateMdl(pDevice, 4, FALSE, FALSE, nullptr); }},
    {"Irp", "request", [](PDEVICE_OBJECT) { IoAllocateIrp(1, FALSE); }},
    {"WorkItem", "work item", [](PDEVICE_OBJECT pDevice) { IoAllocateWorkItem(pDevice); }},
    {"Reference", "reference: 1 on device", [](PDEVICE_OBJECT pDevice) { ObReferenceObject(pDevice); }},
    {"Link", "symbolic link",
     [](PDEVICE_OBJECT) {
         UNICODE_STRING link = Str(L"\\??\\Left"), target = Str(L"\\Device\\Small");
         IoCreateSymbolicLink(&link, &target);
     }},
    {"Key", "handle: registry key",
     [](PDEVICE_OBJECT) {
         UNICODE_STRING name = Str(L"\\Registry\\Machine\\Left");
         OBJECT_ATTRIBUTES attributes;
         InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
         HANDLE h;
         ZwCreateKey(&h, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr);
     }},
    {"Interface", "device interface",
     [](PDEVICE_OBJECT pDevice) {
         UNICODE_STRING link;
         IoRegisterDeviceInterface(pDevice, &CLASS, nullptr, &link);
         IoSetDeviceInterfaceState(&link, TRUE);
         RtlFreeUnicodeString(&link);
     }},
    {"Notification", "notification",
     [](PDEVICE_OBJECT pDevice) {
         PVOID pEntry;
         IoRegisterPlugPlayNotification(
             EventCategoryDeviceInterfaceChange, 0, const_cast<GUID*>(&CLASS), pDevice->DriverObject,
             [](PVOID, PVOID) { return STATUS_SUCCESS; }, nullptr, &pEntry);
     }},
    {"Timer", "timer",
     [](PDEVICE_OBJECT) {
         static KTIMER timer;
         static KDPC dpc;
         KeInitializeTimer(&timer);
         KeInitializeDpc(&dpc, Nothing, nullptr);
         KeSetTimer(&timer, Ms(1000), &dpc);
     }},
};
INSTANTIATE_TEST_SUITE_P(Host, Leaks, testing::ValuesIn(LEAKS),
                         [](const auto& info) { return info.param.pName; });

TEST(Leaks, DevicesOfADriverWithoutUnloadAreTold)
{
    SmallSystem system;
    system.pDriver->DriverUnload = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(3u, system.End()) << "no unload routine, the device, its link";
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("device: \\Device\\Small"));
}
