// registry.h - a driver that finds these values in its registry key, and one request to a device.
#pragma once

#include "machine.h"

inline const std::string Head = "Windows Registry Editor Version 5.00\r\n\r\n";
inline const std::string Key =
    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams]\r\n";

// The start-up guard's count as the registry's text shows it; -1: none.
inline long long StoredCount()
{
    const std::string text = HostRegistryText();
    const size_t at = text.find("\"ErrorCount\"=hex:");
    if (at == std::string::npos) {
        return -1;
    }
    unsigned bytes[4] = {};
    EXPECT_EQ(4, sscanf(text.c_str() + at, "\"ErrorCount\"=hex:%x,%x,%x,%x", bytes, bytes + 1, bytes + 2,
                        bytes + 3));
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<long long>(bytes[3]) << 24;
}

inline EmuMachineOptions WithRegistry(const std::string& values)
{
    EmuMachineOptions options = DriverOptions();
    options.RegistryText = values.empty() ? values : Key + values;
    return options;
}

// Sends one request to a device as the system would.
inline NTSTATUS Send(PDEVICE_OBJECT pDevice, UCHAR ucMajor, UCHAR ucMinor, ULONG_PTR* pulInformation)
{
    PIRP pIrp = IoAllocateIrp(pDevice->StackSize, FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = ucMajor;
    pNext->MinorFunction = ucMinor;
    pIrp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    pIrp->IoStatus.Information = 77;
    IO_COMPLETION_ROUTINE* pKeep = [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS {
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(pIrp, pKeep, nullptr, TRUE, TRUE, TRUE);
    const NTSTATUS status =
        ucMajor == IRP_MJ_POWER ? PoCallDriver(pDevice, pIrp) : IoCallDriver(pDevice, pIrp);
    EXPECT_EQ(status, pIrp->IoStatus.Status);
    *pulInformation = pIrp->IoStatus.Information;
    IoFreeIrp(pIrp);
    return status;
}
