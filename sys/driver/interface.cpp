// interface.cpp - each keyboard's device interface, by whose name an application finds the keyboard's index.
//
// In:  the physical device of a keyboard that is started.
// Out: InterfaceLinkName, from the first start to the removal.
// Runs at PASSIVE_LEVEL in Plug and Play threads.
#include "driver/driver.h"

#include "driver/fields.h"

namespace
{
const GUID KeyboardInterfaceClass = {
    0x3B7E91C4, 0x5A2D, 0x4F60, {0x9C, 0x1E, 0x7D, 0x84, 0xA2, 0xF0, 0xB6, 0x13}};

// Moves the system's name, which lies in paged pool, into memory that may be read under a spin lock.
// IRQL = PASSIVE. Owns: frees the system's name, the caller frees the copy. Fails: no memory.
NTSTATUS MoveToNonPaged(PUNICODE_STRING pSystemName, PUNICODE_STRING pCopy)
{
    pCopy->Length = pSystemName->Length;
    pCopy->MaximumLength = pSystemName->Length;
    pCopy->Buffer = static_cast<PWCH>(AllocateZeroed(NonPagedPoolNx, pSystemName->Length));
    if (pCopy->Buffer != nullptr) {
        RtlCopyMemory(pCopy->Buffer, pSystemName->Buffer, pSystemName->Length);
    }
    RtlFreeUnicodeString(pSystemName);
    return pCopy->Buffer != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

// IRQL = PASSIVE. Lock: takes InterfaceLock. Owns: the link name until WithdrawInterface. Fails: no
// interface.
NTSTATUS RegisterInterface(DeviceContext* pContext)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    UNICODE_STRING systemName;
    UNICODE_STRING linkName;
    NTSTATUS status =
        IoRegisterDeviceInterface(frame.pPhysicalDevice, &KeyboardInterfaceClass, nullptr, &systemName);
    if (NT_SUCCESS(status)) {
        status = MoveToNonPaged(&systemName, &linkName);
    }
    if (NT_SUCCESS(status)) {
        LockScope lock(frame.InterfaceLock);
        frame.InterfaceLinkName = linkName;
        roof.ucInterfaceRegistered = 1;
    }
    return status;
}
} // namespace

// Registered once in the keyboard's life, however often it is started.
// IRQL = PASSIVE. Lock: takes InterfaceLock. Fails: no interface.
NTSTATUS PublishInterface(DeviceContext* pContext)
{
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    NTSTATUS status = STATUS_SUCCESS;
    if (roof.ucInterfaceRegistered == 0) {
        status = RegisterInterface(pContext);
    }
    if (NT_SUCCESS(status)) {
        IoSetDeviceInterfaceState(&frame.InterfaceLinkName,
                                  TRUE); // without it applications cannot find it
    }
    return status;
}

// IRQL = PASSIVE. Lock: takes InterfaceLock.
void WithdrawInterface(DeviceContext* pContext)
{
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    PWCH pName;
    if (roof.ucInterfaceRegistered != 1) {
        return;
    }
    IoSetDeviceInterfaceState(&frame.InterfaceLinkName, FALSE);
    {
        LockScope lock(frame.InterfaceLock);
        pName = frame.InterfaceLinkName.Buffer;
        RtlZeroMemory(&frame.InterfaceLinkName, sizeof(frame.InterfaceLinkName));
        roof.ucInterfaceRegistered = 0;
    }
    ExFreePoolWithTag(pName, POOL_TAG);
}
