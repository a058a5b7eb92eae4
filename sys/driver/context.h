// context.h - the four shared records of the driver, and nothing else.
//
//   DeviceContext    the extension of each filter device, one a keyboard
//   ControlContext   the extension of the control device
//   DriverSettings   what the registry says, read at driver entry
//   DriverGlobals    the driver-wide run-time state
//
// Who may touch a field:  (i) set before the device is attached, then constant
//                         (p) Plug and Play at PASSIVE_LEVEL
//                         (r) the report road of the keyboard
//                         (x) atomic only, see shared.h
//                         or the lock that guards it.
// Driver entry zeroes the driver-wide records, so a driver that is loaded anew starts from nothing.
#pragma once

#include <kernel.h>

#include "control/requests.h"
#include "ground/lock.h"

enum : ULONG {
    CONTROL_DEVICE_KIND = 1,
    FILTER_DEVICE_KIND = 2,
};

// The keyboard's controller type.
enum : ULONG {
    UnknownKbdType = 0,
    NORMALKbdType = 1,
    POWERKbdType = 2,
    JaalaaEXTENDEDKbdType = 3,
    ChicEXTENDEDKbdType = 4,
    OTHERKbdType = 5,
};

enum {
    PROPERTY_CHARS = 256,       // 512 bytes
    KEY_DEFINITION_SLOTS = 512, // the last slot stays null
    HOTKEY_LIST_SIZE = 512,
    HOTKEY_SET_WORDS = HOTKEY_LIST_SIZE / 64,
    KEY_BUFFER_SIZE = 1024,
    FIFO_SIZE = 16,
    PENDING_IRP_SIZE = 100,
    DISCARD_RING_SIZE = 128,
    NOTIFY_QUEUE_SIZE = 1024,
    MACRO_QUEUE_SIZE = 1024,
    MACRO_TABLE_SIZE = 100,
    PARKED_REQUEST_SIZE = 200,
};

enum : ULONG { POOL_TAG = 0x36547654 }; // "TvT6" in memory order

// Bits of ulKeyDefTypes: bit t - 1 says that a definition of type t exists.
enum : ULONG {
    KEYDEF_HOTKEY = 0x0001,
    KEYDEF_POINT_OF_SALE = 0x0010,
    KEYDEF_DISCARD = 0x0400,
    KEYDEF_MACRO_MODE = 0x4000, // not derived: the keyboard takes part in the macro mode
};

struct HotkeyIndex; // owned by hotkeys/
struct MacroTable;  // the macros in force, owned by macro/

// A report value held back in discard mode.
struct DiscardEntry {
    UCHAR ucValue;
    UCHAR ucIsModifier;
};

// A timer and its deferred call.
struct TimerWithDpc {
    KTIMER Timer;
    KDPC Dpc;
};

// A timer of the key repeat.
struct TypematicTimer : TimerWithDpc {
    ULONGLONG ullDue; // TypematicLock: interrupt time at which its callback shall act, 0 = not at all
};

struct DeviceContext {
    // Frame.
    ULONG ulDeviceKind;             // (x) FILTER_DEVICE_KIND, written last, when the record is complete
    ULONG ulDeviceIndex;            // (i) by which applications address the keyboard
    PDEVICE_OBJECT pLowerDevice;    // (i)
    PDEVICE_OBJECT pPhysicalDevice; // (i)
    WCHAR DeviceDescription[PROPERTY_CHARS] GUARDED_BY(InterfaceLock); // read at start
    WCHAR HardwareId[PROPERTY_CHARS] GUARDED_BY(InterfaceLock);        // multi-string
    WCHAR PhysicalDeviceObjectName[PROPERTY_CHARS] GUARDED_BY(InterfaceLock);
    UCHAR ucSendUpEventImmediately;   // (i)
    UCHAR ucRunDiagNormalPacket02;    // (i)
    UCHAR ucStarted;                  // (p) counted in usStartedKeyboards
    UCHAR ucKeyboardCounted;          // (p) counted in usKeyboardCount
    UCHAR ucInterfaceRegistered;      // (p) InterfaceLinkName is owned
    UNICODE_STRING InterfaceLinkName; // (p) changed under InterfaceLock, which readers take too
    SpinLock InterfaceLock;           // what the system tells of the keyboard

    // Life: see ground/keyboards.cpp.
    PDEVICE_OBJECT pNextKeyboard; // KeyboardListLock
    LONG lReferences;             // (x) 1 while attached, + 1 a user
    UCHAR ucRemoving;             // (x) no new references
    KEVENT ReferencesGone;        // notification, set when lReferences falls to 0

    // URB interception.
    SpinLock PendingIrpLock;
    PIRP PendingIrps[PENDING_IRP_SIZE] GUARDED_BY(PendingIrpLock); // oldest first
    ULONG ulPendingIrpCount GUARDED_BY(PendingIrpLock);
    PIRP pPendingReadIrp;                           // (x) = PendingIrps[0], written under PendingIrpLock
    PIRP pCancellingIrp GUARDED_BY(PendingIrpLock); // being cancelled by CancelPendingRead
    UCHAR ucCancelledCompleted GUARDED_BY(PendingIrpLock); // its completion came meanwhile and waits
    LONG lMissedCalls;                                     // (x) CancelPendingRead found none
    ULONG ulIrpCancelledForInsert;                         // (x)
    SpinLock AnswerLock;                        // reads answered above the keyboard that wait to be completed
    PIRP pFirstAnswered GUARDED_BY(AnswerLock); // oldest first, linked through Tail.Overlay.ListEntry.Flink
    PIRP pLastAnswered GUARDED_BY(AnswerLock);
    UCHAR ucAnswering GUARDED_BY(AnswerLock); // somebody is completing them
    SpinLock DiscardLock;
    DiscardEntry DiscardRing[DISCARD_RING_SIZE] GUARDED_BY(DiscardLock);
    ULONG ulDiscardWrite GUARDED_BY(DiscardLock);
    ULONG ulDiscardRead GUARDED_BY(DiscardLock);
    ULONG ulDiscardCount;    // (x) written under DiscardLock
    UCHAR ucSendEmptyPacket; // (x) the next read releases the inserted keys
    UCHAR ucKbdModifiers;    // (x) byte 0 of the last completed 8-byte report
    USHORT usLedReport;      // (x) HID form: Num 1, Caps 2, Scroll 4
    USHORT usLedFlags;       // (x) indicator form: Scroll 1, Num 2, Caps 4
    ULONG ulControlPipe;     // (x) low 32 bits of the last control pipe handle
    UCHAR ucReservedStatus;  // (i) 0

    // What the descriptors say.
    ULONG KbdType;       // (x) set once
    UCHAR ucDeviceClass; // (x) each
    UCHAR ucDeviceSubClass;
    UCHAR ucInterfaceClass;
    UCHAR ucInterfaceSubClass;
    UCHAR ucInterfaceProtocol;
    USHORT usVendorID;
    USHORT usProductID;

    // Report engine.
    UCHAR ucOldPacket[8];      // (r) the previous standard report as sent
    UCHAR ucOldPowerPacket[2]; // (r)
    UCHAR ucOldOPOSPacket[8] GUARDED_BY(BufferLock);

    // Key definitions and the hotkey lists made from them.
    Mutex DefinitionMutex; // one change of the definitions at a time, at PASSIVE_LEVEL
    SpinLock KeyDefLock;   // a definition found under it is not freed
    KeyDefinition* KeyDefinitions[KEY_DEFINITION_SLOTS] GUARDED_BY(KeyDefLock);
    UCHAR ucDefinitionHashes[KEY_DEFINITION_SLOTS]; // of their ids. KeyDefLock
    USHORT usDefinitions;                           // how many there are. KeyDefLock
    ULONG ulHotkeyDefinitions;                      // of type 1. DefinitionMutex
    ULONG ulKeyDefTypes;                            // (x)

    // The hotkeys, see hotkeys/index.h, and what the report road knows of them.
    ULONGLONG ullHotkeys; // (x) what is published; written under DefinitionMutex
    HotkeyIndex*
        pHotkeyIndexes[2];      // published and aside; changed under DefinitionMutex while nobody walks it
    LONG lHotkeyWalks[2];       // (x) walks under way in each
    UCHAR ucKeyMeans[256];      // (x) of a usage: it is no mere key, see report/calm.cpp
    UCHAR ucModifiersMean[256]; // (x) of a modifier byte: likewise
    ULONGLONG ullHeldHotkeys[HOTKEY_SET_WORDS];  // (r) a bit for each that is down or has a key held
    ULONGLONG ullReadyHotkeys[HOTKEY_SET_WORDS]; // (r) of these, each that is down or has all its keys held
    UCHAR ucAnyHotkeyHeld;                       // (r) is any, since the last report that looked at hotkeys
    ULONG ulHeldOf;                              // (r) generation of the hotkeys that they are
    ULONGLONG ullHotkeyScan;                     // (r) keys looked up so far

    // Hotkey matching.
    UCHAR ucHotkeyActive;   // (x)
    ULONG ulActiveHotkeyId; // (x) the hotkey whose event was sent last
    USHORT usTypematicScan; // (x) the point-of-sale key to repeat
    SpinLock TypematicLock;
    TypematicTimer TypematicDelay;  // TypematicDelayTimer and its deferred call
    TypematicTimer TypematicRepeat; // TypematicRepeatTimer and its deferred call

    // Keys held back and keys to give.
    SpinLock BufferLock; // leaf: guards the two buffers and ucOldOPOSPacket
    UCHAR SwallowBuf[KEY_BUFFER_SIZE] GUARDED_BY(BufferLock);
    USHORT usSwallowCount; // (x) written under BufferLock
    UCHAR InsertBuf[KEY_BUFFER_SIZE] GUARDED_BY(BufferLock);
    USHORT usInsertCount;          // (x) written under BufferLock
    UCHAR ucInsertModifiers;       // (x) modifier byte that InsertScans wants
    UCHAR ucInsertModifierPending; // (x)
    KEVENT InsertModifierEvent;    // synchronization, set when that report was placed
    KEVENT InsertScansTurn;        // synchronization, set: one waiting InsertScans at a time

    // Whole reports to insert.
    SpinLock FifoLock;
    FifoEntry Fifo[FIFO_SIZE] GUARDED_BY(FifoLock);
    ULONG ulFifoWrite GUARDED_BY(FifoLock);
    ULONG ulFifoRead GUARDED_BY(FifoLock);
    ULONG ulFifoCount; // (x) written under FifoLock
    KEVENT FifoEvent;  // synchronization, set when the queue has run empty
    LONG lFifoWaiters; // (x)

    // Macro playback.
    TimerWithDpc KorvexDelay; // KorvexDelayTimer and its deferred call
    SpinLock ParkLock;
    ULONG ulParkedCount GUARDED_BY(ParkLock);
    PIRP ParkedRequests[PARKED_REQUEST_SIZE] GUARDED_BY(ParkLock); // oldest first
    PIRP pFirstParked;                                             // (x) = ParkedRequests[0]
    UCHAR ucKorvexDelayArmed GUARDED_BY(ParkLock);                 // this keyboard's timer is armed
    PIO_WORKITEM pKorvexWorkItem;                                  // (x) of the queued LED update
    UCHAR ucLedUpdateQueued; // (x) it will show the mode, whatever that is then
    Mutex LedMutex;          // one LED update at a time, at PASSIVE_LEVEL

    // Application notification.
    SpinLock NotifyLock;
    PKEVENT pNotifyEvent GUARDED_BY(NotifyLock); // referenced
    ULONGLONG hNotifyEvent GUARDED_BY(NotifyLock);
    UCHAR ucReportProcessing; // (x)
    NotifyRecord NotifyQueue[NOTIFY_QUEUE_SIZE] GUARDED_BY(NotifyLock);
    ULONG ulNotifyWrite GUARDED_BY(NotifyLock);
    ULONG ulNotifyRead GUARDED_BY(NotifyLock);
    ULONG ulNotifyCount GUARDED_BY(NotifyLock);
};

// What is known of one sibling driver.
struct SiblingLink {
    PVOID hInterfaceNotification; // (p) null if the registration failed
    PIO_WORKITEM pWorkItem;       // (x) queued and not begun; its routine takes it off and frees it
    UCHAR ucConnected;            // (x) written under SiblingLock
    ULONG ulRemovals;             // SiblingLock: how often the last of the sibling's interfaces went
};

struct ControlContext {
    ULONG ulDeviceKind;          // (i) CONTROL_DEVICE_KIND
    PKEVENT pApplicationEvent;   // EventLock; referenced
    ULONGLONG hApplicationEvent; // EventLock
    KEVENT ClosedEvent;          // notification: no handle of the driver is open
    LONG lNotifications;      // (x) 1 while the device is in use, + 1 a modifier word on its way to the mice
    KEVENT NotificationsGone; // notification, set when lNotifications falls to 0
    SiblingLink Ps2Mouse;
    SiblingLink UsbMouse;
    SiblingLink Ps2Keyboard;
};

struct DriverSettings { // constant after driver entry, but for the macro settings (x)
    ULONG ulPrefix1;
    ULONG ulPrefix2;
    ULONG ulPosKeyPrefix;
    ULONG ulSendUpEventImmediately;
    ULONG ulRunDiagNormalPacket02;
    UNICODE_STRING LogFileName; // capacity 255 bytes in a 265-byte buffer
    ULONG ulLogLevel;
    ULONG ulLogFileSize;       // bytes
    ULONG ulKorvexHotkey;      // (x) 0 = the macro feature is off
    UCHAR ucKorvexLEDDisabled; // (x)
    ULONG ulKorvexDelay;       // (x) milliseconds, 0 = no pacing
};

struct DriverGlobals {
    // Frame.
    PDRIVER_OBJECT pDriverObject;
    UNICODE_STRING RegistryPathCopy;
    UNICODE_STRING ParametersPath;
    ULONG ulNextDeviceIndex;   // (p)
    UCHAR ucRefuseAttach;      // (p)
    USHORT usStartedKeyboards; // KeyboardListLock
    SpinLock KeyboardListLock;
    PDEVICE_OBJECT pFirstKeyboard GUARDED_BY(KeyboardListLock); // newest first
    PDEVICE_OBJECT pControlDevice; // (x) written under ControlDeviceMutex and KeyboardListLock
    USHORT usKeyboardCount;        // (x) written in Plug and Play
    USHORT usOpenCount GUARDED_BY(ControlDeviceMutex);
    Mutex ControlDeviceMutex; // creation, deletion, open and close: one after the other
    USHORT usTypematicRate;   // (x) index into TypematicPeriodTable
    USHORT usTypematicDelay;  // (x) index into TypematicDelayTable

    // Modifiers and prefixes of all keyboards.
    ULONG ulModifierFlags;   // (x)
    ULONG ulPrefixReleased;  // (x)
    ULONG ulPrefixUnmatched; // (x)
    UCHAR ucPrefix1Usage;
    UCHAR ucPrefix2Usage;
    UCHAR ucPosKeyPrefixUsage;

    // Hotkeys of all keyboards.
    LONG lArmedRepeats;     // (x) timers of the key repeat that are due
    UCHAR ucHotkeyComplete; // (x)
    UCHAR ucEscAbort;       // (x)
    UCHAR ucSwallowPending; // (x)

    // Modes.
    UCHAR ucDiscardLastModifiers; // (x)
    UCHAR ucKorvexMode;           // (x)
    UCHAR ucKorvexHotkeyHeld;     // (x)
    UCHAR ucKorvexTimerRunning;   // (x)
    UCHAR ucReportCapture;        // (x) written under CaptureLock
    SpinLock CaptureLock;
    Mutex MacroSettingsMutex; // one reading of the macro settings at a time, at PASSIVE_LEVEL
    SpinLock MacroTableLock;
    MacroTable* pMacroTable GUARDED_BY(MacroTableLock); // null: no macros

    // Application notification.
    SpinLock EventLock; // the application event of the control device
    SpinLock MacroLock;
    PKEVENT pMacroEvent GUARDED_BY(MacroLock); // referenced
    ULONGLONG hMacroEvent GUARDED_BY(MacroLock);
    MacroRecord MacroQueue[MACRO_QUEUE_SIZE] GUARDED_BY(MacroLock);
    ULONG ulMacroWrite GUARDED_BY(MacroLock);
    ULONG ulMacroRead GUARDED_BY(MacroLock);
    ULONG ulMacroCount GUARDED_BY(MacroLock);

    // Diagnostic log.
    char* pLogBuffer;   // (x) set before the first device, freed at unload
    ULONG ulLogLength;  // (x) characters of the text; written under LogLock
    KSPIN_LOCK LogLock; // the leaf: taken by log.cpp alone, at DISPATCH_LEVEL
    KDPC LogDpc;
    KEVENT LogEvent;         // synchronization
    UCHAR ucLogDpcPending;   // (x)
    UCHAR ucLogEventPending; // (x) LogEvent is set, or will be at once
    UCHAR ucLogStop;         // (x) the drain shall end
    UCHAR ucLogCut;          // (x) text was cut or dropped since the last drain; written under LogLock
    char cLogWritten;        // the drain's: the last character that it wrote, 0: none yet
    KEVENT LogEnded;         // notification: the drain is through
    PVOID pLogThread;        // referenced thread object of the drain

    // Siblings: arrivals minus removals of each class.
    SpinLock SiblingLock;
    UCHAR ucPs2KeyboardArrivals GUARDED_BY(SiblingLock);
    UCHAR ucPs2MouseArrivals;                          // (x) written under SiblingLock; 0: none is connected
    UCHAR ucUsbMouseArrivals;                          // (x) likewise
    ULONG ulArrivalGeneration GUARDED_BY(SiblingLock); // whose callbacks count
    KEVENT SiblingRequestsEnd; // notification: whoever waits for another driver's answer gives up
};

extern DriverSettings Settings;
extern DriverGlobals Globals;
