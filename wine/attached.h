// attached.h - devices on top of each other: this kernel frees a deleted device under what is attached to it.
// Usable in a program and in a .sys alike.
#pragma once

#include <kernel.h>

// The device below is referenced from here to the detaching, so it stays until nothing is on top of it.
PDEVICE_OBJECT NTAPI OwnIoAttachDeviceToDeviceStack(PDEVICE_OBJECT pSource, PDEVICE_OBJECT pTarget);
VOID NTAPI OwnIoDetachDevice(PDEVICE_OBJECT pLower);
