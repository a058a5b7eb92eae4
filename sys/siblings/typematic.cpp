// typematic.cpp - the key repeat settings of the system's keyboard class devices.
//
// The class devices are not asked: the driver's own rate and delay (usTypematicRate, usTypematicDelay) hold.
#include "siblings/siblings.h"

// Leaves the results as they are.
// IRQL = PASSIVE. Fails: never.
NTSTATUS QueryKeyboardTypematic(ULONG, PUSHORT, PUSHORT)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}

// Changes nothing.
// IRQL = PASSIVE. Fails: never.
NTSTATUS SetKeyboardTypematic(ULONG, USHORT, USHORT)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}
