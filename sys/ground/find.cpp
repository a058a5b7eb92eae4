// find.cpp - which keyboard does a request mean: by its index, or by the name of its device interface.
//
// Both walk the keyboards newest first. A walk references the device that it looks at, so none goes away
// under it.
#include "ground/ground.h"

namespace
{
enum {
    LINK_PREFIX_CHARS = 4, // "\??\", skipped by count
    NAME_CHARS = 258,      // of the longest name that a request can hold
};

// Copies the link name behind its prefix when it is as long as the name that is looked for: the comparison
// reads pageable tables, so it cannot run under the lock.
// IRQL = PASSIVE. Lock: takes InterfaceLock. Fails: false, no link name or one of another length.
bool CopyLinkName(DeviceContext* pContext, USHORT usBytes, PWCHAR pCopy)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    LockScope lock(frame.InterfaceLock);
    const UNICODE_STRING& link = frame.InterfaceLinkName;
    if (link.Buffer == nullptr || link.Length != LINK_PREFIX_CHARS * sizeof(WCHAR) + usBytes) {
        return false;
    }
    RtlCopyMemory(pCopy, link.Buffer + LINK_PREFIX_CHARS, usBytes);
    return true;
}

bool HasInterfaceName(DeviceContext* pContext, PCUNICODE_STRING pName)
{
    WCHAR Copy[NAME_CHARS];
    if (!CopyLinkName(pContext, pName->Length, Copy)) {
        return false;
    }
    UNICODE_STRING link = {pName->Length, pName->Length, Copy};
    return RtlCompareUnicodeString(&link, pName, TRUE) == 0;
}
} // namespace

// IRQL <= DISPATCH. Owns: the device comes referenced, the caller releases it. Fails: no such keyboard.
NTSTATUS FindDeviceByIndex(ULONG ulDeviceIndex, PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    AllKeyboards keyboards;
    for (PDEVICE_OBJECT device : keyboards) {
        if (IndexOf(device) == ulDeviceIndex) {
            *ppDevice = keyboards.Keep();
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNSUCCESSFUL;
}

// The name is the link name without its first four characters, in any mix of upper and lower case.
// IRQL = PASSIVE. Lock: takes each InterfaceLock. Fails: no name, no such keyboard.
NTSTATUS FindDeviceByInterfaceName(PCWSTR pszName, PULONG pulDeviceIndex)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (pszName == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pszName);
    if (name.Length == 0 || name.Length > NAME_CHARS * sizeof(WCHAR)) {
        return STATUS_UNSUCCESSFUL;
    }
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        DeviceContext* pContext = FilterContextOf(device);
        if (HasInterfaceName(pContext, &name)) {
            *pulDeviceIndex = IndexOf(device);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNSUCCESSFUL;
}
