// security.cpp - who may open the control device: the system, administrators and whoever logged on at the machine.
//
// A device object is created open to everybody; before its link exists it gets this access list instead, and a
// mandatory label beside it: a process of lower integrity than medium can neither read nor write. The descriptor is
// one block of bytes as the platform lays it out, so nothing is allocated.
// Runs at PASSIVE_LEVEL where the control device is created.
#include "driver/driver.h"

namespace
{
enum : ULONG {
    ALL_ACCESS = 0x001F01FF,     // everything a file or device handle can be asked for
    READ_AND_WRITE = 0x0012019F, // an application's read and write access
};

enum : UCHAR { ACCESS_ALLOWED = 0, MANDATORY_LABEL = 0x11 };
enum : ULONG {
    NO_WRITE_UP_NO_READ_UP = 0x3,
    MEDIUM_INTEGRITY = 0x2000,
};

template <unsigned Count> struct AccessEntry {
    UCHAR ucType;
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

struct SystemList {
    AccessListHead Head;
    AccessEntry<1> Label;
};

struct AccessList {
    AccessListHead Head;
    AccessEntry<1> System;
    AccessEntry<2> Administrators;
    AccessEntry<1> Console;
};

struct SecurityDescriptor {
    DescriptorHead Head;
    SystemList Label;
    AccessList List;
};
static_assert(sizeof(AccessEntry<1>) == 20 && sizeof(AccessEntry<2>) == 24, "entries without gaps");
static_assert(sizeof(SystemList) == 28 && sizeof(AccessList) == 72 && sizeof(SecurityDescriptor) == 120,
              "descriptor without gaps");

const SecurityDescriptor ControlDeviceSecurity = {
    // self-relative, with both lists
    {1, 0, 0x8014, 0, 0, offsetof(SecurityDescriptor, Label), offsetof(SecurityDescriptor, List)},
    {
        {2, 0, sizeof(SystemList), 1, 0},
        {MANDATORY_LABEL,
         0,
         sizeof(AccessEntry<1>),
         NO_WRITE_UP_NO_READ_UP,
         1,
         1,
         {0, 0, 0, 0, 0, 16},
         {MEDIUM_INTEGRITY}}, // S-1-16-8192
    },
    {
        {2, 0, sizeof(AccessList), 3, 0},
        {ACCESS_ALLOWED, 0, sizeof(AccessEntry<1>), ALL_ACCESS, 1, 1, {0, 0, 0, 0, 0, 5}, {18}}, // S-1-5-18
        {ACCESS_ALLOWED,
         0,
         sizeof(AccessEntry<2>),
         ALL_ACCESS,
         1,
         2,
         {0, 0, 0, 0, 0, 5},
         {32, 544}}, // S-1-5-32-544
        {ACCESS_ALLOWED, 0, sizeof(AccessEntry<1>), READ_AND_WRITE, 1, 1, {0, 0, 0, 0, 0, 2}, {1}}, // S-1-2-1
    },
};
} // namespace

// IRQL = PASSIVE. Fails: the device keeps its open access; the caller must not let it be reached then.
NTSTATUS SecureControlDevice(PDEVICE_OBJECT pControlDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HANDLE hDevice = nullptr;
    NTSTATUS status = ObOpenObjectByPointer(pControlDevice, OBJ_KERNEL_HANDLE, nullptr,
                                            WRITE_DAC | WRITE_OWNER, nullptr, KernelMode, &hDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwSetSecurityObject(hDevice, DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION,
                                 const_cast<SecurityDescriptor*>(&ControlDeviceSecurity));
    ZwClose(hDevice);
    return status;
}
