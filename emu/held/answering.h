// Devices that open, close and answer as somebody tells them: the system's keyboard classes and the siblings.
//
// The driver of such devices lets SetAnsweringEntries fill its table and adds the requests of its kind; each
// device's extension begins with an AnsweringDevice.
#pragma once

#include "emu/held/held.h"

// How a device answers; zeroed = at once and with success.
struct EmuReply {
    NTSTATUS Status;   // what requests complete with
    ULONG ulDelayMs;   // above 0: pending for so long, completed by a timer
    BOOLEAN bHold;     // pending until the device is told to answer, is removed, or the request is cancelled
    NTSTATUS Open;     // what opening the device completes with
    BOOLEAN bHoldOpen; // opening is left pending like that
};

// The begin of the extension; (i) InitializeAnswering, then as told.
struct AnsweringDevice {
    KSPIN_LOCK Lock; // guards Answer, and what a kind keeps beside it
    EmuReply Answer;
    HeldRequests Held;
};

// Fills what opens, closes and unloads into the driver's table. IRQL PASSIVE.
VOID SetAnsweringEntries(PDRIVER_OBJECT pDriver);
// Makes a device whose requests are buffered and which answers at once, with success; the extension is zeroed
// behind its AnsweringDevice. pName null: none. It is in its making until AnsweringReady. IRQL PASSIVE.
// Fails: the status of the creation; the name is taken.
NTSTATUS CreateAnswering(PDRIVER_OBJECT pDriver, PUNICODE_STRING pName, ULONG ulType, ULONG ulExtension,
                         PDEVICE_OBJECT* ppDevice);
VOID AnsweringReady(PDEVICE_OBJECT pDevice);
// How it answers now. IRQL <= DISPATCH. Lock: takes Lock.
EmuReply AnswerOf(AnsweringDevice* pAnswering);

// For tests. How it answers from now on; answers what it holds; tells how many requests that are.
// IRQL <= DISPATCH. Lock: takes its own.
VOID EmuSetAnswer(PDEVICE_OBJECT pDevice, const EmuReply* pAnswer);
VOID EmuReleaseHeld(PDEVICE_OBJECT pDevice);
ULONG EmuCountHeld(PDEVICE_OBJECT pDevice);
