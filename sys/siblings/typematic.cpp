// typematic.cpp - the key repeat settings of the system's keyboard class devices.
//
// The class devices are not asked: the driver's own rate and delay (usTypematicRate, usTypematicDelay) hold.
#include "siblings/siblings.h"

#include "control/control.h"

static NTSTATUS CheckKeyboard(ULONG ulDeviceIndex)
{
    PDEVICE_OBJECT device;
    NTSTATUS status = FindDeviceByIndex(ulDeviceIndex, &device);
    if (NT_SUCCESS(status)) {
        ReleaseDevice(device);
    }
    return status;
}

// Leaves the results as they are.
// IRQL = PASSIVE. Fails: unknown index.
NTSTATUS QueryKeyboardTypematic(ULONG ulDeviceIndex, PUSHORT, PUSHORT)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return CheckKeyboard(ulDeviceIndex);
}

// Changes nothing.
// IRQL = PASSIVE. Fails: unknown index.
NTSTATUS SetKeyboardTypematic(ULONG ulDeviceIndex, USHORT, USHORT)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return CheckKeyboard(ulDeviceIndex);
}
