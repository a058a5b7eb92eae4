// driver.cpp - starting and ending the host, loading and unloading drivers, and the audits.
#include "irp.h"
#include "trace.h"

#include <chrono>

struct HostDriver {
    DRIVER_OBJECT Object;
    DRIVER_EXTENSION Extension;
    HostText Name;
    HostText ServiceName;
    HostText ServicePath;
    bool bGone;
};

const HostText& HostServiceOf(PDRIVER_OBJECT pDriver)
{
    return CONTAINING_RECORD(pDriver, HostDriver, Object)->ServiceName;
}

static UNICODE_STRING StringOf(HostText& text)
{
    USHORT usBytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {usBytes, static_cast<USHORT>(usBytes + sizeof(WCHAR)), reinterpret_cast<PWCH>(&text[0])};
}

static NTSTATUS RefuseRequest(PDEVICE_OBJECT, PIRP pIrp)
{
    if (IoGetCurrentIrpStackLocation(pIrp)->MajorFunction == IRP_MJ_POWER) {
        PoStartNextPowerIrp(pIrp);
    }
    pIrp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    pIrp->IoStatus.Information = 0;
    IofCompleteRequest(pIrp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void HostStart(const HostOptions& options)
{
    static ULONGLONG ullRuns;
    if (g != nullptr) {
        HostBug("HOST_STARTED_TWICE", "HostStart without HostStop");
    }
    g = new HostState();
    HostRun = ++ullRuns;
    g->Options = options;
    HostRunsFreely = g->bThreaded = options.Mode == HostThreaded;
    g->Objects.ulNextHandle = options.ulFirstHandle;
    InitializeListHead(&g->Dpcs.Queue);
    InitializeListHead(&g->Irps.All);
    HostSeedSchedule(g->bThreaded ? 0 : options.Seed);
    g->Clock.llStart = HostNow();
    g->Threads.pMain = HostSelf();
    HostStartTrace();
    HostParseRegistry(options.RegistryText);
    HostStartSystemThreads();
}

static unsigned Audit(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = HostAuditNames(pDriver) + HostAuditPnp(pDriver) + HostAuditObjects(pDriver) +
                      HostAuditPool(pDriver) + HostAuditRequests(pDriver) + HostAuditTrace(pDriver);
    HostLock lock(g->Lock);
    for (const auto& due : g->Clock.Due) {
        PKTIMER pTimer = due.second.pTimer;
        if (pTimer != nullptr && (pTimer->Dpc == nullptr ? nullptr : pTimer->Dpc->DpcData) == pDriver) {
            HostLeak(uLeaks, "timer: set, due at %lld us", due.first.first / 10);
        }
    }
    for (const HostWorkers::Item& work : g->Work.Queue) {
        if (work.pOwner == pDriver) {
            HostLeak(uLeaks, "work item: queued");
        }
    }
    for (PLIST_ENTRY pEntry = g->Dpcs.Queue.Flink; pEntry != &g->Dpcs.Queue; pEntry = pEntry->Flink) {
        if (CONTAINING_RECORD(pEntry, KDPC, DpcListEntry)->DpcData == pDriver) {
            HostLeak(uLeaks, "DPC: queued");
        }
    }
    for (const HostDpcs::RunningDpc& running : g->Dpcs.Running) {
        if (running.pDriver == pDriver) {
            HostLeak(uLeaks, "DPC: still running");
        }
    }
    for (PKTHREAD pThread : g->Threads.All) {
        if (pDriver != nullptr && pThread->pWorkOf == pDriver) {
            HostLeak(uLeaks, "work routine: still running");
        }
        if (pDriver != nullptr && pThread->Name == "system thread" && pThread->pDriver == pDriver) {
            HostLeak(uLeaks, "system thread: still running");
        }
    }
    return uLeaks;
}

// Ends the host; audits what no unload has audited yet.
unsigned HostStop()
{
    if (HostSelf() != g->Threads.pMain) {
        HostBug("HOST_STOPPED_BY_OTHER", "HostStop from another thread than HostStart");
    }
    HostEnter(__func__, PASSIVE_LEVEL);
    HostSettle();
    unsigned uLeaks = 0;
    for (HostDriver* pDriver : g->Drivers) {
        if (!pDriver->bGone) {
            HostLeak(uLeaks, "driver: %s is still loaded", HostUtf8(pDriver->ServiceName).c_str());
            uLeaks += Audit(&pDriver->Object);
        }
    }
    uLeaks += Audit(nullptr);
    for (PKTHREAD pThread : g->Threads.All) {
        if (pThread->pOs != nullptr && pThread->Name == "application") {
            HostLeak(uLeaks, "thread: %s still runs", pThread->Name.c_str());
        }
    }
    if (!HostEndSystemThreads()) {
        HostDropPnp();
        HostDropMemory(false); // the threads that could not be ended keep what they use
        g = nullptr;
        HostRun = 0;
        return uLeaks;
    }
    HostDropPnp();
    HostDropMemory(true);
    for (HostDriver* pDriver : g->Drivers) {
        delete pDriver;
    }
    delete g;
    g = nullptr;
    HostRun = 0;
    return uLeaks;
}

NTSTATUS HostLoadDriver(PDRIVER_INITIALIZE pEntry, const WCHAR* pServiceName, PDRIVER_OBJECT* ppDriver)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostDriver* pHost = new HostDriver();
    g->Drivers.push_back(pHost);
    pHost->ServiceName = HostTextOf(pServiceName);
    pHost->Name = u"\\Driver\\" + pHost->ServiceName;
    pHost->ServicePath = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + pHost->ServiceName;
    PDRIVER_OBJECT pDriver = &pHost->Object;
    pDriver->Type = 4;
    pDriver->Size = sizeof(DRIVER_OBJECT);
    pDriver->DriverExtension = &pHost->Extension;
    pDriver->DriverName = StringOf(pHost->Name);
    pDriver->DriverInit = pEntry;
    pHost->Extension.DriverObject = pDriver;
    pHost->Extension.ServiceKeyName = StringOf(pHost->ServiceName);
    for (PDRIVER_DISPATCH& pDispatch : pDriver->MajorFunction) {
        pDispatch = RefuseRequest;
    }
    UNICODE_STRING path = StringOf(pHost->ServicePath);
    NTSTATUS status;
    {
        HostDriverScope scope(pDriver, "DriverEntry");
        status = pEntry(pDriver, &path);
    }
    *ppDriver = pDriver;
    if (NT_SUCCESS(status)) {
        for (PDEVICE_OBJECT p = pDriver->DeviceObject; p != nullptr; p = p->NextDevice) {
            p->Flags &= ~DO_DEVICE_INITIALIZING;
        }
        return status;
    }
    *ppDriver = nullptr;
    pHost->bGone = true;
    __atomic_or_fetch(&pDriver->Flags, HOST_DRIVER_GONE, __ATOMIC_RELAXED);
    HostSettle();
    if (Audit(pDriver) != 0) {
        HostBug("DRIVER_ENTRY_LEFT_THINGS", "DriverEntry failed with 0x%08x and left things behind",
                static_cast<unsigned>(status));
    }
    return status;
}

unsigned HostUnloadDriver(PDRIVER_OBJECT pDriver)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostDriver* pHost = CONTAINING_RECORD(pDriver, HostDriver, Object);
    unsigned uLeaks = 0;
    HostSettle();
    if (pDriver->DriverUnload == nullptr) {
        HostLeak(uLeaks, "driver: %s has no unload routine", HostUtf8(pHost->ServiceName).c_str());
    } else {
        HostDriverScope scope(pDriver, "the unload routine");
        pDriver->DriverUnload(pDriver);
    }
    HostAwaitNotifications(pDriver);
    pHost->bGone = true;
    __atomic_or_fetch(&pDriver->Flags, HOST_DRIVER_GONE, __ATOMIC_RELAXED);
    uLeaks += Audit(pDriver);
    return uLeaks;
}

NTSTATUS HostAddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    __atomic_or_fetch(&pPhysical->Flags, DO_BUS_ENUMERATED_DEVICE, __ATOMIC_RELAXED);
    NTSTATUS status;
    {
        HostDriverScope scope(pDriver, "AddDevice");
        status = pDriver->DriverExtension->AddDevice(pDriver, pPhysical);
    }
    PDEVICE_OBJECT pTop = IoGetAttachedDevice(pPhysical);
    if (NT_SUCCESS(status) && pTop->DriverObject == pDriver && (pTop->Flags & DO_DEVICE_INITIALIZING)) {
        HostBug("DEVICE_STILL_INITIALIZING", "AddDevice returned with DO_DEVICE_INITIALIZING set");
    }
    return status;
}
