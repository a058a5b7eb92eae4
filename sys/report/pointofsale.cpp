// pointofsale.cpp - point-of-sale mode: reports pass as the keyboard sent them.
#include "report/report.h"

NTSTATUS HandleOPOSPacket(PDEVICE_OBJECT, ULONG, PUCHAR)
{
    return STATUS_SUCCESS;
}
