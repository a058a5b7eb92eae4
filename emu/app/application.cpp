// Each request by the library's own call; what the library gives as a value is handed back as a status.
#include "application.h"

#include "client/host_transport.h"

using tvusb::ProcessSize;

static NTSTATUS StatusOf(const tvusb::Status& status)
{
    return static_cast<NTSTATUS>(status.Value());
}

EmuApplication::EmuApplication(bool b32)
    : m_Channel(tvusb::HostTransport(b32 ? ProcessSize::Bits32 : ProcessSize::Bits64)),
      m_OpenStatus(StatusOf(m_Channel.Open()))
{
}

void EmuApplication::Close()
{
    m_Channel.Close();
    m_Notify.clear();
    m_Macro.Close();
}

NTSTATUS EmuApplication::Request(ULONG ulCode, const std::vector<UCHAR>& In, ULONG ulOut,
                                 std::vector<UCHAR>* pOut)
{
    std::vector<UCHAR> out(ulOut);
    tvusb::Status status = m_Channel.Send(ulCode, {In.data(), (ULONG)In.size()}, &out);
    if (pOut) {
        *pOut = std::move(out);
    }
    return StatusOf(status);
}

NTSTATUS EmuApplication::RequestRecord(ULONG ulCode, ULONG ulIndex, const void* pPayload, ULONG ulPayload,
                                       ULONG ulOut, std::vector<UCHAR>* pOut)
{
    std::vector<UCHAR> out(ulOut);
    tvusb::Status status = m_Channel.SendRecord(ulCode, ulIndex, {pPayload, ulPayload}, &out);
    if (pOut) {
        *pOut = std::move(out);
    }
    return StatusOf(status);
}

NTSTATUS EmuApplication::AddDefinition(ULONG ulIndex, const KeyDefinition& definition)
{
    return StatusOf(At(ulIndex).AddDefinition(definition));
}

NTSTATUS EmuApplication::RemoveDefinition(ULONG ulIndex, ULONG ulId)
{
    return StatusOf(At(ulIndex).RemoveDefinition(ulId));
}

NTSTATUS EmuApplication::StartReportProcessing(ULONG ulIndex)
{
    return StatusOf(At(ulIndex).StartProcessing());
}

NTSTATUS EmuApplication::StopReportProcessing(ULONG ulIndex)
{
    return StatusOf(At(ulIndex).StopProcessing());
}

// Makes an event and keeps it when it was registered and none is kept.
template <class Queue>
static NTSTATUS RegisterOwn(const tvusb::Channel& channel, const Queue& queue, tvusb::Event& kept)
{
    auto event = tvusb::Event::Make(channel);
    NTSTATUS status = StatusOf(queue.Register(*event));
    if (NT_SUCCESS(status) && kept.Handle() == 0) {
        kept = std::move(*event);
    }
    return status;
}

NTSTATUS EmuApplication::RegisterNotifyEvent(ULONG ulIndex)
{
    return RegisterOwn(m_Channel, At(ulIndex).Events(), m_Notify[ulIndex]);
}

NTSTATUS EmuApplication::ReleaseNotifyEvent(ULONG ulIndex)
{
    NTSTATUS status = StatusOf(At(ulIndex).Events().Release());
    if (NT_SUCCESS(status)) {
        m_Notify.erase(ulIndex);
    }
    return status;
}

NTSTATUS EmuApplication::RegisterMacroEvent()
{
    return RegisterOwn(m_Channel, Macros(), m_Macro);
}

NTSTATUS EmuApplication::ReleaseMacroEvent()
{
    NTSTATUS status = StatusOf(Macros().Release());
    if (NT_SUCCESS(status)) {
        m_Macro.Close();
    }
    return status;
}

NTSTATUS EmuApplication::RegisterApplicationEvent(HANDLE hEvent)
{
    return StatusOf(
        m_Channel.SendHandle(IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, 0, reinterpret_cast<uint64_t>(hEvent)));
}

bool EmuApplication::NotifySignalled(ULONG ulIndex)
{
    return m_Notify[ulIndex].Wait(0) == tvusb::Status::Success;
}

bool EmuApplication::MacroSignalled()
{
    return m_Macro.Wait(0) == tvusb::Status::Success;
}

template <class Queue> static auto TakeAll(const Queue& queue, NTSTATUS* pStatus)
{
    auto records = queue.TakeAll();
    if (pStatus) {
        *pStatus = StatusOf(records.Error());
    }
    return std::move(*records);
}

std::vector<NotifyRecord> EmuApplication::TakeRecords(ULONG ulIndex, NTSTATUS* pStatus)
{
    return TakeAll(At(ulIndex).Events(), pStatus);
}

std::vector<MacroRecord> EmuApplication::TakeMacroRecords(NTSTATUS* pStatus)
{
    return TakeAll(Macros(), pStatus);
}

NTSTATUS EmuApplication::InsertScans(ULONG ulIndex, const std::vector<UCHAR>& Scans, bool bWait)
{
    return StatusOf(At(ulIndex).InsertScans(Scans, bWait));
}

NTSTATUS EmuApplication::InsertUSBPackets(ULONG ulIndex, const std::vector<FifoEntry>& Entries)
{
    return StatusOf(At(ulIndex).InsertPackets(Entries, !Entries.empty() && Entries.back().ulFlags == 1));
}
