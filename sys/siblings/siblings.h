// siblings.h - requests to the sibling drivers and the keyboard class devices, and the siblings' arrivals.
#pragma once

#include "driver/driver.h"

// typematic.cpp: IRQL = PASSIVE
NTSTATUS QueryKeyboardTypematic(ULONG ulDeviceIndex, PUSHORT pusRate, PUSHORT pusDelayMs);
NTSTATUS SetKeyboardTypematic(ULONG ulDeviceIndex, USHORT usRate, USHORT usDelayIndex);

// modifiers.cpp: IRQL <= DISPATCH
bool IsMouseSiblingConnected();
NTSTATUS NotifyMouseModifiers(const ULONG* pulModifiers);

// arrivals.cpp: IRQL = PASSIVE
DRIVER_NOTIFICATION_CALLBACK_ROUTINE Ps2KeyboardArrival;
DRIVER_NOTIFICATION_CALLBACK_ROUTINE Ps2MouseArrival;
DRIVER_NOTIFICATION_CALLBACK_ROUTINE UsbMouseArrival;
