// windows_transport.cpp - DeviceIoControl on \\.\TvUSB.
//
// The handle is opened for overlapped requests, so that a thread whose request waits (an insertion) does not
// hold off the requests of others. The system tells errors of its own numbering (windows_errors.h).
#include "client/transport.h"

#include <stddef.h>

#include <algorithm>

#include <windows.h>

#include <setupapi.h>

#include "client/status.h"
#include "client/windows_errors.h"
#include "sys/control/requests.h"

namespace tvusb
{
namespace
{
// The input record as this process's compiler lays it out; the driver expects the same bytes.
struct NaturalRequest {
    ULONG ulDeviceIndex;
    union {
        RequestPayload Payload;
        HANDLE hEvent;
    };
};
using OwnRequest = std::conditional_t<sizeof(void*) == 8, ControlRequest64, ControlRequest32>;
static_assert(sizeof(NaturalRequest) == sizeof(OwnRequest), "the record's size in this process");
static_assert(offsetof(NaturalRequest, Payload) == offsetof(OwnRequest, Payload), "its payload's offset");

class OnWindows : public Transport
{
public:
    ~OnWindows() override { Close(); }

    uint32_t Open() override
    {
        Close();
        m_hFile =
            CreateFileW(L"\\\\.\\TvUSB", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
        return m_hFile == INVALID_HANDLE_VALUE ? StatusOfError(GetLastError(), 0) : Status::Success;
    }

    void Close() override
    {
        if (m_hFile != INVALID_HANDLE_VALUE) {
            CloseHandle(m_hFile);
        }
        m_hFile = INVALID_HANDLE_VALUE;
    }

    uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                  uint32_t* pulReported) override
    {
        *pulReported = 0;
        OVERLAPPED overlapped = {};
        overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (overlapped.hEvent == nullptr) {
            return Status::InsufficientResources;
        }
        DWORD ulReported = 0;
        BOOL bDone =
            DeviceIoControl(m_hFile, ulCode, const_cast<void*>(pIn), ulIn, pOut, ulOut, nullptr, &overlapped);
        if (bDone || GetLastError() == ERROR_IO_PENDING) {
            bDone = GetOverlappedResult(m_hFile, &overlapped, &ulReported, TRUE);
        }
        uint32_t ulStatus = bDone ? Status::Success : StatusOfError(GetLastError(), ulCode);
        CloseHandle(overlapped.hEvent);
        *pulReported = bDone ? ulReported : 0;
        return ulStatus;
    }

    bool Is32() const override { return sizeof(void*) == 4; }

    std::vector<std::u16string> ListInterfaces() override
    {
        const GUID keyboards = KeyboardInterfaceClass<GUID>();
        std::vector<std::u16string> names;
        HDEVINFO hDevices =
            SetupDiGetClassDevsW(&keyboards, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
        if (hDevices == INVALID_HANDLE_VALUE) {
            return names;
        }
        SP_DEVICE_INTERFACE_DATA which = {};
        which.cbSize = sizeof(which);
        for (DWORD i = 0; SetupDiEnumDeviceInterfaces(hDevices, nullptr, &keyboards, i, &which); i++) {
            std::u16string name = NameOf(hDevices, &which);
            if ((which.Flags & SPINT_ACTIVE) != 0 && !name.empty()) {
                names.push_back(std::move(name));
            }
        }
        SetupDiDestroyDeviceInfoList(hDevices);
        return names;
    }

    uint64_t NewEvent() override
    {
        return reinterpret_cast<uintptr_t>(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    }

    uint32_t WaitEvent(uint64_t hEvent, uint32_t ulTimeoutMs) override
    {
        switch (WaitForSingleObject(HandleOf(hEvent), ulTimeoutMs)) {
        case WAIT_OBJECT_0:
            return Status::Success;
        case WAIT_TIMEOUT:
            return Status::Timeout;
        default:
            return StatusOfError(GetLastError(), 0);
        }
    }

    void FreeEvent(uint64_t hEvent) override { CloseHandle(HandleOf(hEvent)); }

private:
    static HANDLE HandleOf(uint64_t hEvent)
    {
        return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(hEvent));
    }

    static std::u16string NameOf(HDEVINFO hDevices, SP_DEVICE_INTERFACE_DATA* pWhich)
    {
        DWORD ulBytes = 0;
        SetupDiGetDeviceInterfaceDetailW(hDevices, pWhich, nullptr, 0, &ulBytes, nullptr);
        std::vector<uint8_t> room(std::max<size_t>(ulBytes, sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)));
        auto pDetail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(room.data());
        pDetail->cbSize = sizeof(*pDetail);
        bool bTold = SetupDiGetDeviceInterfaceDetailW(hDevices, pWhich, pDetail, ulBytes, nullptr, nullptr);
        return bTold ? reinterpret_cast<const char16_t*>(pDetail->DevicePath) : std::u16string();
    }

    HANDLE m_hFile = INVALID_HANDLE_VALUE;
};
static_assert(WAIT_FOREVER == INFINITE, "the same endless wait");
} // namespace

std::unique_ptr<Transport> SystemTransport()
{
    return std::make_unique<OnWindows>();
}
} // namespace tvusb
