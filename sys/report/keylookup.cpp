// keylookup.cpp - the three look-ups of the key table.
//
// Each walks the rows from the first and takes the first that matches; a one-byte usage of both pages thus
// resolves to the keyboard page. They run while definitions are converted (PASSIVE) and on the report road.
#include "report/keytable.h"

namespace
{
bool HasScanCode(const KeyTableRow& row)
{
    return row.ulScanCode != NO_SCAN_CODE && row.ulScanCode != RESERVED_SCAN_CODE;
}
} // namespace

// The usage and its width of a scan code; the outputs stay untouched when no row has it.
NTSTATUS PS2ToHID(ULONG ulScanCode, PUSHORT pusUsage, PUSHORT pusUsageBytes)
{
    for (const KeyTableRow& row : KeyTable) {
        if (row.ulScanCode == ulScanCode) {
            *pusUsage = row.usUsage;
            *pusUsageBytes = row.usUsageBytes;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNSUCCESSFUL;
}

// The scan code of a one-byte usage. A row without one fails, though its outputs are written.
NTSTATUS HIDToPS2(UCHAR ucUsage, PULONG pulScanCode, PUCHAR pucHasBreak, PUCHAR pucTypematic)
{
    for (const KeyTableRow& row : KeyTable) {
        if (row.usUsage == ucUsage && row.usUsageBytes == 1) {
            *pulScanCode = row.ulScanCode;
            *pucHasBreak = row.ucHasBreak;
            *pucTypematic = row.ucTypematic;
            return HasScanCode(row) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
        }
    }
    return STATUS_UNSUCCESSFUL;
}

// The scan code of a usage of the given width. Rows without one are passed over, their value written.
NTSTATUS HIDToPS2Ex(USHORT usUsage, USHORT usUsageBytes, PULONG pulScanCode, PUCHAR pucHasBreak,
                    PUCHAR pucTypematic)
{
    for (const KeyTableRow& row : KeyTable) {
        if (row.usUsage != usUsage || row.usUsageBytes != usUsageBytes) {
            continue;
        }
        *pulScanCode = row.ulScanCode;
        if (HasScanCode(row)) {
            *pucHasBreak = row.ucHasBreak;
            *pucTypematic = row.ucTypematic;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNSUCCESSFUL;
}
