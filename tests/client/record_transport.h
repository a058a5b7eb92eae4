// record_transport.h - a transport without a driver: keeps what was sent and answers with zeros.
#pragma once

#include <string.h>

#include "client/client.h"

struct Sent {
    uint32_t ulCode;
    std::vector<uint8_t> In;
    uint32_t ulOut;
};

class RecordTransport : public tvusb::Transport
{
public:
    RecordTransport(bool b32, std::vector<Sent>* pSent) : m_b32(b32), m_pSent(pSent) {}

    uint32_t Open() override { return 0; }
    void Close() override {}
    uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                  uint32_t* pulReported) override
    {
        auto p = static_cast<const uint8_t*>(pIn);
        m_pSent->push_back({ulCode, std::vector<uint8_t>(p, p + ulIn), ulOut});
        if (ulOut != 0) {
            memset(pOut, 0, ulOut);
        }
        *pulReported = ulOut;
        return 0;
    }
    bool Is32() const override { return m_b32; }
    uint64_t NewEvent() override { return 0xFFFFFFFFFFFFFF9Cull; } // a handle with its high bit set
    uint32_t WaitEvent(uint64_t, uint32_t) override { return tvusb::Status::Timeout; }
    void FreeEvent(uint64_t) override {}

private:
    bool m_b32;
    std::vector<Sent>* m_pSent;
};
