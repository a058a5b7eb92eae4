// macro.h - the macro mode: settings and file, mode hotkey, playback, LEDs.
#pragma once

#include "ground/ground.h"
#include "macro/parked.h"

enum { MACRO_TABLE_SIZE = 100 };
enum : ULONG { MACRO_POOL_TAG = 0x76726F4B }; // "Korv" in memory order

// One macro as the file describes it: what starts it, and behind it the reports that it plays.
struct MacroTableRecord {
    USHORT usKey; // high byte 0: a key, the low byte is its usage; else the low byte is a modifier mask
    USHORT usActionCount;

    enum : ULONG { ReportBytes = 8 };
    UCHAR* Action(ULONG ulAction) { return reinterpret_cast<UCHAR*>(this + 1) + ulAction * ReportBytes; }
    const UCHAR* Action(ULONG ulAction) const
    {
        return const_cast<MacroTableRecord*>(this)->Action(ulAction);
    }
};
static_assert(sizeof(MacroTableRecord) == 4, "the reports lie right behind the head");

// The macros of one file, packed from index 0. It does not change once it is published; see table.cpp.
struct MacroTable {
    LONG lUsers; // GlobalMacro.MacroTableLock: 1 while published, + 1 a walk
    MacroTableRecord* Records[MACRO_TABLE_SIZE];
};

// settings.cpp: IRQL = PASSIVE
void InitializeMacros(); // at driver entry
NTSTATUS ReadKorvexParameters(PUNICODE_STRING pRegistryPath);
NTSTATUS SetKorvexKeyboard(PDEVICE_OBJECT device, UCHAR ucOn); // IRQL <= DISPATCH

// file.cpp: IRQL = PASSIVE
NTSTATUS ReadKorvexConfigFile(HANDLE hFile);

// table.cpp: IRQL <= DISPATCH. Lock: takes MacroTableLock.
MacroTable* AcquireMacroTable(); // null: no macros
void ReleaseMacroTable(MacroTable* pTable);
void PublishMacroTable(MacroTable* pTable); // null: no macros any more
void FreeMacroTable();                      // no macros any more

// modeswitch.cpp: the mode hotkey in a report. IRQL <= DISPATCH
NTSTATUS CheckForKorvexModeSwitch(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf, PUCHAR pFound);
NTSTATUS RemoveKorvexHotkeyFromPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf);

// mode.cpp: a completed report. IRQL <= DISPATCH
bool IsMacroModeReport(ULONG ulKeyDefTypes);
void PassMacroMode(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulKbdType, ULONG ulKeyDefTypes);

// playback.cpp: IRQL <= DISPATCH
void InitializePlayback(PDEVICE_OBJECT device, DeviceContext* pContext); // at add-device
void CheckForKorvexHotkey(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen);
KDEFERRED_ROUTINE KorvexDelayCallback;

// leds.cpp: the mode on the Scroll Lock LED
void InitializeKorvexLed(DeviceContext* pContext); // at add-device
NTSTATUS SetKorvexLed(UCHAR ucMode);               // IRQL <= DISPATCH; at PASSIVE it waits for the keyboards
void QueueKorvexLed();                             // IRQL <= DISPATCH; waits for none
IO_WORKITEM_ROUTINE KorvexLedWorkItem;
