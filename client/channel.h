// channel.h - how the library's objects send requests: a shared handle of one opened driver.
//
//   Driver ─┐
//   Keyboard ─► Channel ─► input record of this process size ─► Transport ─► the driver
//   Event  ─┘
//
// Copies speak through the same transport, which lives as long as one of them does. A channel that was moved
// from, or whose driver is closed, answers NotOpen without sending; one that was bound to an opening answers
// OpenedAnew after the next, as the driver may have been loaded anew and have given its indexes to others.
#pragma once

#include <memory>
#include <vector>

#include "client/status.h"
#include "client/transport.h"
#include "sys/control/requests.h"

namespace tvusb
{
// Bytes that go out: a record's payload, or all of an input.
struct Bytes {
    const void* pData = nullptr;
    uint32_t ulLength = 0;
};

class Channel
{
public:
    Channel() = default;
    explicit Channel(std::unique_ptr<Transport> transport);

    Status Open() const;
    void Close() const;
    bool IsOpen() const { return m_Shared != nullptr && m_Shared->bOpen; }
    // This channel for the present opening alone, or for all.
    Channel Bound() const;
    Channel Free() const;
    // The transport, for events; null when moved from.
    Transport* System() const { return m_Shared != nullptr ? m_Shared->pTransport.get() : nullptr; }

    // Sends an input as it stands. *pOut comes in with the room for the answer and goes out with what came.
    Status Send(uint32_t ulCode, const Bytes& in, std::vector<uint8_t>* pOut) const;
    // Sends a record: the keyboard's index and a payload, which may be longer than the record's own.
    Status SendRecord(uint32_t ulCode, uint32_t ulIndex, const Bytes& payload,
                      std::vector<uint8_t>* pOut) const;
    Status SendRecord(uint32_t ulCode, uint32_t ulIndex, const Bytes& payload = {}) const;
    // Sends a record whose payload is an event handle, as wide as this process's handles are.
    Status SendHandle(uint32_t ulCode, uint32_t ulIndex, uint64_t hEvent) const;

    // The answer is one value; fewer bytes are DeviceDataError.
    template <class T> Result<T> Ask(uint32_t ulCode) const
    {
        std::vector<uint8_t> out(sizeof(T));
        Status status = Send(ulCode, {}, &out);
        return One<T>(status, out, 0);
    }
    template <class T> Result<T> AskRecord(uint32_t ulCode, uint32_t ulIndex, const Bytes& payload = {}) const
    {
        std::vector<uint8_t> out(sizeof(T));
        Status status = SendRecord(ulCode, ulIndex, payload, &out);
        return One<T>(status, out, ulIndex);
    }

private:
    struct Shared {
        std::unique_ptr<Transport> pTransport;
        bool bOpen = false;
        uint32_t ulOpenings = 0;
    };

    template <class T>
    static Result<T> One(const Status& status, const std::vector<uint8_t>& out, uint32_t ulIndex)
    {
        Result<T> result(status);
        if (status.Ok() && !Copy(out, &*result, sizeof(T))) {
            return Status::OfRequest(Status::DeviceDataError, status.Request(), ulIndex);
        }
        return result;
    }
    static bool Copy(const std::vector<uint8_t>& out, void* pTo, size_t length);

    // Success when a request may be sent.
    uint32_t Readiness() const;

    std::shared_ptr<Shared> m_Shared;
    uint32_t m_ulOpening = 0; // 0: any
};

template <class T> Bytes BytesOf(const T& value)
{
    return {&value, sizeof(T)};
}
} // namespace tvusb
