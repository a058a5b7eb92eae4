// The application: opens the driver's control device as a 32-bit or 64-bit process and speaks through the
// library for applications.
//
// For tests and tools, which ask for statuses rather than for values. One object per thread of use; events that
// it made are closed with it.
#pragma once

#include <kernel.h>
#include <host.h>

#include <map>
#include <vector>

#include "client/client.h"

class EmuApplication
{
public:
    // Opens the control device; OpenStatus() tells how that went.
    explicit EmuApplication(bool b32 = false);
    ~EmuApplication() { Close(); }
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

    // Register an auto-reset event made here.
    NTSTATUS RegisterNotifyEvent(ULONG ulIndex);
    NTSTATUS ReleaseNotifyEvent(ULONG ulIndex);
    NTSTATUS RegisterMacroEvent();
    NTSTATUS ReleaseMacroEvent();
    bool NotifySignalled(ULONG ulIndex); // whether it was signalled since the last call
    bool MacroSignalled();
    NTSTATUS RegisterApplicationEvent(HANDLE hEvent); // of the caller's

    // Takes what is queued; empty when nothing is or a request failed (the status tells).
    std::vector<NotifyRecord> TakeRecords(ULONG ulIndex, NTSTATUS* pStatus = nullptr);
    std::vector<MacroRecord> TakeMacroRecords(NTSTATUS* pStatus = nullptr);

    NTSTATUS InsertScans(ULONG ulIndex, const std::vector<UCHAR>& Scans, bool bWait = false);
    NTSTATUS InsertUSBPackets(ULONG ulIndex,
                              const std::vector<FifoEntry>& Entries); // the last one's flags count

private:
    tvusb::Keyboard At(ULONG ulIndex) const { return tvusb::Keyboard(m_Channel, ulIndex, {}); }
    tvusb::MacroQueue Macros() const { return tvusb::MacroMode(m_Channel).Records(); }

    tvusb::Channel m_Channel;
    NTSTATUS m_OpenStatus;
    tvusb::Event m_Macro;
    std::map<ULONG, tvusb::Event> m_Notify; // by device index
};
