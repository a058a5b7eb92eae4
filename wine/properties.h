// properties.h - what a story says of its devices, which no bus of this kernel's enumerated.
#pragma once

#include <kernel.h>

#include <string>

NTSTATUS NTAPI OwnIoGetDeviceProperty(PDEVICE_OBJECT pDevice, DEVICE_REGISTRY_PROPERTY property,
                                      ULONG ulBytes, PVOID pData, PULONG pulNeeded);
std::u16string LocationOf(PDEVICE_OBJECT pDevice); // where it is plugged in; empty: nobody said
void ForgetProperties();
