// driver.h - the frame: entry, settings, keyboards, Plug and Play, the control device.
//
// A table of contents; each file's head tells more.
#pragma once

#include "driver/context.h"
#include "driver/shared.h"

// Every IRP_MJ entry of the dispatch table. IRQL <= DISPATCH unless the routine says less. Fails: with the
// status that the request was completed with.
using DispatchRoutine = NTSTATUS(PDEVICE_OBJECT pDevice, PIRP pIrp);

// entry.cpp
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

// memory.cpp
PVOID AllocateZeroed(POOL_TYPE poolType, SIZE_T ulBytes); // POOL_TAG; null when there is none

// parameters.cpp
NTSTATUS QueryDriverParameters(PUNICODE_STRING pRegistryPath);
NTSTATUS BuildParametersPath(PUNICODE_STRING pRegistryPath, POOL_TYPE poolType, PUNICODE_STRING pPath);

// errorcount.cpp
enum : USHORT { ErrorCountCheck = 0, ErrorCountEnter = 1, ErrorCountLeave = 2 };
NTSTATUS UpdateErrorCount(USHORT usMode, PUCHAR pucRefuse);

// keyboards.cpp: which filter devices there are, and that none goes away while it is used
DeviceContext* FilterContextOf(PDEVICE_OBJECT pDevice);   // null unless it is a filter device
ControlContext* ControlContextOf(PDEVICE_OBJECT pDevice); // null unless it is the control device
bool AcquireDevice(PDEVICE_OBJECT pDevice);               // false: being removed
void ReleaseDevice(PDEVICE_OBJECT pDevice);
PDEVICE_OBJECT FirstKeyboard();                      // newest first; referenced; null at the end
PDEVICE_OBJECT NextKeyboard(PDEVICE_OBJECT pDevice); // releases pDevice, references the next
void PublishKeyboard(PDEVICE_OBJECT pDevice);
void RefuseNewReferences(PDEVICE_OBJECT pDevice);
void WaitForReferences(PDEVICE_OBJECT pDevice);
void UnlinkKeyboard(PDEVICE_OBJECT pDevice);

// add.cpp
NTSTATUS AddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysicalDevice);

// passthrough.cpp
DispatchRoutine DispatchPassThrough;
DispatchRoutine DispatchRead;
DispatchRoutine DispatchPower;
NTSTATUS CompleteRequest(PIRP pIrp, NTSTATUS status, ULONG_PTR ulInformation);
NTSTATUS ForwardRequest(DeviceContext* pContext, PIRP pIrp); // the caller holds the device
NTSTATUS ForwardAndWait(DeviceContext* pContext, PIRP pIrp); // PASSIVE; the request comes back to the caller

// pnp.cpp
DispatchRoutine DispatchPnp; // PASSIVE

// unload.cpp
void UnloadDriver(PDRIVER_OBJECT pDriver);
void FreeDriverResources(); // what driver entry took; also for an entry that fails

// controldevice.cpp
NTSTATUS CreateControlDevice(PDEVICE_OBJECT pFilterDevice);
void DeleteControlDevice(PDEVICE_OBJECT pFilterDevice);
PDEVICE_OBJECT ReferenceControlDevice(); // referenced object, or null when there is none
DispatchRoutine DispatchControlPnp;

// security.cpp
NTSTATUS SecureControlDevice(PDEVICE_OBJECT pControlDevice);

// interface.cpp: IRQL = PASSIVE
NTSTATUS PublishInterface(DeviceContext* pContext);
void WithdrawInterface(DeviceContext* pContext);

// openclose.cpp
DispatchRoutine DispatchCreate;
DispatchRoutine DispatchClose;
DispatchRoutine DispatchCleanup;
