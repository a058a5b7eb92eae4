// mode.cpp - a completed report in the macro mode, or while the application records.
//
//   mode hotkey in it ──► the mode flips, the report goes on without the hotkey
//   the application records ──► it gets the report, the system an empty one
//   the mode is on ──► playback.cpp
#include "macro/macro.h"

#include "control/notification.h"
#include "ground/sums.h"
#include "hotkeys/fields.h"
#include "macro/fields.h"

namespace
{
// The application records: it gets the report and the system an empty one.
void CaptureReport(PUCHAR pBuf, ULONG ulLen)
{
    MacroRecord record = {};
    record.usType = MACRO_RECORD_REPORT;
    record.ucLength = static_cast<UCHAR>(LowerOf(ulLen, sizeof(record.ucReport)));
    RtlCopyMemory(record.ucReport, pBuf, record.ucLength);
    (void)QueueMacroRecord(&record); // the application sees a loss as a gap
    SignalMacroEvent();
    RtlZeroMemory(pBuf, ulLen);
}

// The mode hotkey is in the report: its press flips the mode, and the report goes on without it.
void PassModeHotkey(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen)
{
    if (ExchangeShared(GlobalMacro.ucKorvexHotkeyHeld, 1) == 0) {
        UCHAR ucMode = static_cast<UCHAR>(ReadShared(GlobalMacro.ucKorvexMode) ^ 1);
        WriteShared(GlobalMacro.ucKorvexMode, ucMode);
        MacroRecord record = {};
        record.usType = MACRO_RECORD_MODE;
        record.ucMode = ucMode;
        (void)QueueMacroRecord(&record); // the application sees a loss as a gap
        SignalMacroEvent();
        if (!ReadShared(SettingsOfMacro.ucKorvexLEDDisabled)) {
            QueueKorvexLed(); // the mode stays switched without its LED
        }
    }
    (void)RemoveKorvexHotkeyFromPacket(device, ulLen, pBuf);
}
} // namespace

// Whether a report is for the macro mode, by the definitions of its keyboard.
// IRQL any.
bool IsMacroModeReport(ULONG ulKeyDefTypes)
{
    return ReadShared(SettingsOfMacro.ulKorvexHotkey) != 0 &&
           ((ulKeyDefTypes & KEYDEF_MACRO_MODE) || ReadShared(GlobalMacro.ucReportCapture) == 1 ||
            ReadShared(GlobalMacro.ucKorvexMode) == 1);
}

// IRQL <= DISPATCH. Owns: rewrites the report. Fails: a full queue drops what the application would be told.
void PassMacroMode(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulKbdType, ULONG ulKeyDefTypes)
{
    UCHAR ucFound = 0;
    if (ulKeyDefTypes & KEYDEF_MACRO_MODE) {
        (void)CheckForKorvexModeSwitch(device, ulLen, pBuf, &ucFound);
    }
    if (ucFound) {
        PassModeHotkey(device, pBuf, ulLen);
        return;
    }
    WriteShared(GlobalMacro.ucKorvexHotkeyHeld, 0);
    if (ReadShared(GlobalMacro.ucReportCapture) == 1 && ulKbdType == NORMALKbdType) {
        CaptureReport(pBuf, ulLen);
    } else if (ReadShared(GlobalMacro.ucKorvexMode) == 1) {
        CheckForKorvexHotkey(device, pBuf, ulLen);
    }
}
