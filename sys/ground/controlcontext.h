// controlcontext.h - the extension of the control device. Who may touch a field: see frame.h.
#pragma once

#include "ground/frame.h"

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

// What the dispatch entries ask, and what those behind them may rely on, as in frame.h. IRQL any.
inline bool IsControlDevice(PDEVICE_OBJECT device)
{
    const auto pContext = static_cast<const ControlContext*>(device->DeviceExtension);
    return pContext != nullptr && LoadAcquire(pContext->ulDeviceKind) == CONTROL_DEVICE_KIND;
}

inline ControlContext* ControlContextOf(PDEVICE_OBJECT device)
{
    NT_ASSERT(IsControlDevice(device));
    return static_cast<ControlContext*>(device->DeviceExtension);
}
