// The handle of a plugged keyboard: what a person at it does, and what was seen of it.
//
// The handle holds references to the keyboard's and the HID stack's device objects from plugging in to
// unloading, so that a thread which uses it during removal finds devices that answer that they are gone.
#include "machine.h"

EmuKeyboard::EmuKeyboard(const EmuPlugOptions& options) : m_Options(options)
{
    if (!m_Options.Memory) {
        m_Options.Memory = std::make_shared<EmuMemory>();
        EmuClearMemory(m_Options.Memory.get());
    }
}

NTSTATUS EmuKeyboard::Hook(PVOID pContext, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength)
{
    auto pKeyboard = static_cast<EmuKeyboard*>(pContext);
    EmuBytes data(pBuffer, pBuffer + *pulLength);
    NTSTATUS status = pKeyboard->m_Options.Hook(pSetup, data);
    if (status == STATUS_NOT_SUPPORTED) {
        return status;
    }
    if (*pulLength > data.size()) {
        *pulLength = (ULONG)data.size();
    }
    if ((pSetup[0] & 0x80) && *pulLength != 0) {
        memcpy(pBuffer, data.data(), *pulLength);
    }
    return status;
}

NTSTATUS EmuKeyboard::Send(PVOID pContext, ULONG_PTR ulTicket, const UCHAR* pSetup, const UCHAR* pData,
                           ULONG ulLength)
{
    return static_cast<EmuKeyboard*>(pContext)->m_Options.Send(ulTicket, pSetup,
                                                               EmuBytes(pData, pData + ulLength));
}

VOID EmuKeyboard::GiveUp(PVOID pContext, ULONG_PTR ulTicket)
{
    static_cast<EmuKeyboard*>(pContext)->m_Options.GiveUp(ulTicket);
}

VOID EmuKeyboard::Request(PVOID pContext, const UCHAR* pSetup, const UCHAR* pData, ULONG ulLength)
{
    auto pKeyboard = static_cast<EmuKeyboard*>(pContext);
    HostTellOutput("to the keyboard", pSetup, 8);
    HostTellOutput("with data", pData, ulLength);
    EmuRequest request = {{}, EmuBytes(pData, pData + ulLength)};
    std::copy(pSetup, pSetup + request.Setup.size(), request.Setup.begin());
    std::lock_guard<std::mutex> guard(pKeyboard->m_Lock);
    pKeyboard->m_Requests.push_back(std::move(request));
}

VOID EmuKeyboard::Led(PVOID pContext, const UCHAR* pReport, ULONG ulLength)
{
    static_cast<EmuKeyboard*>(pContext)->m_Options.OnLed(EmuBytes(pReport, pReport + ulLength));
}

VOID EmuKeyboard::Observe(PVOID pContext, const UCHAR* pReport, ULONG ulLength, NTSTATUS Status)
{
    auto pKeyboard = static_cast<EmuKeyboard*>(pContext);
    HostTellOutput("to the HID stack", pReport, ulLength);
    EmuReceived received{EmuBytes(pReport, pReport + ulLength), Status};
    if (pKeyboard->m_Options.Record && NT_SUCCESS(Status)) {
        std::lock_guard<std::mutex> guard(pKeyboard->m_Lock);
        pKeyboard->m_Received.push_back(received);
    }
    if (pKeyboard->m_Options.OnReceived) {
        pKeyboard->m_Options.OnReceived(received);
    }
}

bool EmuKeyboard::Report(const EmuBytes& Bytes)
{
    return m_pPhysical && NT_SUCCESS(EmuKeyboardReport(m_pPhysical, Bytes.data(), (ULONG)Bytes.size()));
}

NTSTATUS EmuKeyboard::Read()
{
    return m_pHid ? EmuHidRead(m_pHid) : STATUS_DEVICE_NOT_READY;
}

NTSTATUS EmuKeyboard::FailRead(NTSTATUS Status)
{
    return m_pPhysical ? EmuKeyboardFailRead(m_pPhysical, Status) : STATUS_DEVICE_NOT_READY;
}

NTSTATUS EmuKeyboard::Control(const UCHAR* pSetup, EmuBytes& Data, EmuHidRoute Route)
{
    if (!m_pHid) {
        return STATUS_DEVICE_NOT_READY;
    }
    auto ulLength = (ULONG)Data.size();
    NTSTATUS status = EmuHidControl(m_pHid, pSetup, Data.data(), &ulLength, Route);
    Data.resize(ulLength);
    return status;
}

NTSTATUS EmuKeyboard::SendLed(UCHAR ucLeds, EmuHidRoute Route)
{
    return m_pHid ? EmuHidSendLed(m_pHid, ucLeds, Route) : STATUS_DEVICE_NOT_READY;
}

void EmuKeyboard::Answer(ULONG_PTR ulTicket, NTSTATUS Status, const EmuBytes& Data)
{
    if (m_pPhysical) {
        EmuKeyboardAnswer(m_pPhysical, ulTicket, Status, Data.data(), (ULONG)Data.size());
    }
}

NTSTATUS EmuKeyboard::SetRules(const std::vector<EmuAnswerRule>& rules)
{
    return m_pPhysical ? EmuKeyboardSetRules(m_pPhysical, rules.data(), (ULONG)rules.size())
                       : STATUS_DEVICE_NOT_READY;
}

ULONG EmuKeyboard::HeldRequests() const
{
    return m_pPhysical ? EmuKeyboardHeldRequests(m_pPhysical) : 0;
}

std::vector<EmuRequest> EmuKeyboard::TakenRequests()
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return std::exchange(m_Requests, {});
}

std::vector<EmuReceived> EmuKeyboard::Received() const
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return m_Received;
}

std::vector<EmuReceived> EmuKeyboard::Taken()
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return std::exchange(m_Received, {});
}

ULONG EmuKeyboard::PendingReads() const
{
    return m_pPhysical ? EmuKeyboardPendingReads(m_pPhysical) : 0;
}

ULONG EmuKeyboard::KeptReports() const
{
    return m_pPhysical ? EmuKeyboardKeptReports(m_pPhysical) : 0;
}

NTSTATUS EmuKeyboard::SendPnp(UCHAR ucMinor)
{
    return m_bPlugged ? HostSendPnp(m_pPhysical, ucMinor) : STATUS_DEVICE_NOT_READY;
}

NTSTATUS EmuKeyboard::Start()
{
    m_StartStatus = SendPnp(IRP_MN_START_DEVICE);
    return m_StartStatus;
}

NTSTATUS EmuKeyboard::SurpriseRemove()
{
    return SendPnp(IRP_MN_SURPRISE_REMOVAL);
}

NTSTATUS EmuKeyboard::Remove()
{
    NTSTATUS status = SendPnp(IRP_MN_REMOVE_DEVICE);
    m_bPlugged = false;
    m_pFilter = nullptr;
    return status;
}

NTSTATUS EmuKeyboard::Unplug(bool bSurprise)
{
    if (!m_bPlugged) {
        return STATUS_SUCCESS;
    }
    SendPnp(bSurprise ? IRP_MN_SURPRISE_REMOVAL : IRP_MN_QUERY_REMOVE_DEVICE);
    return Remove();
}

void EmuKeyboard::Forget()
{
    for (PDEVICE_OBJECT* ppDevice : {&m_pHid, &m_pPhysical}) {
        if (*ppDevice) {
            ObDereferenceObject(*ppDevice);
        }
        *ppDevice = nullptr;
    }
}
