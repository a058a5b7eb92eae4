// fields.h - the macro mode's fields of the shared records.
#pragma once

#include "ground/frame.h"

struct MacroTable; // the macros in force

struct MacroFields {
    static const ULONG Place;

    PIO_WORKITEM pKorvexWorkItem; // (x) of the queued LED update
    UCHAR ucLedUpdateQueued;      // (x) it will show the mode, whatever that is then
    Mutex LedMutex;               // one LED update at a time, at PASSIVE_LEVEL
};

struct MacroGlobals {
    UCHAR ucKorvexMode;       // (x)
    UCHAR ucKorvexHotkeyHeld; // (x)
    UCHAR ucReportCapture;    // (x) written under CaptureLock
    SpinLock CaptureLock;
    Mutex MacroSettingsMutex; // one reading of the macro settings at a time, at PASSIVE_LEVEL
    SpinLock MacroTableLock;
    MacroTable* pMacroTable GUARDED_BY(MacroTableLock); // null: no macros
};

struct MacroSettings {
    ULONG ulKorvexHotkey;      // (x) 0 = the macro feature is off
    UCHAR ucKorvexLEDDisabled; // (x)
};

extern MacroGlobals& GlobalMacro;
extern MacroSettings& SettingsOfMacro;
