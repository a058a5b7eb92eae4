// driver.h - the roof: entry, settings, a keyboard that comes and goes, the control device.
//
// A table of contents; each file's head tells more.
#pragma once

#include "ground/ground.h"

// entry.cpp
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

// parameters.cpp
NTSTATUS QueryDriverParameters(PUNICODE_STRING pRegistryPath);
NTSTATUS BuildParametersPath(PUNICODE_STRING pRegistryPath, POOL_TYPE poolType, PUNICODE_STRING pPath);

// errorcount.cpp
enum : USHORT { ErrorCountCheck = 0, ErrorCountEnter = 1, ErrorCountLeave = 2 };
NTSTATUS UpdateErrorCount(USHORT usMode, PUCHAR pucRefuse);

// add.cpp
NTSTATUS AddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysicalDevice);

// pnp.cpp
DispatchRoutine DispatchPnp; // PASSIVE

// unload.cpp
void UnloadDriver(PDRIVER_OBJECT pDriver);
void FreeDriverResources(); // what driver entry took; also for an entry that fails

// controldevice.cpp
NTSTATUS CreateControlDevice(PDEVICE_OBJECT pFilterDevice);
void DeleteControlDevice(PDEVICE_OBJECT pFilterDevice);
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
