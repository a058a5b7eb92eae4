// security.cpp - who may open a device: its access list and its mandatory label, kept with the device object.
//
// The host lets everybody open everything; it keeps the lists so that a test can see what the driver set.
#include "core.h"

struct DescriptorHead {
    UCHAR ucRevision;
    UCHAR ucReserved;
    USHORT usControl;
    ULONG ulOffsets[4]; // owner, group, system list, access list
};
enum { SELF_RELATIVE = 0x8000, SYSTEM_LIST_PRESENT = 0x10, ACCESS_LIST_PRESENT = 4, LIST_SIZE_OFFSET = 2 };

static const char HostSecurityKind[] = "access list";

// At a device's end.
void HostForgetSecurity(PDEVICE_OBJECT pDevice)
{
    if (pDevice->SecurityDescriptor != nullptr) {
        HostRelease(pDevice->SecurityDescriptor, HostSecurityKind);
        pDevice->SecurityDescriptor = nullptr;
    }
}

NTSTATUS ObOpenObjectByPointer(PVOID pBody, ULONG ulAttributes, struct _ACCESS_STATE*, ACCESS_MASK desired,
                               POBJECT_TYPE, KPROCESSOR_MODE, PHANDLE pHandle)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("handle")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostReference(pBody);
    *pHandle = HostNewHandle(pBody, ulAttributes, desired);
    return STATUS_SUCCESS;
}

// The bytes of a descriptor that holds the label and the access list behind its head, in this order and nothing
// else; 0: another form, which is not modelled.
static size_t DescriptorBytes(const UCHAR* pBytes, SECURITY_INFORMATION information)
{
    const struct {
        SECURITY_INFORMATION Asked;
        USHORT usPresent;
        int iOffset;
    } lists[] = {{LABEL_SECURITY_INFORMATION, SYSTEM_LIST_PRESENT, 2},
                 {DACL_SECURITY_INFORMATION, ACCESS_LIST_PRESENT, 3}};
    DescriptorHead head;
    memcpy(&head, pBytes, sizeof head);
    size_t bytes = sizeof head;
    USHORT usControl = SELF_RELATIVE;
    for (const auto& list : lists) {
        if (!(information & list.Asked)) {
            continue;
        }
        if (head.ulOffsets[list.iOffset] != bytes) {
            return 0;
        }
        USHORT usListBytes;
        memcpy(&usListBytes, pBytes + bytes + LIST_SIZE_OFFSET, sizeof usListBytes);
        bytes += usListBytes;
        usControl |= list.usPresent;
        information &= ~list.Asked;
    }
    return information == 0 && head.ucRevision == 1 && head.usControl == usControl ? bytes : 0;
}

NTSTATUS ZwSetSecurityObject(HANDLE h, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR pDescriptor)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    NTSTATUS status;
    const ACCESS_MASK needed = (information & DACL_SECURITY_INFORMATION ? WRITE_DAC : 0) |
                               (information & LABEL_SECURITY_INFORMATION ? WRITE_OWNER : 0);
    PDEVICE_OBJECT pDevice = static_cast<PDEVICE_OBJECT>(HostFromHandle(h, HostKindDevice, needed, &status));
    if (pDevice == nullptr) {
        return status;
    }
    const size_t bytes = DescriptorBytes(static_cast<const UCHAR*>(pDescriptor), information);
    if (bytes == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (HostShouldFail("security")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostTellOutput("an access list", pDescriptor, bytes);
    HostForgetSecurity(pDevice);
    pDevice->SecurityDescriptor = HostAllocate(bytes, HostSecurityKind, 0, nullptr);
    memcpy(pDevice->SecurityDescriptor, pDescriptor, bytes);
    return STATUS_SUCCESS;
}
