// control.h - the control interface: the dispatcher and what its requests do.
#pragma once

#include "control/notification.h"
#include "control/requests.h"
#include "ground/ground.h"

// dispatch.cpp
DispatchRoutine DispatchDeviceControl; // PASSIVE
BOOLEAN IsIoctlAllowed(PIRP pIrp);

// Requests passed to the keyboard. IRQL = PASSIVE. Fails: unknown index, nothing sent.
// keyboarddescriptors.cpp
NTSTATUS GetDeviceDescriptor(ULONG ulDeviceIndex, PUCHAR pDescriptor); // 18 bytes
NTSTATUS GetStringDescriptor(ULONG ulDeviceIndex, UCHAR ucIndex, USHORT usLanguage, PUCHAR pOut,
                             ULONG ulCapacity, PULONG pulLength);
// keyboardcommands.cpp
NTSTATUS SetKeyboardLeds(ULONG ulDeviceIndex, UCHAR ucLedFlags);
NTSTATUS SendKeyCommand(ULONG ulDeviceIndex, const KeyCommand* pCommand);
// keyboardmemory.cpp: one family of keyboard memory each; usLength 0 asks the EEPROM routines for the size.
using MemoryReader = NTSTATUS(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, PUCHAR pOut,
                              PULONG pulLength);
using MemoryWriter = NTSTATUS(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, const UCHAR* pData,
                              PULONG pulLength);
MemoryReader ReadQuintoraEEprom, ReadDescriptorMemory, ReadVendorMemory;
MemoryWriter WriteQuintoraEEprom, WriteDescriptorMemory, WriteVendorMemory;

// information.cpp: what the driver knows of its keyboards. IRQL <= DISPATCH but where it is said
NTSTATUS GetKeyboardInfo(USHORT usPosition, PVOID pBuffer); // KeyboardInfo
NTSTATUS ListKeyboards(PVOID pBuffer);                      // KeyboardList
NTSTATUS GetLedFlags(ULONG ulDeviceIndex, PUSHORT pusLedFlags);
NTSTATUS GetReservedStatus(ULONG ulDeviceIndex, PUCHAR pucStatus);
NTSTATUS GetControlPipe(ULONG ulDeviceIndex, PULONG pulControlPipe);
NTSTATUS SetReportCapture(UCHAR ucValue);
