// names.h - devices by their names: this kernel makes a dummy of what IoGetDeviceObjectPointer asks for.
#pragma once

#include <kernel.h>

NTSTATUS NTAPI OwnIoCreateDevice(PDRIVER_OBJECT pDriver, ULONG ulExtension, PUNICODE_STRING pName,
                                 DEVICE_TYPE type, ULONG ulCharacteristics, BOOLEAN bExclusive,
                                 PDEVICE_OBJECT* ppDevice);
VOID NTAPI OwnIoDeleteDevice(PDEVICE_OBJECT pDevice);
NTSTATUS NTAPI OwnIoGetDeviceObjectPointer(PUNICODE_STRING pName, ACCESS_MASK access, PFILE_OBJECT* ppFile,
                                           PDEVICE_OBJECT* ppDevice);
// Of any object; a file of IoGetDeviceObjectPointer is cleaned up and closed.
LONG_PTR FASTCALL OwnObfDereferenceObject(PVOID pObject);
