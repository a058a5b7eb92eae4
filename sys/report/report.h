// report.h - the report engine: one completed report in, the report the system shall see out.
//
// Everything here runs on the report road: IRQL <= DISPATCH, no allocation, the report rewritten in place.
#pragma once

#include "driver/driver.h"
#include "hotkeys/pass.h"

// A handler of one kind of report. IRQL <= DISPATCH. Owns: pBuf stays the caller's, rewritten in place.
// Fails: a report of another shape is left untouched with STATUS_UNSUCCESSFUL.
using ReportHandler = NTSTATUS(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf);

enum : UCHAR {
    USAGE_ROLLOVER = 0x01, // too many keys
    USAGE_ESCAPE = 0x29,
    USAGE_CAPS_LOCK = 0x39,
    USAGE_SCROLL_LOCK = 0x47,
    USAGE_NUM_LOCK = 0x53,
    USAGE_CONTEXT_KEY = 0x65,
    USAGE_FN = 0xA5,
    USAGE_VOLUME_UP = 0xE9,
    USAGE_VOLUME_DOWN = 0xEA,
};

// The bits of the modifier word that follow from a report's modifier byte.
enum : ULONG { MODIFIER_OF_BYTE = 0x3DFE };

// packet.cpp: what kind of report is it
ReportHandler DiagUSBPacket;
ULONG FirstKeyPosition(ULONG ulLen); // 2 for length 8, 1 for length 3, else 0
bool IsRolloverPacket(ULONG ulLen, const UCHAR* pBuf);
bool IsKeyInPacket(UCHAR ucUsage, const UCHAR* pBuf, ULONG ulLen);

// calm.cpp: the quick way of a standard report that means nothing to anybody; false: it needs the long one
bool PassCalmReport(DeviceContext* pContext, const UCHAR* pBuf);

// normal.cpp: the standard report
ReportHandler DiagNormalPacket;

// normal02.cpp: the standard report, simple matching
ReportHandler DiagNormalPacket02;

// modifiers.cpp: the modifier word of all keyboards
void UpdateModifierFlags(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucFlag);
bool IsModifierMaskMatched(ULONG ulMask, ULONG ulFlags);
UCHAR ReportBitsOf(ULONG ulModifiers);    // bits of the report's modifier byte
ULONG WordOfModifiers(UCHAR ucModifiers); // what that byte sets in the word
bool IsPrefixUsage(UCHAR ucUsage);        // one of the three prefix keys

// hotkeymodifiers.cpp: what the modifier word means to the hotkeys
void UpdateHotkeyModifierMatch(HotkeyPass& pass);
void CheckModifierOnlyHotkeys(HotkeyPass& pass, PUCHAR pBuf); // rewrites byte 0
void NotifyHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, UCHAR ucDown);

// extended.cpp: power, consumer and extended-controller reports
ReportHandler DiagPowerPacket;
ReportHandler DiagJaalaaPacket;
ReportHandler DiagJaalaaPacketPower;

// pointofsale.cpp: the report as scan code events
ReportHandler HandleOPOSPacket;
NTSTATUS SendOPOSScanCode(PDEVICE_OBJECT device, ULONG ulScanCode, UCHAR ucBreak, UCHAR ucHasBreak,
                          UCHAR ucTypematic, const KeyDefinition* pDefinition); // null: none, id 0
