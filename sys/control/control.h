// control.h - the control interface: the dispatcher, the two look-ups, the application's events and queues.
#pragma once

#include "driver/driver.h"

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

// information.cpp: what the driver knows of its keyboards
NTSTATUS GetKeyboardInfo(USHORT usPosition, PVOID pBuffer); // KeyboardInfo
NTSTATUS ListKeyboards(PVOID pBuffer);                      // KeyboardList
NTSTATUS GetLedFlags(ULONG ulDeviceIndex, PUSHORT pusLedFlags);
NTSTATUS GetReservedStatus(ULONG ulDeviceIndex, PUCHAR pucStatus);
NTSTATUS GetControlPipe(ULONG ulDeviceIndex, PULONG pulControlPipe);
NTSTATUS SetReportCapture(UCHAR ucValue);

// find.cpp: the device comes referenced; the caller gives it back with ReleaseDevice.
NTSTATUS FindDeviceByIndex(ULONG ulDeviceIndex, PDEVICE_OBJECT* ppDevice);
NTSTATUS FindDeviceByInterfaceName(PCWSTR pszName, PULONG pulDeviceIndex);

// events.cpp: registered events. Handles are used with the requestor's mode and EVENT_MODIFY_STATE.
NTSTATUS RegisterApplicationEvent(ULONGLONG hEvent, KPROCESSOR_MODE mode);
NTSTATUS RegisterNotifyEvent(ULONGLONG hEvent, KPROCESSOR_MODE mode, ULONG ulDeviceIndex);
NTSTATUS ReleaseNotifyEvent(ULONG ulDeviceIndex);
NTSTATUS RegisterMacroEvent(ULONGLONG hEvent, KPROCESSOR_MODE mode);
NTSTATUS ReleaseMacroEvent();
NTSTATUS ReleaseAllEvents();
void ReleaseApplicationEvent(PDEVICE_OBJECT pControlDevice); // at deletion: after pControlDevice was nulled
bool SignalApplicationEvent(PDEVICE_OBJECT pControlDevice);  // false: none registered
void SignalNotifyEvent(PDEVICE_OBJECT device);
void SignalMacroEvent();
void DropNotifyEvent(PDEVICE_OBJECT device); // at removal: whatever is registered for this keyboard

// processing.cpp: the application's switch of the report analysis
NTSTATUS StartReportProcessing(ULONG ulDeviceIndex);
NTSTATUS StopReportProcessing(ULONG ulDeviceIndex);
NTSTATUS StopAllReportProcessing();

// notifyqueue.cpp
NTSTATUS QueueNotifyRecord(PDEVICE_OBJECT device, const NotifyRecord* pRecord);
NTSTATUS GetNotifyCount(ULONG ulDeviceIndex, PULONG pulCount);
NTSTATUS ClearNotifyQueue(ULONG ulDeviceIndex);
NTSTATUS GetNotifyRecord(ULONG ulDeviceIndex, NotifyRecord* pRecord, UCHAR ucRemove);
NTSTATUS QueueEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource);
void QueueAndSignalEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource);
ULONG NotifyTime(); // system time / 1000, low 32 bits

// macroqueue.cpp
NTSTATUS QueueMacroRecord(const MacroRecord* pRecord);
NTSTATUS GetMacroCount(PULONG pulCount);
NTSTATUS ClearMacroQueue();
NTSTATUS GetMacroRecord(MacroRecord* pRecord, UCHAR ucRemove);
