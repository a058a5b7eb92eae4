// extended.cpp - power, consumer and extended-controller reports.
//
// These reports pass as the keyboard sent them: no handler acts on them.
#include "report/report.h"

NTSTATUS DiagPowerPacket(PDEVICE_OBJECT, ULONG, PUCHAR)
{
    return STATUS_SUCCESS;
}

NTSTATUS DiagJaalaaPacket(PDEVICE_OBJECT, ULONG, PUCHAR)
{
    return STATUS_SUCCESS;
}

NTSTATUS DiagJaalaaPacketPower(PDEVICE_OBJECT, ULONG, PUCHAR)
{
    return STATUS_SUCCESS;
}
