// send.h - what the system does with drivers: makes one that has no file, and sends requests to device stacks.
#pragma once

#include <kernel.h>

#include <string>

// Makes the driver object and calls its entry. It stays: this kernel cannot take it down.
NTSTATUS MakeDriver(const std::u16string& name, PDRIVER_INITIALIZE pEntry);

// Sends a request without parameters to the device itself and waits for its end; the status it begins with is
// what it ends with when nobody handles it. IRQL: PASSIVE_LEVEL.
NTSTATUS SendToTop(PDEVICE_OBJECT pTop, UCHAR ucMajor, UCHAR ucMinor, PFILE_OBJECT pFile, NTSTATUS initial);
