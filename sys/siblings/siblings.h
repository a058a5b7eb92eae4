// siblings.h - requests to the sibling drivers and the keyboard class devices, and the siblings' arrivals.
#pragma once

#include "ground/ground.h"

enum { OUTSIDE_REQUEST_BYTES = 8 };

// A device control request, buffered, to another driver.
struct OutsideRequest {
    UCHAR ucMajor; // IRP_MJ_DEVICE_CONTROL or IRP_MJ_INTERNAL_DEVICE_CONTROL
    ULONG ulCode;
    ULONG ulInput;                                  // bytes
    ULONG ulOutput;                                 // bytes
    alignas(8) UCHAR ucData[OUTSIDE_REQUEST_BYTES]; // the input before, the output after
};

// request.cpp: IRQL = PASSIVE
NTSTATUS OpenNamedDevice(PCWSTR pszName, PFILE_OBJECT* ppFile, PDEVICE_OBJECT* ppDevice);
NTSTATUS SendOutsideRequest(PDEVICE_OBJECT pTarget, OutsideRequest* pRequest);

// typematic.cpp: IRQL = PASSIVE
NTSTATUS QueryKeyboardTypematic(ULONG ulDeviceIndex, PUSHORT pusRate, PUSHORT pusDelayMs);
NTSTATUS SetKeyboardTypematic(ULONG ulDeviceIndex, USHORT usRate, USHORT usDelayIndex);

// modifiers.cpp: IRQL <= DISPATCH
enum : ULONG { IOCTL_SIBLING_SET_MODIFIERS = 0x00222400 }; // internal: u32 modifier word -> 4 bytes, ignored
bool IsMouseSiblingConnected();
NTSTATUS NotifyMouseModifiers(const ULONG* pulModifiers);
NTSTATUS SendMouseRequest(PCWSTR pszName, const ULONG* pulModifiers); // PASSIVE
void EndNotifications(ControlContext* pControl);                      // PASSIVE: none is under way afterwards

// arrivals.cpp: IRQL = PASSIVE
void InitializeSiblings();                  // at driver entry
ULONG ClassifyPnpEvent(const GUID* pEvent); // 1..8, 0 for any other
enum : ULONG { PNP_INTERFACE_ARRIVAL = 4, PNP_INTERFACE_REMOVAL = 5 };
PVOID BeginArrivals(); // the context for the registrations that are made now
void EndArrivals();    // they are undone: what they still tell is late
DRIVER_NOTIFICATION_CALLBACK_ROUTINE Ps2KeyboardArrival;
DRIVER_NOTIFICATION_CALLBACK_ROUTINE Ps2MouseArrival;
DRIVER_NOTIFICATION_CALLBACK_ROUTINE UsbMouseArrival;
