// userhandle.h - an application's handle as a kernel object, which this kernel refuses to make of it. Usable
// in a program and in a .sys alike.
#pragma once

#include <kernel.h>

// As the kernel's; a UserMode handle belongs to the process that sent the request which is being handled.
NTSTATUS NTAPI OwnObReferenceObjectByHandle(HANDLE hObject, ACCESS_MASK access, POBJECT_TYPE pType,
                                            KPROCESSOR_MODE mode, PVOID* ppObject,
                                            POBJECT_HANDLE_INFORMATION pInformation);
