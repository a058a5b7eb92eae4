// The application: opens the driver's control device and speaks its control requests, as a 32-bit or 64-bit
// process.
//
// Each helper builds the request's input record in the layout of that process size, sends it and gives back
// the request's status. One object per thread of use; events that it made are closed with it.
#pragma once

#include <kernel.h>
#include <host.h>

#include <map>
#include <string>
#include <vector>

#include "sys/control/requests.h"

class EmuApplication
{
public:
    // Opens the control device; OpenStatus() tells how that went.
    explicit EmuApplication(bool b32 = false);
    ~EmuApplication(); // closes
    EmuApplication(const EmuApplication&) = delete;
    EmuApplication& operator=(const EmuApplication&) = delete;

    NTSTATUS OpenStatus() const { return m_OpenStatus; }
    void Close(); // the handle, then the events

    // Any request. `Out` comes in with any content and goes out with the bytes the request reported, at most
    // ulOut.
    NTSTATUS Request(ULONG ulCode, const std::vector<UCHAR>& In, ULONG ulOut,
                     std::vector<UCHAR>* pOut = nullptr);
    // A request with the input record: device index and payload, whole record size of this process size.
    // A payload longer than the record lengthens the input.
    NTSTATUS RequestRecord(ULONG ulCode, ULONG ulIndex, const void* pPayload, ULONG ulPayload,
                           ULONG ulOut = 0, std::vector<UCHAR>* pOut = nullptr);

    NTSTATUS AddDefinition(ULONG ulIndex, const KeyDefinition& definition);
    NTSTATUS RemoveDefinition(ULONG ulIndex, ULONG ulId);
    NTSTATUS StartReportProcessing(ULONG ulIndex);
    NTSTATUS StopReportProcessing(ULONG ulIndex);

    // Register an event of the caller's, or an auto-reset event made here (found again by NotifyEvent,
    // MacroEvent).
    NTSTATUS RegisterNotifyEvent(ULONG ulIndex, HANDLE hEvent);
    NTSTATUS RegisterNotifyEvent(ULONG ulIndex);
    NTSTATUS ReleaseNotifyEvent(ULONG ulIndex);
    NTSTATUS RegisterMacroEvent(HANDLE hEvent);
    NTSTATUS RegisterMacroEvent();
    NTSTATUS ReleaseMacroEvent();
    NTSTATUS RegisterApplicationEvent(HANDLE hEvent);
    HANDLE NotifyEvent(ULONG ulIndex) const; // null when none was made here
    HANDLE MacroEvent() const { return m_hMacro; }
    bool NotifySignalled(ULONG ulIndex); // whether it was signalled since the last call
    bool MacroSignalled();

    // Counts, then takes what is queued; empty when nothing is or a request failed (the status tells).
    std::vector<NotifyRecord> TakeRecords(ULONG ulIndex, NTSTATUS* pStatus = nullptr);
    std::vector<MacroRecord> TakeMacroRecords(NTSTATUS* pStatus = nullptr);

    NTSTATUS InsertScans(ULONG ulIndex, const std::vector<UCHAR>& Scans, bool bWait = false);
    NTSTATUS InsertUSBPackets(ULONG ulIndex, const std::vector<FifoEntry>& Entries);

private:
    NTSTATUS RegisterHandle(ULONG ulCode, ULONG ulIndex, HANDLE hEvent);
    template <class Record>
    std::vector<Record> Take(ULONG ulCountCode, ULONG ulTakeCode, ULONG ulIndex, NTSTATUS* pStatus);

    bool m_b32;
    NTSTATUS m_OpenStatus;
    HostFile m_File = nullptr;
    HANDLE m_hMacro = nullptr;
    std::map<ULONG, HANDLE> m_Notify; // by device index
};
