// playback.cpp - the macro mode's road through the reports: mode hotkey, playback, pacing, parked reads.
//
// The macro feature is off: no report holds a mode hotkey, nothing is played back, no timer is set and no
// read is parked. Each routine leaves what it is given as it is.
#include "macro/macro.h"

// Finds no mode hotkey in the report.
// IRQL <= DISPATCH. Fails: never.
NTSTATUS CheckForKorvexModeSwitch(PDEVICE_OBJECT, ULONG, PUCHAR, PUCHAR pFound)
{
    *pFound = 0;
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Fails: never.
NTSTATUS RemoveKorvexHotkeyFromPacket(PDEVICE_OBJECT, ULONG, PUCHAR)
{
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH.
void CheckForKorvexHotkey(PDEVICE_OBJECT, PUCHAR, ULONG) {}

// Sends no LED report.
// IRQL <= DISPATCH. Fails: never.
NTSTATUS SetKorvexLed(UCHAR)
{
    return STATUS_SUCCESS;
}

// Takes no request: it stays the caller's.
// IRQL <= DISPATCH. Fails: always, there is no place.
NTSTATUS ParkReadRequest(PDEVICE_OBJECT, PIRP)
{
    return STATUS_UNSUCCESSFUL;
}

// None is parked.
// IRQL = PASSIVE.
void CompleteParkedReads(PDEVICE_OBJECT) {}

// The pacing timer, which nothing sets.
// IRQL = DISPATCH.
void NTAPI KorvexDelayCallback(PKDPC, PVOID, PVOID, PVOID) {}
