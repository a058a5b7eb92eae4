// macro.h - the macro mode: settings and file, mode hotkey, playback, parked reads.
#pragma once

#include "driver/driver.h"

// settings.cpp: IRQL = PASSIVE
NTSTATUS ReadKorvexParameters(PUNICODE_STRING pRegistryPath);
NTSTATUS SetKorvexKeyboard(PDEVICE_OBJECT device, UCHAR ucOn); // IRQL <= DISPATCH
void FreeMacroTable();                                         // empties MacroTable

// playback.cpp: IRQL <= DISPATCH
NTSTATUS CheckForKorvexModeSwitch(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf, PUCHAR pFound);
NTSTATUS RemoveKorvexHotkeyFromPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf);
void CheckForKorvexHotkey(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen);
NTSTATUS SetKorvexLed(UCHAR ucMode);
NTSTATUS ParkReadRequest(PDEVICE_OBJECT device, PIRP request);
void CompleteParkedReads(PDEVICE_OBJECT device); // at removal
KDEFERRED_ROUTINE KorvexDelayCallback;
