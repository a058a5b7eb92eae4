// application.cpp - the tests' applications: this process is a 64-bit one, another a 32-bit one. Both reach
// the driver as any process does, and are counted while they wait for a request (turns.h).
#include <host.h>

#include "client/host_transport.h"
#include "client/transport.h"
#include "interfaces.h"
#include "process32.h"
#include "turns.h"

namespace tvusb
{
namespace
{
class Counted : public Transport
{
public:
    explicit Counted(std::unique_ptr<Transport> pTransport) : m_pTransport(std::move(pTransport)) {}

    uint32_t Open() override
    {
        Asking asking;
        return m_pTransport->Open();
    }
    void Close() override
    {
        Asking asking;
        m_pTransport->Close();
    }
    uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                  uint32_t* pulReported) override
    {
        Asking asking;
        return m_pTransport->Send(ulCode, pIn, ulIn, pOut, ulOut, pulReported);
    }
    bool Is32() const override { return m_pTransport->Is32(); }
    // This world's own: the system knows nothing of them.
    std::vector<std::u16string> ListInterfaces() override
    {
        return ListInterfacesOf(KeyboardInterfaceClass<GUID>());
    }
    uint64_t NewEvent() override { return m_pTransport->NewEvent(); }
    uint32_t WaitEvent(uint64_t hEvent, uint32_t ulTimeoutMs) override
    {
        return m_pTransport->WaitEvent(hEvent, ulTimeoutMs);
    }
    void FreeEvent(uint64_t hEvent) override { m_pTransport->FreeEvent(hEvent); }

private:
    std::unique_ptr<Transport> m_pTransport;
};
} // namespace

std::unique_ptr<Transport> HostTransport(ProcessSize size)
{
    return std::make_unique<Counted>(size == ProcessSize::Bits32 ? Transport32() : SystemTransport());
}
} // namespace tvusb

// An application waits by the real clock.
HANDLE HostCreateEvent(bool bManualReset, ACCESS_MASK rights)
{
    HANDLE hEvent = nullptr;
    ZwCreateEvent(&hEvent, rights, nullptr, bManualReset ? NotificationEvent : SynchronizationEvent, FALSE);
    return hEvent;
}

NTSTATUS HostWaitEvent(HANDLE hEvent, LONGLONG llTimeoutUs)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = llTimeoutUs * -10;
    return ZwWaitForSingleObject(hEvent, FALSE, llTimeoutUs < 0 ? nullptr : &timeout);
}

void HostCloseHandle(HANDLE hEvent)
{
    ZwClose(hEvent);
}
