// The emulated keyboards: a bus driver whose physical device objects are USB keyboard interfaces.
//
// A keyboard answers the requests that a filter passes down to it: descriptors, control transfers, class
// requests and interrupt-IN reads. Its reports come from EmuKeyboardReport, in the order in which they are
// given; reports that no read waits for are kept for the next reads. Each controller kind lies in a file of
// its own, which holds nothing but its descriptor tables. Plug and Play requests and control requests come at
// PASSIVE_LEVEL, reads and reports at any level up to DISPATCH_LEVEL.
#pragma once

#include <kernel.h>

// What one kind of keyboard interface is: the bytes of its descriptors and the strings the system shows for
// it.
struct EmuDescriptors {
    const UCHAR* pDevice;        // device descriptor, 18 bytes
    const UCHAR* pConfiguration; // configuration descriptor, whole
    ULONG ulConfiguration;       // its length in bytes
    const UCHAR* pReport;        // HID report descriptor
    ULONG ulReport;              // its length in bytes
    const WCHAR* pMaker;         // string 1
    const WCHAR* pProduct;       // string 2, also the device description
    const WCHAR* pHardwareId;    // the first hardware id
};

// The kinds.
extern const EmuDescriptors EmuBootKeyboard;     // boot.cpp: interface 3/1/1, 8-byte reports
extern const EmuDescriptors EmuPowerKeyboard;    // power.cpp: interface 3/0/0, 2-byte reports
extern const EmuDescriptors EmuConsumerKeyboard; // consumer.cpp: interface 3/0/0, 3-byte reports
extern const EmuDescriptors EmuJaalaaKeyboard;   // controllers.cpp: interface 3/1/2
extern const EmuDescriptors EmuChicKeyboard;     // likewise, vendor 0x7A3C, product 0x0065
extern const EmuDescriptors EmuOtherInterface;   // other.cpp: interface 3/0/1

// Answers one request of the control pipe instead of the descriptor tables. `pSetup` is the setup packet as
// it would be on the wire, also for a descriptor or class request. `pBuffer` holds the data going out or
// takes the answer; `*pulLength` is the buffer's length on entry and the bytes moved on return.
// STATUS_NOT_SUPPORTED leaves the request to the tables; any other status completes it.
// IRQL <= DISPATCH. Lock: none held.
typedef NTSTATUS EmuRequestHook(PVOID pContext, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength);

// Sees every request of the control pipe that reached the keyboard, before anything answers it: the setup
// packet and the data going out (none for a request that reads). IRQL <= DISPATCH. Lock: none held.
typedef VOID EmuRequestObserver(PVOID pContext, const UCHAR* pSetup, const UCHAR* pData, ULONG ulLength);

// Sees every output report (SET_REPORT of type 2, the memory's own excepted) that reached the keyboard, by
// any route, before the hook does. IRQL <= DISPATCH. Lock: none held.
typedef VOID EmuLedObserver(PVOID pContext, const UCHAR* pReport, ULONG ulLength);

// Carries a request of the control pipe to where it is answered later, by EmuKeyboardAnswer with the same ticket; a
// GET_DESCRIPTOR of the configuration excepted, which the tables answer. The data going out are copied; the routine
// does not wait. Any failure completes the request with it. IRQL DISPATCH. Lock: the keyboard's held.
typedef NTSTATUS EmuSendHook(PVOID pContext, ULONG_PTR ulTicket, const UCHAR* pSetup, const UCHAR* pData,
                             ULONG ulLength);
// Nobody waits for the answer of this ticket any more. IRQL <= DISPATCH. Lock: none held.
typedef VOID EmuGiveUpHook(PVOID pContext, ULONG_PTR ulTicket);

enum { EmuEepromBytes = 256, EmuMemoryBytes = 4096 };

// What a keyboard remembers when it is unplugged: one memory for each of the three ways to it. Reads that
// reach beyond an end are cut there, writes stall. The EEPROM has ucEepromUnit * ucEepromCount / 8 bytes, at
// most EmuEepromBytes of them used; the two numbers are the report size in bits and the report count that
// interface 1's report descriptor tells.
struct EmuMemory {
    UCHAR ucEepromUnit, ucEepromCount;
    UCHAR ucEeprom[EmuEepromBytes];       // by HID reports of interface 1
    UCHAR ucByDescriptor[EmuMemoryBytes]; // by descriptor index 0xFD
    UCHAR ucByVendor[EmuMemoryBytes];     // by vendor requests 1 and 9
};

// What a keyboard does with a request that a rule names.
enum EmuAnswer {
    EmuAnswerStatus,    // completes with Status and no data: a stall is STATUS_UNSUCCESSFUL
    EmuAnswerUrbStatus, // moves no data, though its length tells ulAmount bytes; only the URB's status fails
    EmuAnswerShort,     // moves at most ulAmount bytes
    EmuAnswerLate,      // is left pending and answered ulAmount milliseconds later, by a DPC
    EmuAnswerNever,     // is left pending until it is cancelled or the keyboard goes
    EmuAnswerDeaf       // is left pending until the keyboard goes, cancelled or not
};

// A rule for requests of the control pipe. A field of the setup packet that is EmuAny may hold anything. The
// first rule that names a request decides; without one the hook and the tables answer.
enum { EmuAny = -1, EmuMaximumRules = 16 };
struct EmuAnswerRule {
    LONG lType, lRequest, lValue, lIndex;
    EmuAnswer How;
    ULONG ulAmount; // bytes or milliseconds
    NTSTATUS Status;
    ULONG ulSkip;  // so many requests that it names are answered in the ordinary way first
    ULONG ulTimes; // it is used so often, 0 = always
};

// How a keyboard behaves; zeroed = an ordinary one without memory.
struct EmuKeyboardOptions {
    EmuRequestHook* pHook;
    PVOID pHookContext;
    EmuSendHook* pSend; // instead of hook and tables
    EmuGiveUpHook* pGiveUp;
    PVOID pSendContext;
    EmuRequestObserver* pRequest;
    PVOID pRequestContext;
    EmuLedObserver* pLed;
    PVOID pLedContext;
    EmuMemory* pMemory;   // must outlive the keyboard; guarded by the keyboard while it is there
    NTSTATUS StartStatus; // what START_DEVICE completes with
    ULONG ulStartDelayMs; // above 0: START_DEVICE is left pending for so long
    BOOLEAN bPassive; // a report completes its read at the level at which it is given, not at DISPATCH_LEVEL
};

// keyboard.cpp
// The bus driver's entry.
NTSTATUS NTAPI EmuKeyboardEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);
// Makes a keyboard; its device object goes away with REMOVE_DEVICE. The tables must outlive it, the options
// are copied. IRQL PASSIVE. Fails: STATUS_INSUFFICIENT_RESOURCES or the status of the device's creation.
NTSTATUS EmuCreateKeyboard(PDRIVER_OBJECT pDriver, const EmuDescriptors* pDescriptors,
                           const EmuKeyboardOptions* pOptions, PDEVICE_OBJECT* ppPhysical);

// behaviour.cpp
// Replaces the keyboard's rules; requests that are held already stay so. IRQL <= DISPATCH.
// Fails: STATUS_INVALID_PARAMETER above EmuMaximumRules.
NTSTATUS EmuKeyboardSetRules(PDEVICE_OBJECT pPhysical, const EmuAnswerRule* pRules, ULONG ulRules);
// How many requests of the control pipe the keyboard holds. IRQL <= DISPATCH.
ULONG EmuKeyboardHeldRequests(PDEVICE_OBJECT pPhysical);

// Answers a request that went out by pSend, at DISPATCH_LEVEL: its status and, of one that reads, the bytes that came.
// Nothing happens when nobody waits for it any more. IRQL <= DISPATCH.
VOID EmuKeyboardAnswer(PDEVICE_OBJECT pPhysical, ULONG_PTR ulTicket, NTSTATUS Status, const UCHAR* pData,
                       ULONG ulLength);

// memory.cpp
// A fresh memory: an EEPROM of 64 bytes, every byte erased (0xFF). IRQL any.
VOID EmuClearMemory(EmuMemory* pMemory);

// reads.cpp
// The keyboard sends a report: completes the oldest waiting read at DISPATCH_LEVEL (bPassive: at the caller's), or
// keeps it for the next read. A read shorter than the report gets its beginning. IRQL <= DISPATCH. Fails: STATUS_INVALID_PARAMETER
// above 1024 bytes, STATUS_DEVICE_NOT_READY when removed, STATUS_INSUFFICIENT_RESOURCES when 1024 reports are
// kept already.
NTSTATUS EmuKeyboardReport(PDEVICE_OBJECT pPhysical, const UCHAR* pReport, ULONG ulLength);
// The bus reports an error: completes the oldest waiting read with a failure status and no data.
// IRQL <= DISPATCH. Fails: STATUS_NOT_FOUND when no read waits.
NTSTATUS EmuKeyboardFailRead(PDEVICE_OBJECT pPhysical, NTSTATUS Status);
// How many reads wait at the keyboard, how many reports wait for a read. IRQL <= DISPATCH.
ULONG EmuKeyboardPendingReads(PDEVICE_OBJECT pPhysical);
ULONG EmuKeyboardKeptReports(PDEVICE_OBJECT pPhysical);
