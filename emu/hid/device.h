// The HID stack's own record, and what its source files share. Nobody outside this folder includes this.
//
// A read has a request, a URB and a buffer of its own for the life of the started device and is used again
// and again:
//
//     idle --Claim--> out --SendRead--> below --ReadCompleted--> observer --+--> out (again)
//                                                                           +--> idle (Release)
//
// `ulBusy` counts the reads that are not idle and the control requests under way; removal waits until it is
// 0.
#pragma once

#include "hid.h"

enum : ULONG { HidTag = 0x68624B45 };

struct HidDevice;

// Who sends a read again, or lets it go, that completes on its way down when the loop guard is on.
enum HidReadPhase : LONG { HidReadSending, HidReadBelow, HidReadCompleted, HidReadEnded };

struct HidRead {
    HidDevice* pHid;
    PIRP pIrp;
    PUCHAR pBuffer;
    BOOLEAN bOut;        // HidDevice::Lock
    volatile LONG Phase; // a HidReadPhase, atomic only
    URB Urb;
};

struct HidDevice {
    ULONG ulTag;            // (i) HidTag
    PDEVICE_OBJECT pSelf;   // (i)
    PDEVICE_OBJECT pLower;  // (i)
    EmuHidOptions Options;  // (i)
    HidRead* pReads;        // Plug and Play only: Options.ulReads of them, null while stopped
    ULONG ulPacketBytes;    // Plug and Play only, as pReads
    ULONG ulReportBytes;    // Plug and Play only: length of the report descriptor
    UCHAR ucInterface;      // Plug and Play only: its number, as the configuration tells
    USBD_PIPE_HANDLE hPipe; // Plug and Play only
    KSPIN_LOCK Lock;        // guards the three fields below
    BOOLEAN bOpen;          // started and not on its way out: requests may go down
    ULONG ulBusy;
    ULONG ulOut;
    KEVENT Idle; // notification: set while ulBusy is 0
};

// hid.cpp
HidDevice* HidOf(PDEVICE_OBJECT pDevice);
// Counts a request that is about to go down; false when none may. IRQL <= DISPATCH. Lock: takes Lock.
bool Enter(HidDevice* pHid);
VOID Leave(HidDevice* pHid);

// control.cpp
// Sends one URB down and waits for it. IRQL PASSIVE. Fails: what completes it, STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS SendUrb(HidDevice* pHid, PURB pUrb);

// enumerate.cpp
// Asks the keyboard what it is and configures it. IRQL PASSIVE. Fails: what the stack below fails with.
NTSTATUS Enumerate(HidDevice* pHid);

// reads.cpp
// Makes the reads and, in automatic mode, sends them. IRQL PASSIVE. Fails: STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS StartReads(HidDevice* pHid);
// No request goes down any more. IRQL <= DISPATCH.
VOID CloseReads(HidDevice* pHid);
// No request goes down any more; cancels the reads below. IRQL PASSIVE.
VOID CallReadsBack(HidDevice* pHid);
// No request goes down any more; cancels what is below, waits for it, frees the reads. IRQL PASSIVE.
VOID StopReads(HidDevice* pHid);
