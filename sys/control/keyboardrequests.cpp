// keyboardrequests.cpp - requests that the driver passes to a keyboard itself.
//
// The transfers are not built yet: a request finds its keyboard, sends nothing and brings no data.
#include "control/control.h"

// IRQL <= DISPATCH. Fails: unknown index.
static NTSTATUS CheckIndex(ULONG ulDeviceIndex)
{
    PDEVICE_OBJECT device;
    NTSTATUS status = FindDeviceByIndex(ulDeviceIndex, &device);
    if (NT_SUCCESS(status)) {
        ReleaseDevice(device);
    }
    return status;
}

// Fails: always, no descriptor was read.
NTSTATUS GetDeviceDescriptor(ULONG ulDeviceIndex, PUCHAR pDescriptor)
{
    UNREFERENCED_PARAMETER(pDescriptor);
    NTSTATUS status = CheckIndex(ulDeviceIndex);
    return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS GetStringDescriptor(ULONG ulDeviceIndex, UCHAR, USHORT, PUCHAR, ULONG, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS SetKeyboardLeds(ULONG ulDeviceIndex, UCHAR)
{
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS SendKeyCommand(ULONG ulDeviceIndex, const KeyCommand*)
{
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS ReadQuintoraEEprom(ULONG ulDeviceIndex, USHORT, USHORT, PUCHAR, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS ReadDescriptorMemory(ULONG ulDeviceIndex, USHORT, USHORT, PUCHAR, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS ReadVendorMemory(ULONG ulDeviceIndex, USHORT, USHORT, PUCHAR, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS WriteQuintoraEEprom(ULONG ulDeviceIndex, USHORT, USHORT, const UCHAR*, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS WriteDescriptorMemory(ULONG ulDeviceIndex, USHORT, USHORT, const UCHAR*, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}

NTSTATUS WriteVendorMemory(ULONG ulDeviceIndex, USHORT, USHORT, const UCHAR*, PULONG pulLength)
{
    *pulLength = 0;
    return CheckIndex(ulDeviceIndex);
}
