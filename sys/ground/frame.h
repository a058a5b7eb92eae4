// frame.h - how a room of the driver finds its own fields in the shared records, and the fields that all rooms use.
//
//   DeviceContext  = FrameFields + BufferFields + HotkeyFields + … + RoofFields      one a keyboard
//   DriverGlobals  = FrameGlobals + EventGlobals + …                                 driver-wide
//   DriverSettings = LogSettings + HotkeySettings + …                                what the registry says
//
// The records are sums: each room declares what is its own in a fields.h and makes it ready itself, so that one field
// more concerns that room and who looks into it. driver/context.h adds the sums up, for the roof alone; a room goes
// from a keyboard to its fields by FieldsOf, and has a name for its driver-wide ones. records.cpp tells where they
// lie. What a calm report looks into lies first, at places that the compiler knows.
//
// Who may touch a field:  (i) set before the device is attached, then constant
//                         (p) Plug and Play at PASSIVE_LEVEL
//                         (r) the report road of the keyboard
//                         (x) atomic only, see shared.h
//                         or the lock that guards it.
// Driver entry zeroes the driver-wide records, so a driver that is loaded anew starts from nothing.
#pragma once

#include <kernel.h>

#include "ground/lock.h"

enum : ULONG { POOL_TAG = 0x36547654 }; // "TvT6" in memory order

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

enum { PROPERTY_CHARS = 256 }; // 512 bytes

// A timer and its deferred call.
struct TimerWithDpc {
    KTIMER Timer;
    KDPC Dpc;
};

struct DeviceContext; // the extension of each filter device

struct FrameFields {
    static constexpr ULONG Place = 0; // in DeviceContext, in bytes

    ULONG ulDeviceKind;             // (x) FILTER_DEVICE_KIND, written last, when the record is complete
    ULONG ulDeviceIndex;            // (i) by which applications address the keyboard
    PDEVICE_OBJECT pLowerDevice;    // (i)
    PDEVICE_OBJECT pPhysicalDevice; // (i)
    ULONG KbdType;                  // (x) set once, by what the descriptors say

    // What the system tells of the keyboard.
    SpinLock InterfaceLock;
    WCHAR DeviceDescription[PROPERTY_CHARS] GUARDED_BY(InterfaceLock); // read at start
    WCHAR HardwareId[PROPERTY_CHARS] GUARDED_BY(InterfaceLock);        // multi-string
    WCHAR PhysicalDeviceObjectName[PROPERTY_CHARS] GUARDED_BY(InterfaceLock);
    UNICODE_STRING InterfaceLinkName; // (p) changed under InterfaceLock, which readers take too

    // Life: see keyboards.cpp.
    PDEVICE_OBJECT pNextKeyboard; // KeyboardListLock
    LONG lReferences;             // (x) 1 while attached, + 1 a user
    UCHAR ucRemoving;             // (x) no new references
    KEVENT ReferencesGone;        // notification, set when lReferences falls to 0
};

struct FrameGlobals {
    PDRIVER_OBJECT pDriverObject;
    UNICODE_STRING RegistryPathCopy;
    UNICODE_STRING ParametersPath;
    SpinLock KeyboardListLock;
    PDEVICE_OBJECT pFirstKeyboard GUARDED_BY(KeyboardListLock); // newest first
    PDEVICE_OBJECT pControlDevice; // (x) written under ControlDeviceMutex and KeyboardListLock
    USHORT usKeyboardCount;        // (x) written in Plug and Play
};

extern FrameGlobals& GlobalFrame;

// The fields of one room in a keyboard's record, which is complete or being made.
template <typename Fields> inline Fields& FieldsOf(DeviceContext* pContext)
{
    return *reinterpret_cast<Fields*>(reinterpret_cast<UCHAR*>(pContext) + Fields::Place);
}

template <typename Fields> inline const Fields& FieldsOf(const DeviceContext* pContext)
{
    return *reinterpret_cast<const Fields*>(reinterpret_cast<const UCHAR*>(pContext) + Fields::Place);
}

// What the dispatch entries ask. A device whose record is not complete is none yet. IRQL any.
inline bool IsFilterDevice(PDEVICE_OBJECT device)
{
    const auto pFrame = static_cast<const FrameFields*>(device->DeviceExtension);
    return pFrame != nullptr && LoadAcquire(pFrame->ulDeviceKind) == FILTER_DEVICE_KIND;
}

// Behind the entries: any other device stops the host. IRQL any.
inline DeviceContext* FilterContextOf(PDEVICE_OBJECT device)
{
    NT_ASSERT(IsFilterDevice(device));
    return static_cast<DeviceContext*>(device->DeviceExtension);
}

template <typename Fields> inline Fields& FieldsOf(PDEVICE_OBJECT device)
{
    return FieldsOf<Fields>(FilterContextOf(device));
}

// By which applications and trace points call the keyboard.
inline ULONG IndexOf(const DeviceContext* pContext)
{
    return FieldsOf<FrameFields>(pContext).ulDeviceIndex;
}

inline ULONG IndexOf(PDEVICE_OBJECT device)
{
    return FieldsOf<FrameFields>(device).ulDeviceIndex;
}
