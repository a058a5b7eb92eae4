// Builds the input records of both process sizes, sends the requests, hands back what they reported.
#include "application.h"

#include <cstring>

EmuApplication::EmuApplication(bool b32) : m_b32(b32)
{
    HostSetCaller32(m_b32);
    m_OpenStatus = HostOpen(L"\\DosDevices\\TvUSB", &m_File);
    if (!NT_SUCCESS(m_OpenStatus)) {
        m_File = nullptr;
    }
}

EmuApplication::~EmuApplication()
{
    Close();
}

void EmuApplication::Close()
{
    if (m_File) {
        HostClose(m_File);
    }
    m_File = nullptr;
    for (auto& [ulIndex, hEvent] : m_Notify) {
        HostCloseHandle(hEvent);
    }
    m_Notify.clear();
    if (m_hMacro) {
        HostCloseHandle(m_hMacro);
    }
    m_hMacro = nullptr;
}

NTSTATUS EmuApplication::Request(ULONG ulCode, const std::vector<UCHAR>& In, ULONG ulOut,
                                 std::vector<UCHAR>* pOut)
{
    if (!m_File) {
        return STATUS_INVALID_HANDLE;
    }
    HostSetCaller32(m_b32);
    std::vector<UCHAR> out(ulOut);
    ULONG ulInformation = 0;
    NTSTATUS status =
        HostDeviceControl(m_File, ulCode, In.data(), (ULONG)In.size(), out.data(), ulOut, &ulInformation);
    if (pOut) {
        out.resize(ulInformation < ulOut ? ulInformation : ulOut);
        *pOut = std::move(out);
    }
    return status;
}

NTSTATUS EmuApplication::RequestRecord(ULONG ulCode, ULONG ulIndex, const void* pPayload, ULONG ulPayload,
                                       ULONG ulOut, std::vector<UCHAR>* pOut)
{
    const size_t payloadAt = m_b32 ? 4 : 8;
    std::vector<UCHAR> in(m_b32 ? 520 : 528);
    if (in.size() < payloadAt + ulPayload) {
        in.resize(payloadAt + ulPayload);
    }
    memcpy(in.data(), &ulIndex, sizeof ulIndex);
    if (ulPayload != 0) {
        memcpy(in.data() + payloadAt, pPayload, ulPayload);
    }
    return Request(ulCode, in, ulOut, pOut);
}

NTSTATUS EmuApplication::AddDefinition(ULONG ulIndex, const KeyDefinition& definition)
{
    return RequestRecord(IOCTL_TVUSB_ADD_DEFINITION, ulIndex, &definition, sizeof definition);
}

NTSTATUS EmuApplication::RemoveDefinition(ULONG ulIndex, ULONG ulId)
{
    return RequestRecord(IOCTL_TVUSB_REMOVE_DEFINITION, ulIndex, &ulId, sizeof ulId);
}

NTSTATUS EmuApplication::StartReportProcessing(ULONG ulIndex)
{
    return RequestRecord(IOCTL_TVUSB_START_PROCESSING, ulIndex, nullptr, 0);
}

NTSTATUS EmuApplication::StopReportProcessing(ULONG ulIndex)
{
    return RequestRecord(IOCTL_TVUSB_STOP_PROCESSING, ulIndex, nullptr, 0);
}

// A handle is four bytes wide for a 32-bit process, eight for a 64-bit one.
NTSTATUS EmuApplication::RegisterHandle(ULONG ulCode, ULONG ulIndex, HANDLE hEvent)
{
    return RequestRecord(ulCode, ulIndex, &hEvent, m_b32 ? 4 : 8);
}

NTSTATUS EmuApplication::RegisterNotifyEvent(ULONG ulIndex, HANDLE hEvent)
{
    return RegisterHandle(IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, ulIndex, hEvent);
}

NTSTATUS EmuApplication::RegisterNotifyEvent(ULONG ulIndex)
{
    HANDLE hEvent = HostCreateEvent(false);
    NTSTATUS status = RegisterNotifyEvent(ulIndex, hEvent);
    if (!NT_SUCCESS(status) || m_Notify.count(ulIndex) != 0) {
        HostCloseHandle(hEvent);
    } else {
        m_Notify[ulIndex] = hEvent;
    }
    return status;
}

NTSTATUS EmuApplication::ReleaseNotifyEvent(ULONG ulIndex)
{
    NTSTATUS status = RequestRecord(IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, ulIndex, nullptr, 0);
    auto made = m_Notify.find(ulIndex);
    if (NT_SUCCESS(status) && made != m_Notify.end()) {
        HostCloseHandle(made->second);
        m_Notify.erase(made);
    }
    return status;
}

NTSTATUS EmuApplication::RegisterMacroEvent(HANDLE hEvent)
{
    return RegisterHandle(IOCTL_TVUSB_REGISTER_MACRO_EVENT, 0, hEvent);
}

NTSTATUS EmuApplication::RegisterMacroEvent()
{
    HANDLE hEvent = HostCreateEvent(false);
    NTSTATUS status = RegisterMacroEvent(hEvent);
    if (!NT_SUCCESS(status) || m_hMacro) {
        HostCloseHandle(hEvent);
    } else {
        m_hMacro = hEvent;
    }
    return status;
}

NTSTATUS EmuApplication::ReleaseMacroEvent()
{
    NTSTATUS status = RequestRecord(IOCTL_TVUSB_RELEASE_MACRO_EVENT, 0, nullptr, 0);
    if (NT_SUCCESS(status) && m_hMacro) {
        HostCloseHandle(m_hMacro);
        m_hMacro = nullptr;
    }
    return status;
}

NTSTATUS EmuApplication::RegisterApplicationEvent(HANDLE hEvent)
{
    return RegisterHandle(IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, 0, hEvent);
}

HANDLE EmuApplication::NotifyEvent(ULONG ulIndex) const
{
    auto made = m_Notify.find(ulIndex);
    return made == m_Notify.end() ? nullptr : made->second;
}

bool EmuApplication::NotifySignalled(ULONG ulIndex)
{
    HANDLE hEvent = NotifyEvent(ulIndex);
    return hEvent && HostTakeEvent(hEvent);
}

bool EmuApplication::MacroSignalled()
{
    return m_hMacro && HostTakeEvent(m_hMacro);
}

// Counts with one request and takes that many with another. Records is a record of the queue's size.
template <class Record>
std::vector<Record> EmuApplication::Take(ULONG ulCountCode, ULONG ulTakeCode, ULONG ulIndex,
                                         NTSTATUS* pStatus)
{
    std::vector<UCHAR> out;
    NTSTATUS status = RequestRecord(ulCountCode, ulIndex, nullptr, 0, sizeof(ULONG), &out);
    ULONG ulCount = 0;
    if (NT_SUCCESS(status) && out.size() == sizeof ulCount) {
        memcpy(&ulCount, out.data(), sizeof ulCount);
    }
    std::vector<Record> records;
    if (ulCount != 0) {
        USHORT usCount = (USHORT)ulCount;
        status = RequestRecord(ulTakeCode, ulIndex, &usCount, sizeof usCount, usCount * sizeof(Record), &out);
        if (NT_SUCCESS(status)) {
            records.resize(out.size() / sizeof(Record));
            memcpy(static_cast<void*>(records.data()), out.data(), records.size() * sizeof(Record));
        }
    }
    if (pStatus) {
        *pStatus = status;
    }
    return records;
}

std::vector<NotifyRecord> EmuApplication::TakeRecords(ULONG ulIndex, NTSTATUS* pStatus)
{
    return Take<NotifyRecord>(IOCTL_TVUSB_GET_NOTIFY_COUNT, IOCTL_TVUSB_TAKE_MANY_NOTIFY, ulIndex, pStatus);
}

std::vector<MacroRecord> EmuApplication::TakeMacroRecords(NTSTATUS* pStatus)
{
    return Take<MacroRecord>(IOCTL_TVUSB_GET_MACRO_COUNT, IOCTL_TVUSB_TAKE_MANY_MACRO, 0, pStatus);
}

NTSTATUS EmuApplication::InsertScans(ULONG ulIndex, const std::vector<UCHAR>& Scans, bool bWait)
{
    std::vector<UCHAR> payload(6 + Scans.size());
    payload[0] = bWait ? 1 : 0;
    payload[4] = (UCHAR)Scans.size();
    payload[5] = (UCHAR)(Scans.size() >> 8);
    std::copy(Scans.begin(), Scans.end(), payload.begin() + 6);
    return RequestRecord(IOCTL_TVUSB_INSERT_SCANS, ulIndex, payload.data(), (ULONG)payload.size());
}

NTSTATUS EmuApplication::InsertUSBPackets(ULONG ulIndex, const std::vector<FifoEntry>& Entries)
{
    std::vector<UCHAR> payload(4 + Entries.size() * sizeof(FifoEntry));
    payload[0] = (UCHAR)Entries.size();
    payload[1] = (UCHAR)(Entries.size() >> 8);
    if (!Entries.empty()) {
        memcpy(payload.data() + 4, Entries.data(), Entries.size() * sizeof(FifoEntry));
    }
    return RequestRecord(IOCTL_TVUSB_INSERT_PACKETS, ulIndex, payload.data(), (ULONG)payload.size());
}
