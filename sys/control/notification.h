// notification.h - what the application is told: its events, its two queues, its switch of the analysis.
#pragma once

#include "control/requests.h"
#include "ground/ground.h"

// events.cpp: registered events. Handles are used with the requestor's mode and EVENT_MODIFY_STATE.
void InitializeEvents(); // at driver entry
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
void EndReportProcessing(DeviceContext* pContext); // at removal

// notifyqueue.cpp
void InitializeNotifyQueue(DeviceContext* pContext); // at add-device
NTSTATUS QueueNotifyRecord(PDEVICE_OBJECT device, const NotifyRecord* pRecord);
NTSTATUS GetNotifyCount(ULONG ulDeviceIndex, PULONG pulCount);
NTSTATUS ClearNotifyQueue(ULONG ulDeviceIndex);
NTSTATUS TakeNotifyRecords(ULONG ulDeviceIndex, NotifyRecord* pRecords, ULONG ulCount);
NTSTATUS GetNotifyRecord(ULONG ulDeviceIndex, NotifyRecord* pRecord, UCHAR ucRemove);
NTSTATUS QueueEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource);
void QueueAndSignalEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort, UCHAR ucSource);
ULONG NotifyTime(); // system time / 1000, low 32 bits

// macroqueue.cpp
NTSTATUS QueueMacroRecord(const MacroRecord* pRecord);
NTSTATUS GetMacroCount(PULONG pulCount);
NTSTATUS ClearMacroQueue();
NTSTATUS GetMacroRecord(MacroRecord* pRecord, UCHAR ucRemove);
