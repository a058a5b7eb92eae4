// send.h - requests that the system makes of a device stack. Usable in a program and in a .sys alike.
#pragma once

#include <kernel.h>

// Sends a request without parameters to the device itself and waits for its end; the status it begins with is
// what it ends with when nobody handles it. IRQL: PASSIVE_LEVEL. Fails: as it ended; no memory for it.
NTSTATUS SendToTop(PDEVICE_OBJECT pTop, UCHAR ucMajor, UCHAR ucMinor, PFILE_OBJECT pFile, NTSTATUS initial);
