// security.cpp - who may open a device: its access list, kept with the device object.
//
// The host lets everybody open everything; it keeps the list so that a test can see what the driver set.
#include "core.h"

struct DescriptorHead {
    UCHAR ucRevision;
    UCHAR ucReserved;
    USHORT usControl;
    ULONG ulOffsets[4]; // owner, group, system list, access list
};
enum { SELF_RELATIVE = 0x8000, ACCESS_LIST_PRESENT = 4, LIST_SIZE_OFFSET = 2 };

static const char HostSecurityKind[] = "access list";

// At a device's end.
void HostForgetSecurity(PDEVICE_OBJECT pDevice)
{
    if (pDevice->SecurityDescriptor != nullptr) {
        HostRelease(pDevice->SecurityDescriptor, HostSecurityKind);
        pDevice->SecurityDescriptor = nullptr;
    }
}

NTSTATUS ObOpenObjectByPointer(PVOID pBody, ULONG, struct _ACCESS_STATE*, ACCESS_MASK desired, POBJECT_TYPE,
                               KPROCESSOR_MODE mode, PHANDLE pHandle)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("handle")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostReference(pBody);
    *pHandle = HostNewHandle(pBody, mode == UserMode, desired);
    return STATUS_SUCCESS;
}

NTSTATUS ZwSetSecurityObject(HANDLE h, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR pDescriptor)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    NTSTATUS status;
    PDEVICE_OBJECT pDevice =
        static_cast<PDEVICE_OBJECT>(HostFromHandle(h, HostKindDevice, WRITE_DAC, &status));
    if (pDevice == nullptr) {
        return status;
    }
    DescriptorHead head;
    memcpy(&head, pDescriptor, sizeof head);
    if (information != DACL_SECURITY_INFORMATION || head.ucRevision != 1 ||
        (head.usControl & (SELF_RELATIVE | ACCESS_LIST_PRESENT)) != (SELF_RELATIVE | ACCESS_LIST_PRESENT) ||
        head.ulOffsets[3] != sizeof head) {
        return STATUS_INVALID_PARAMETER; // other forms are not modelled
    }
    if (HostShouldFail("security")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const UCHAR* pBytes = static_cast<const UCHAR*>(pDescriptor);
    USHORT usListBytes;
    memcpy(&usListBytes, pBytes + sizeof head + LIST_SIZE_OFFSET, sizeof usListBytes);
    HostForgetSecurity(pDevice);
    pDevice->SecurityDescriptor = HostAllocate(sizeof head + usListBytes, HostSecurityKind, 0, nullptr);
    memcpy(pDevice->SecurityDescriptor, pBytes, sizeof head + usListBytes);
    return STATUS_SUCCESS;
}
