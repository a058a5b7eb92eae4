// The emulated keyboard class devices, "\Device\KeyboardClass0" to 4: they hold the system's key repeat.
//
// A class device answers the typematic query with its rate and delay and takes new ones by the typematic set,
// at once or later. What it is told to answer with an error it does not take.
#pragma once

#include "emu/held/answering.h"

// What a class device holds and what came to it.
struct EmuClassState {
    USHORT usRate; // characters per second
    USHORT usDelayMs;
    ULONG ulQueries;
    ULONG ulSets;
};

// The driver's entry.
NTSTATUS NTAPI EmuClassEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);
// Makes "\Device\KeyboardClassN". IRQL PASSIVE. Fails: the status of the creation; the name is taken.
NTSTATUS EmuCreateClassDevice(PDRIVER_OBJECT pDriver, USHORT usNumber, PDEVICE_OBJECT* ppDevice);
// Takes the device away; what it holds fails. IRQL PASSIVE.
VOID EmuRemoveClassDevice(PDEVICE_OBJECT pDevice);
// What it answers with from now on. IRQL <= DISPATCH. Lock: takes its own.
VOID EmuSetClassTypematic(PDEVICE_OBJECT pDevice, USHORT usRate, USHORT usDelayMs);
VOID EmuGetClassState(PDEVICE_OBJECT pDevice, EmuClassState* pState);
