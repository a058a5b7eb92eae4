// gaps.cpp - see gaps.h. Everything else that the driver imports is this kernel's own: loading, objects,
// handles, requests and their stacks, devices, links, the registry, files, threads, events, mutexes.
#include "gaps.h"

#include "attached.h"
#include "clock.h"
#include "dpc.h"
#include "imports.h"
#include "interfaces.h"
#include "locks.h"
#include "memory.h"
#include "names.h"
#include "properties.h"
#include "turns.h"
#include "userhandle.h"

extern "C" char __ImageBase[];

static const Replacement ForBoth[] = {
    // The level of a thread is always 0.
    OWN(KeAcquireSpinLockRaiseToDpc),
    OWN(KeAcquireSpinLockAtDpcLevel),
    OWN(KeReleaseSpinLock),
    OWN(KeReleaseSpinLockFromDpcLevel),
    // Timers run by the real clock; and a wait tells nobody that it waits.
    OWN(KeInitializeTimer),
    OWN(KeSetTimer),
    OWN(KeCancelTimer),
    OWN(KeWaitForSingleObject),
    OWN(KeWaitForMultipleObjects),
    // Deferred calls are stubs; one is missing.
    OWN(KeInitializeDpc),
    OWN(KeInsertQueueDpc),
    OWN(KeRemoveQueueDpc),
    OWN(KeFlushQueuedDpcs),
    // Devices are not found by name, and freed under what is attached to them; locked pages are a stub.
    OWN(IoCreateDevice),
    OWN(IoDeleteDevice),
    OWN(IoAttachDeviceToDeviceStack),
    OWN(IoDetachDevice),
    OWN(MmMapLockedPagesSpecifyCache),
    // Interfaces belong to devices that a bus enumerated.
    OWN(IoRegisterDeviceInterface),
    OWN(IoSetDeviceInterfaceState),
    OWN(RtlFreeUnicodeString),
    END_OF_OWN,
};

static const Replacement ForDriver[] = {
    // A dummy instead of the device, and what takes its file back.
    OWN(IoGetDeviceObjectPointer),
    OWN(ObfDereferenceObject),
    // Notifications are never delivered, properties are the enumerated devices' only.
    OWN(IoRegisterPlugPlayNotification),
    OWN(IoUnregisterPlugPlayNotification),
    OWN(IoGetDeviceProperty),
    // Handles of applications are refused.
    OWN(ObReferenceObjectByHandle),
    // To be counted, and the pool to be filled.
    OWN(IoQueueWorkItem),
    OWN(ExAllocatePoolWithTag),
    OWN(ExFreePoolWithTag),
    END_OF_OWN,
};

void FillProgramsGaps()
{
    ReplaceImports(__ImageBase, ForBoth);
}

void FillDriversGaps(void* pModule)
{
    ReplaceImports(pModule, ForBoth);
    ReplaceImports(pModule, ForDriver);
}
