// entry.cpp - driver entry: from nothing to a driver that waits for its first keyboard.
//
// In:  the driver object and the service key path.
// Out: the initial state, the settings from the registry, the dispatch table.
// Runs once, alone, at PASSIVE_LEVEL; what a failed entry took is given back before it returns.
#include "driver/driver.h"

#include "control/control.h"
#include "driver/context.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/macro.h"
#include "report/keytable.h"
#include "siblings/siblings.h"
#include "usb/usb.h"

namespace
{
// Every driver-wide value starts at zero unless it is set here.
// IRQL = PASSIVE, before any device exists.
void SetInitialState()
{
    RtlZeroMemory(&Settings, sizeof(Settings));
    RtlZeroMemory(&Globals, sizeof(Globals));
    Settings.ulPrefix1 = 0x7D;
    Settings.ulPrefix2 = 0x7B;
    Settings.ulPosKeyPrefix = 0x79;
    Settings.ulLogFileSize = 0x20000000;

    InitializeKeyboardList();
    InitializeEvents();
    InitializeMacros();
    InitializeSiblings();
    InitializeLog();
}

// Keeps the service key path for later reads of the macro settings, NUL-terminated.
// IRQL = PASSIVE. Owns: the buffer until FreeDriverResources. Fails: no memory, path too long to extend.
NTSTATUS CopyRegistryPath(PUNICODE_STRING pRegistryPath)
{
    const ULONG ulBytes = pRegistryPath->Length + 10u;
    PUNICODE_STRING pCopy = &Globals.RegistryPathCopy;
    if (ulBytes > MAXUSHORT) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pCopy->Buffer = static_cast<PWCH>(AllocateZeroed(NonPagedPoolNx, ulBytes));
    if (pCopy->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pCopy->MaximumLength = static_cast<USHORT>(ulBytes);
    RtlCopyUnicodeString(pCopy, pRegistryPath);
    return STATUS_SUCCESS;
}

// IRQL = PASSIVE.
void InstallDispatchTable(PDRIVER_OBJECT pDriver)
{
    for (ULONG i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; i++) {
        pDriver->MajorFunction[i] = DispatchPassThrough;
    }
    pDriver->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
    pDriver->MajorFunction[IRP_MJ_READ] = DispatchRead;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
    pDriver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    pDriver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalIoctl;
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    pDriver->DriverExtension->AddDevice = AddDevice;
    pDriver->DriverUnload = UnloadDriver;
}

// The low byte of the usage that the scan code stands for; an unknown scan code leaves the usage as it is.
// IRQL any.
void ConvertPrefixKey(ULONG ulScanCode, PUCHAR pucUsage)
{
    USHORT usUsage = 0;
    USHORT usUsageBytes = 0;
    if (NT_SUCCESS(PS2ToHID(ulScanCode, &usUsage, &usUsageBytes))) {
        *pucUsage = static_cast<UCHAR>(usUsage);
    }
}
} // namespace

// Registry errors never fail the entry: what cannot be read keeps its initial value.
// IRQL = PASSIVE. Fails: no memory, a system older than WDM 1.30; nothing stays allocated then.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    UCHAR ucUnused;

    StartTracing(); // until FreeDriverResources
    SetInitialState();
    if (!NT_SUCCESS(CopyRegistryPath(pRegistryPath)) ||
        !NT_SUCCESS(BuildParametersPath(pRegistryPath, PagedPool, &Globals.ParametersPath))) {
        FreeDriverResources();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Globals.pDriverObject = pDriver;
    if (!IoIsWdmVersionAvailable(1, 0x30)) {
        FreeDriverResources();
        return STATUS_UNSUCCESSFUL;
    }

    UpdateErrorCount(ErrorCountEnter, &ucUnused);
    InstallDispatchTable(pDriver);
    QueryDriverParameters(pRegistryPath);
    StartLog(); // a log that cannot start stays off
    ReadKorvexParameters(pRegistryPath);
    ConvertPrefixKey(Settings.ulPrefix1, &Globals.ucPrefix1Usage);
    ConvertPrefixKey(Settings.ulPrefix2, &Globals.ucPrefix2Usage);
    ConvertPrefixKey(Settings.ulPosKeyPrefix, &Globals.ucPosKeyPrefixUsage);
    UpdateErrorCount(ErrorCountLeave, &ucUnused);

    KeInitializeMutex(&Globals.ControlDeviceMutex.Object, 0);
    Trace(DriverLoaded, pRegistryPath);
    return STATUS_SUCCESS;
}
