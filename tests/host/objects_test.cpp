// objects_test.cpp - rules about objects, devices and drivers, each broken once.
#include "rules.h"

static PDEVICE_OBJECT Second(SmallSystem& system)
{
    PDEVICE_OBJECT pDevice;
    IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, &pDevice);
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
    {"ReferencesGivenBackThatNobodyTook", "REFERENCE_BY_POINTER",
     [](SmallSystem& system) { ObDereferenceObject(Second(system)); }},
    {"LastReferenceGoesBeforeTheDeviceIsDeleted", "REFERENCE_BY_POINTER",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pDevice = Second(system);
         ObReferenceObject(pDevice);
         PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pDevice);
         ObDereferenceObject(pTop);
         ObDereferenceObject(pTop);
         ObDereferenceObject(pTop);
     }},
    {"ApplicationsHandleAsKernelHandle", "USER_HANDLE_IN_KERNEL_MODE",
     [](SmallSystem& system) {
         static HANDLE h;
         h = HostCreateEvent(true);
         InDriver(system, [](PDEVICE_OBJECT) {
             PVOID pEvent;
             ObReferenceObjectByHandle(h, EVENT_MODIFY_STATE, *ExEventObjectType, KernelMode, &pEvent,
                                       nullptr);
         });
     }},
    {"ApplicationsHandleClosedByADriver", "USER_HANDLE_IN_KERNEL_MODE",
     [](SmallSystem& system) {
         static HANDLE h;
         h = HostCreateEvent(true);
         InDriver(system, [](PDEVICE_OBJECT) { ZwClose(h); });
     }},
    {"HandleOfWhateverProcessRuns", "USER_HANDLE_IN_KERNEL_MODE",
     [](SmallSystem& system) {
         InDriver(system, [](PDEVICE_OBJECT) {
             UNICODE_STRING name = Str(L"\\Registry\\Machine\\X");
             OBJECT_ATTRIBUTES attributes;
             InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
             HANDLE h;
             ZwCreateKey(&h, KEY_READ, &attributes, 0, nullptr, 0, nullptr);
             ZwFlushKey(h);
         });
     }},
    {"StringLongerThanItsBuffer", "INVALID_UNICODE_STRING",
     [](SmallSystem&) {
         UNICODE_STRING name = Str(L"\\Device\\Small");
         name.MaximumLength = name.Length - 2;
         IoDeleteSymbolicLink(&name);
     }},
    {"DpcAfterTheUnload", "DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS",
     [](SmallSystem& system) {
         static KTIMER timer;
         static KDPC dpc;
         InDriver(system, [](PDEVICE_OBJECT) {
             KeInitializeTimer(&timer);
             KeInitializeDpc(&dpc, Nothing, nullptr);
             KeSetTimer(&timer, Ms(10), &dpc);
         });
         HostClose(system.File);
         HostUnloadDriver(system.pDriver);
         HostAdvanceToUs(20000);
     }},
    {"WorkRoutineAfterTheUnload", "DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS",
     [](SmallSystem& system) {
         hooks.Unload = [](PDRIVER_OBJECT) {
             static WORK_QUEUE_ITEM item;
             ExInitializeWorkItem(
                 &item, [](PVOID) {}, nullptr);
             ExQueueWorkItem(&item, DelayedWorkQueue);
         };
         HostClose(system.File);
         HostUnloadDriver(system.pDriver);
         HostSettle();
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
    {"AttachedWithoutSecureOpen", "DEVICE_OPEN_NOT_SECURE",
     [](SmallSystem& system) { IoAttachDeviceToDeviceStack(system.pDevice, Second(system)); }},
    {"DetachedFromNothing", "DEVICE_NOT_ATTACHED",
     [](SmallSystem& system) { IoDetachDevice(system.pDevice); }},
    {"StillInitializing", "DEVICE_STILL_INITIALIZING",
     [](SmallSystem& system) {
         system.pDriver->DriverExtension->AddDevice = [](PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical) {
             PDEVICE_OBJECT pDevice;
             IoCreateDevice(pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE,
                            &pDevice);
             IoAttachDeviceToDeviceStack(pDevice, pPhysical);
             return STATUS_SUCCESS;
         };
         HostAddDevice(system.pDriver, system.pDevice);
     }},
    {"WaitForNoEvent", "BAD_EVENT_HANDLE",
     [](SmallSystem&) { HostWaitEvent(reinterpret_cast<HANDLE>(0x1234), 0); }},
    {"SetAndWait", "KE_SET_EVENT_WAIT",
     [](SmallSystem& system) {
         KeInitializeEvent(&system.Extension()->Event, NotificationEvent, FALSE);
         KeSetEvent(&system.Extension()->Event, 0, TRUE);
     }},
    {"WaitForTooMany", "MAXIMUM_WAIT_OBJECTS_EXCEEDED",
     [](SmallSystem& system) {
         PVOID objects[THREAD_WAIT_OBJECTS + 1] = {system.Extension()};
         KeWaitForMultipleObjects(THREAD_WAIT_OBJECTS + 1, objects, WaitAny, Executive, KernelMode, FALSE,
                                  nullptr, nullptr);
     }},
    {"InterfaceOfADeviceOfNoBus", "PNP_DETECTED_FATAL_ERROR",
     [](SmallSystem& system) {
         static const GUID CLASS = {1, 2, 3, {4}};
         UNICODE_STRING link;
         IoRegisterDeviceInterface(Second(system), &CLASS, nullptr, &link);
     }},
    {"PropertyOfADeviceOfNoBus", "PNP_DETECTED_FATAL_ERROR",
     [](SmallSystem& system) {
         ULONG ulLength;
         IoGetDeviceProperty(Second(system), DevicePropertyHardwareID, 0, nullptr, &ulLength);
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
RULES(Objects, OBJECTS);
