// keytable.h - every key the driver knows: usage, scan code, controller patterns, behaviour, name.
//
// Usages are those of the HID Usage Tables' keyboard page (rows 0 to 254) and consumer page; scan codes are
// PS/2 scan code set 1 make codes, sent from the most significant non-zero byte down.
#pragma once

#include <kernel.h>

enum { KEY_TABLE_ROWS = 292, TYPEMATIC_DELAYS = 4, TYPEMATIC_PERIODS = 32 };
enum : ULONG { NO_SCAN_CODE = 0xFFFFFFFF, RESERVED_SCAN_CODE = 0xEEEEEEEE };

struct KeyTableRow {
    ULONG ulHIDChic;   // pattern in Chic extended reports, 0 = none
    ULONG ulHIDJaalaa; // pattern in Jaalaa extended reports, 0 = none
    USHORT usUsage;
    USHORT usUsageBytes; // 1 or 2
    UCHAR ucHasBreak;    // a release produces a break code
    UCHAR ucTypematic;   // repeats while held
    USHORT usReserved;
    ULONG ulScanCode; // or NO_SCAN_CODE, RESERVED_SCAN_CODE
    ULONG ulReserved;
    const char* pszName;
};

struct TypematicPeriod {
    ULONGLONG ullPeriodMs;
    double dCharactersPerSecond;
};

// keytable.cpp
extern const KeyTableRow KeyTable[KEY_TABLE_ROWS];
extern const char* const ModifierNames[8];                 // by bit of the modifier byte
extern const USHORT TypematicDelayTable[TYPEMATIC_DELAYS]; // milliseconds
extern const TypematicPeriod TypematicPeriodTable[TYPEMATIC_PERIODS];

// keylookup.cpp: linear, first match wins. IRQL any. Fails: no such row.
NTSTATUS PS2ToHID(ULONG ulScanCode, PUSHORT pusUsage, PUSHORT pusUsageBytes);
NTSTATUS HIDToPS2(UCHAR ucUsage, PULONG pulScanCode, PUCHAR pucHasBreak, PUCHAR pucTypematic);
NTSTATUS HIDToPS2Ex(USHORT usUsage, USHORT usUsageBytes, PULONG pulScanCode, PUCHAR pucHasBreak,
                    PUCHAR pucTypematic);
