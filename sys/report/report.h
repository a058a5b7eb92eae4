// report.h - the report engine: one completed report in, the report the system shall see out.
//
// Everything here runs on the report road: IRQL <= DISPATCH, no allocation, the report rewritten in place.
#pragma once

#include "ground/ground.h"
#include "hotkeys/modifiers.h"
#include "hotkeys/pass.h"
#include "report/keys.h"

// A handler of one kind of report. IRQL <= DISPATCH. Owns: pBuf stays the caller's, rewritten in place.
// Fails: a report of another shape is left untouched with STATUS_UNSUCCESSFUL.
using ReportHandler = NTSTATUS(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf);

// packet.cpp: what kind of report is it
void InitializeReports(DeviceContext* pContext); // at add-device
ReportHandler DiagUSBPacket;
bool IsAllRollover(ULONG ulLen, const UCHAR* pBuf);

// normal.cpp: the standard report
ReportHandler DiagNormalPacket;

// normal02.cpp: the standard report, simple matching
ReportHandler DiagNormalPacket02;

// extended.cpp: power, consumer and extended-controller reports
ReportHandler DiagPowerPacket;
ReportHandler DiagJaalaaPacket;
ReportHandler DiagJaalaaPacketPower;

// pointofsale.cpp: the report as scan code events
ReportHandler HandleOPOSPacket;
NTSTATUS SendOPOSScanCode(PDEVICE_OBJECT device, ULONG ulScanCode, UCHAR ucBreak, UCHAR ucHasBreak,
                          UCHAR ucTypematic, const KeyDefinition* pDefinition); // null: none, id 0
