// interfaces.h - device interfaces and who is told of them: this kernel registers a listener and never calls
// it.
#pragma once

#include <kernel.h>

#include <string>
#include <vector>

NTSTATUS NTAPI OwnIoRegisterDeviceInterface(PDEVICE_OBJECT pDevice, CONST GUID* pClass,
                                            PUNICODE_STRING pReference, PUNICODE_STRING pLink);
NTSTATUS NTAPI OwnIoSetDeviceInterfaceState(PUNICODE_STRING pLink, BOOLEAN bOn);
NTSTATUS NTAPI OwnIoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY category, ULONG ulFlags,
                                                 PVOID pClass, PDRIVER_OBJECT pDriver,
                                                 PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pRoutine,
                                                 PVOID pContext, PVOID* phListener);
NTSTATUS NTAPI OwnIoUnregisterPlugPlayNotification(PVOID hListener);
// A link's text lies in the pool here; this kernel's own routine frees heap memory.
VOID NTAPI OwnRtlFreeUnicodeString(PUNICODE_STRING pText);

std::vector<std::u16string> ListInterfacesOf(const GUID& guid); // that are on
bool DeliverNotifications();                                    // those that wait; false: none did
unsigned AuditInterfaces(); // what is left at the driver's unload, each told
void ForgetInterfaces();
