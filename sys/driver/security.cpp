// security.cpp - who may open the control device: the system, administrators and whoever sits at the machine.
//
// A device object is created open to everybody; before its link exists it gets this access list instead. The
// descriptor is one block of bytes as the platform lays it out, so nothing is allocated.
// Runs at PASSIVE_LEVEL where the control device is created.
#include "driver/driver.h"

namespace
{
enum : ULONG {
    ALL_ACCESS = 0x001F01FF,     // everything a file or device handle can be asked for
    READ_AND_WRITE = 0x0012019F, // an application's read and write access
};

template <unsigned Count> struct AllowedEntry {
    UCHAR ucType; // 0: access allowed
    UCHAR ucFlags;
    USHORT usSize;
    ULONG ulAccess;
    UCHAR ucSidRevision;
    UCHAR ucSubAuthorityCount;
    UCHAR ucAuthority[6];
    ULONG ulSubAuthority[Count];
};

struct DescriptorHead {
    UCHAR ucRevision;
    UCHAR ucReserved;
    USHORT usControl;
    ULONG ulOwner; // offsets, 0: none
    ULONG ulGroup;
    ULONG ulSystemList;
    ULONG ulAccessList;
};

struct AccessListHead {
    UCHAR ucRevision;
    UCHAR ucReserved;
    USHORT usSize;
    USHORT usCount;
    USHORT usReserved;
};

struct AccessList {
    AccessListHead Head;
    AllowedEntry<1> System;
    AllowedEntry<2> Administrators;
    AllowedEntry<1> Interactive;
};

struct SecurityDescriptor {
    DescriptorHead Head;
    AccessList List;
};
static_assert(sizeof(AllowedEntry<1>) == 20 && sizeof(AllowedEntry<2>) == 24, "entries without gaps");
static_assert(sizeof(AccessList) == 72 && sizeof(SecurityDescriptor) == 92, "descriptor without gaps");

const SecurityDescriptor ControlDeviceSecurity = {
    {1, 0, 0x8004, 0, 0, 0, sizeof(DescriptorHead)}, // self-relative, with an access list
    {
        {2, 0, sizeof(AccessList), 3, 0},
        {0, 0, sizeof(AllowedEntry<1>), ALL_ACCESS, 1, 1, {0, 0, 0, 0, 0, 5}, {18}},      // S-1-5-18
        {0, 0, sizeof(AllowedEntry<2>), ALL_ACCESS, 1, 2, {0, 0, 0, 0, 0, 5}, {32, 544}}, // S-1-5-32-544
        {0, 0, sizeof(AllowedEntry<1>), READ_AND_WRITE, 1, 1, {0, 0, 0, 0, 0, 5}, {4}},   // S-1-5-4
    },
};
} // namespace

// IRQL = PASSIVE. Fails: the device keeps its open access; the caller must not let it be reached then.
NTSTATUS SecureControlDevice(PDEVICE_OBJECT pControlDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HANDLE hDevice = nullptr;
    NTSTATUS status = ObOpenObjectByPointer(pControlDevice, OBJ_KERNEL_HANDLE, nullptr, WRITE_DAC, nullptr,
                                            KernelMode, &hDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwSetSecurityObject(hDevice, DACL_SECURITY_INFORMATION,
                                 const_cast<SecurityDescriptor*>(&ControlDeviceSecurity));
    ZwClose(hDevice);
    return status;
}
