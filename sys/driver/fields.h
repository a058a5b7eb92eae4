// fields.h - the roof's fields of the shared records: which keyboards are started and counted, who has the driver open.
#pragma once

#include "ground/frame.h"

struct RoofFields {
    static const ULONG Place;

    UCHAR ucStarted;             // (p) counted in usStartedKeyboards
    UCHAR ucKeyboardCounted;     // (p) counted in usKeyboardCount
    UCHAR ucInterfaceRegistered; // (p) InterfaceLinkName is owned
};

struct RoofGlobals {
    ULONG ulNextDeviceIndex;   // (p)
    UCHAR ucRefuseAttach;      // (p)
    USHORT usStartedKeyboards; // KeyboardListLock
    Mutex ControlDeviceMutex;  // creation, deletion, open and close: one after the other
    USHORT usOpenCount GUARDED_BY(ControlDeviceMutex);
};

extern RoofGlobals& GlobalRoof;
