// host_transport.cpp - the host's application side. Each call says first which process size its thread has.
#include "client/host_transport.h"

#include <host.h>

#include "client/status.h"

namespace tvusb
{
namespace
{
// The texts of a list that an empty one ends.
std::vector<std::u16string> SplitNames(const char16_t* pList)
{
    std::vector<std::u16string> names;
    for (; *pList != 0; pList += names.back().size() + 1) {
        names.emplace_back(pList);
    }
    return names;
}

class OnHost : public Transport
{
public:
    explicit OnHost(bool b32) : m_b32(b32) {}
    ~OnHost() override { Close(); }

    uint32_t Open() override
    {
        Close();
        HostSetCaller32(m_b32);
        return static_cast<uint32_t>(HostOpen(L"\\\\.\\TvUSB", &m_File));
    }

    void Close() override
    {
        if (m_File != nullptr) {
            HostClose(m_File);
        }
        m_File = nullptr;
    }

    uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                  uint32_t* pulReported) override
    {
        HostSetCaller32(m_b32);
        ULONG ulReported = 0;
        NTSTATUS status = HostDeviceControl(m_File, ulCode, pIn, ulIn, pOut, ulOut, &ulReported);
        *pulReported = NT_ERROR(status) ? 0 : ulReported;
        return static_cast<uint32_t>(status);
    }

    bool Is32() const override { return m_b32; }

    std::vector<std::u16string> ListInterfaces() override
    {
        const GUID keyboards = KeyboardInterfaceClass<GUID>();
        PWSTR pList = nullptr;
        if (!NT_SUCCESS(IoGetDeviceInterfaces(&keyboards, nullptr, 0, &pList)) || pList == nullptr) {
            return {};
        }
        std::vector<std::u16string> names = SplitNames(reinterpret_cast<const char16_t*>(pList));
        ExFreePool(pList);
        return names;
    }

    uint64_t NewEvent() override { return reinterpret_cast<uint64_t>(HostCreateEvent(false)); }

    uint32_t WaitEvent(uint64_t hEvent, uint32_t ulTimeoutMs) override
    {
        LONGLONG llTimeoutUs = ulTimeoutMs == WAIT_FOREVER ? -1 : ulTimeoutMs * 1000LL;
        NTSTATUS status = HostWaitEvent(reinterpret_cast<HANDLE>(hEvent), llTimeoutUs);
        return status == STATUS_USER_APC ? Status::Cancelled : static_cast<uint32_t>(status);
    }

    void FreeEvent(uint64_t hEvent) override { HostCloseHandle(reinterpret_cast<HANDLE>(hEvent)); }

private:
    bool m_b32;
    HostFile m_File = nullptr;
};
} // namespace

std::unique_ptr<Transport> HostTransport(ProcessSize size)
{
    return std::make_unique<OnHost>(size == ProcessSize::Bits32);
}
} // namespace tvusb
