// The emulated HID stack: the driver above the filter, which owns the keyboard's interrupt-IN reads.
//
// At START_DEVICE it lets the stack below start first, enumerates the keyboard as the system does (device
// descriptor, configuration descriptor's head and whole, string, select configuration, SET_IDLE, report
// descriptor) and then keeps its reads outstanding; each completed report goes to the observer. In automatic
// mode a read is sent again from its own completion routine, in manual mode when EmuHidRead says so. Removal
// cancels the reads and waits for them before it passes the removal down; a patient stack passes it down first. Control requests are synchronous,
// at PASSIVE_LEVEL.
#pragma once

#include <kernel.h>

// Sees every completed read: the report's bytes (none after a failure) and the status. The buffer may be
// changed or read only until it returns. In automatic mode the read goes down again after it returned, unless
// the stack goes. IRQL <= DISPATCH. Lock: none held.
typedef VOID EmuHidObserver(PVOID pContext, const UCHAR* pReport, ULONG ulLength, NTSTATUS Status);

enum { EmuHidMaximumReads = 256, EmuHidMaximumPacket = 1024 };

// How a HID stack behaves; zeroed = one automatic read, enumeration, plain recursion.
struct EmuHidOptions {
    EmuHidObserver* pObserver;
    PVOID pObserverContext;
    ULONG ulReads;          // reads kept outstanding at once, 0 = 1, at most EmuHidMaximumReads
    ULONG ulPacketBytes;    // size of a read; 0 = the endpoint's, 8 when nothing was enumerated
    BOOLEAN bManual;        // reads go down only when EmuHidRead is called
    BOOLEAN bNoEnumeration; // START sends no requests of its own
    BOOLEAN bUsedBuffers;   // a read goes down with the bytes of the last one, not with zeros
    BOOLEAN bPatient;       // calls no read back when the keyboard goes: those below let them go
    BOOLEAN
    bLoopGuard; // a read that completes on its way down is sent again by the outer loop, not by recursion
};

// How a control request travels.
enum EmuHidRoute {
    EmuHidRouteDescriptor, // GET_DESCRIPTOR from device or interface, by the setup packet's recipient
    EmuHidRouteControl,    // a control transfer with the setup packet as it is
    EmuHidRouteClass       // a class request to the interface
};

// hid.cpp
// The driver's entry; its AddDevice attaches with zeroed options.
NTSTATUS NTAPI EmuHidEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);
// Attaches a HID device to the top of the keyboard's stack. The options are copied; PnP drives it from there
// on. IRQL PASSIVE. Fails: the status of the creation, STATUS_NO_SUCH_DEVICE when attaching fails.
NTSTATUS EmuHidAttach(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical, const EmuHidOptions* pOptions,
                      PDEVICE_OBJECT* ppDevice);

// reads.cpp
// Sends one more read down. IRQL <= DISPATCH.
// Fails: STATUS_DEVICE_NOT_READY before START and during removal, STATUS_DEVICE_BUSY when all reads are
// outstanding.
NTSTATUS EmuHidRead(PDEVICE_OBJECT pDevice);
// How many reads are below this stack and not completed. IRQL <= DISPATCH.
ULONG EmuHidOutstandingReads(PDEVICE_OBJECT pDevice);

// control.cpp
// Sends one control request down and waits for it. `pSetup` is the eight-byte setup packet; the direction
// comes from its bit 7. `*pulLength` is the buffer's length on entry and the bytes moved on return. IRQL
// PASSIVE. Fails: what the stack below completes it with, STATUS_INVALID_PARAMETER for a route that cannot
// carry the setup packet, STATUS_DEVICE_NOT_READY during removal, STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS EmuHidControl(PDEVICE_OBJECT pDevice, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength,
                       EmuHidRoute Route);
// Sends a one-byte LED report (SET_REPORT, output report 0), as a control transfer or as a class request.
// IRQL PASSIVE. Fails: as EmuHidControl.
NTSTATUS EmuHidSendLed(PDEVICE_OBJECT pDevice, UCHAR ucLeds, EmuHidRoute Route);
