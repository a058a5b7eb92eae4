// windows_transport.cpp - DeviceIoControl on \\.\TvUSB.
//
// The handle is opened for overlapped requests, so that a thread whose request waits (an insertion) does not
// hold off the requests of others. The system tells errors of its own numbering; those that stand for one
// status of the driver are told as that status.
#include "client/transport.h"

#include <stddef.h>

#include <windows.h>

#include "client/status.h"
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

struct ErrorRow {
    DWORD ulError;
    uint32_t ulStatus;
};

const ErrorRow ErrorRows[] = {
    {ERROR_GEN_FAILURE, Status::Unsuccessful},
    {ERROR_INVALID_FUNCTION, Status::InvalidDeviceRequest},
    {ERROR_INSUFFICIENT_BUFFER, Status::BufferTooSmall},
    {ERROR_NO_SYSTEM_RESOURCES, Status::InsufficientResources},
    {ERROR_NOT_ENOUGH_MEMORY, Status::InsufficientResources},
    {ERROR_INVALID_HANDLE, Status::InvalidHandle},
    {ERROR_INVALID_PARAMETER, Status::InvalidParameter},
    {ERROR_ACCESS_DENIED, Status::AccessDenied},
    {ERROR_FILE_NOT_FOUND, Status::NameNotFound},
    {ERROR_OPERATION_ABORTED, Status::Cancelled},
    {ERROR_DEVICE_NOT_CONNECTED, 0xC000009D},
    {ERROR_NOT_READY, 0xC00000A3},
    {ERROR_SEM_TIMEOUT, 0xC00000B5},
    {ERROR_NOT_SUPPORTED, 0xC00000BB},
    {ERROR_IO_DEVICE, 0xC0000185},
};

// An error without a status of the driver keeps its number, as the system itself writes such a status.
uint32_t StatusOf(DWORD ulError)
{
    for (const ErrorRow& row : ErrorRows) {
        if (row.ulError == ulError) {
            return row.ulStatus;
        }
    }
    return 0xC0070000 | (ulError & 0xFFFF);
}

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
        return m_hFile == INVALID_HANDLE_VALUE ? StatusOf(GetLastError()) : Status::Success;
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
            return StatusOf(GetLastError());
        }
        DWORD ulReported = 0;
        BOOL bDone =
            DeviceIoControl(m_hFile, ulCode, const_cast<void*>(pIn), ulIn, pOut, ulOut, nullptr, &overlapped);
        if (bDone || GetLastError() == ERROR_IO_PENDING) {
            bDone = GetOverlappedResult(m_hFile, &overlapped, &ulReported, TRUE);
        }
        uint32_t ulStatus = bDone ? Status::Success : StatusOf(GetLastError());
        CloseHandle(overlapped.hEvent);
        *pulReported = bDone ? ulReported : 0;
        return ulStatus;
    }

    bool Is32() const override { return sizeof(void*) == 4; }

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
            return StatusOf(GetLastError());
        }
    }

    void FreeEvent(uint64_t hEvent) override { CloseHandle(HandleOf(hEvent)); }

private:
    static HANDLE HandleOf(uint64_t hEvent)
    {
        return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(hEvent));
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
