// kbdtype.h - which kind of interface a keyboard's descriptors tell of.
//
// The driver decides the same from the same answers but has no request that tells it, so the replay follows
// the answers as they pass. Decided once, from completed answers only.
#pragma once

#include "packet.h"

#include <cstdint>

// True for the requests that travel as descriptor requests, not as plain control transfers.
bool IsDescriptorRequest(const std::array<uint8_t, 8>& setup);

class KeyboardType
{
public:
    // One answered control request of the keyboard; data is what came in or went out.
    void Learn(const std::array<uint8_t, 8>& setup, const Bytes& data);
    // One descriptor of the keyboard.
    void LearnDescriptor(const Bytes& data);

    // 0 not known yet, 1 normal, 2 power, 3 Jaalaa, 4 Chic, 5 other.
    unsigned Type() const { return m_uType; }

private:
    void Decide(const uint8_t* pClassTriple, bool bWithControllers);

    unsigned m_uType = 0;
    uint16_t m_usVendor = 0, m_usProduct = 0;
};
