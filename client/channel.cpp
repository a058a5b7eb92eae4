// channel.cpp - builds the input records of both process sizes and sends them.
#include "client/channel.h"

#include <stddef.h>
#include <string.h>

#include <algorithm>

namespace tvusb
{
namespace
{
template <class Record> std::vector<uint8_t> BuildRecord(uint32_t ulIndex, const Bytes& payload)
{
    std::vector<uint8_t> in(std::max<size_t>(sizeof(Record), offsetof(Record, Payload) + payload.ulLength));
    memcpy(in.data(), &ulIndex, sizeof(ulIndex));
    if (payload.ulLength != 0) {
        memcpy(in.data() + offsetof(Record, Payload), payload.pData, payload.ulLength);
    }
    return in;
}
} // namespace

Channel::Channel(std::unique_ptr<Transport> transport) : m_Shared(std::make_shared<Shared>())
{
    m_Shared->pTransport = std::move(transport);
}

Status Channel::Open() const
{
    uint32_t ulStatus = System() != nullptr ? System()->Open() : Status::NotOpen;
    if (System() != nullptr) {
        m_Shared->bOpen = Status(ulStatus).Ok();
        m_Shared->ulOpenings++;
    }
    return {ulStatus, 0, "opening the driver"};
}

void Channel::Close() const
{
    if (IsOpen()) {
        System()->Close();
        m_Shared->bOpen = false;
    }
}

Channel Channel::Bound() const
{
    Channel bound = *this;
    bound.m_ulOpening = m_Shared != nullptr ? m_Shared->ulOpenings : 0;
    return bound;
}

Channel Channel::Free() const
{
    Channel free = *this;
    free.m_ulOpening = 0;
    return free;
}

uint32_t Channel::Readiness() const
{
    if (!IsOpen()) {
        return Status::NotOpen;
    }
    bool bStale = m_ulOpening != 0 && m_ulOpening != m_Shared->ulOpenings;
    return bStale ? Status::OpenedAnew : Status::Success;
}

Status Channel::Send(uint32_t ulCode, const Bytes& in, std::vector<uint8_t>* pOut) const
{
    if (uint32_t ulWhy = Readiness()) {
        return {ulWhy, ulCode};
    }
    auto ulOut = static_cast<uint32_t>(pOut->size());
    uint32_t ulReported = 0;
    uint32_t ulStatus = System()->Send(ulCode, in.pData, in.ulLength, pOut->data(), ulOut, &ulReported);
    pOut->resize(std::min(ulReported, ulOut));
    return {ulStatus, ulCode};
}

Status Channel::SendRecord(uint32_t ulCode, uint32_t ulIndex, const Bytes& payload,
                           std::vector<uint8_t>* pOut) const
{
    if (uint32_t ulWhy = Readiness()) {
        return Status::OfRequest(ulWhy, ulCode, ulIndex);
    }
    std::vector<uint8_t> in = System()->Is32() ? BuildRecord<ControlRequest32>(ulIndex, payload)
                                               : BuildRecord<ControlRequest64>(ulIndex, payload);
    Status status = Send(ulCode, {in.data(), static_cast<uint32_t>(in.size())}, pOut);
    return status.Ok() ? status : Status::OfRequest(status.Value(), ulCode, ulIndex);
}

Status Channel::SendRecord(uint32_t ulCode, uint32_t ulIndex, const Bytes& payload) const
{
    std::vector<uint8_t> none;
    return SendRecord(ulCode, ulIndex, payload, &none);
}

Status Channel::SendHandle(uint32_t ulCode, uint32_t ulIndex, uint64_t hEvent) const
{
    bool b32 = IsOpen() && System()->Is32();
    return SendRecord(ulCode, ulIndex, {&hEvent, b32 ? 4u : 8u});
}

bool Channel::Copy(const std::vector<uint8_t>& out, void* pTo, size_t length)
{
    if (out.size() < length) {
        return false;
    }
    memcpy(pTo, out.data(), length);
    return true;
}
} // namespace tvusb
