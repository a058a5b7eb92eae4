// arrivals.cpp - the arrival of the sibling drivers' interfaces.
//
// The system calls these at PASSIVE_LEVEL while the control device exists. An arrival is taken note of by
// nobody: the siblings stay unconnected.
#include "siblings/siblings.h"

// IRQL = PASSIVE. Fails: never.
NTSTATUS NTAPI Ps2KeyboardArrival(PVOID, PVOID)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}

// IRQL = PASSIVE. Fails: never.
NTSTATUS NTAPI Ps2MouseArrival(PVOID, PVOID)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}

// IRQL = PASSIVE. Fails: never.
NTSTATUS NTAPI UsbMouseArrival(PVOID, PVOID)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}
