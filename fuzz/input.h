// input.h - reads a fuzzer's bytes as numbers, choices and byte strings.
//
// An input that is used up gives zeros, so every input can be read to the end of its meaning. Lengths stand
// before their bytes; a length beyond the input is cut.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

class FuzzInput
{
public:
    FuzzInput(const uint8_t* pBytes, size_t cBytes) : m_pAt(pBytes), m_cLeft(cBytes) {}

    bool More() const { return m_cLeft != 0; }
    uint8_t Byte() { return Number<uint8_t>(); }
    uint16_t Word() { return Number<uint16_t>(); }
    uint32_t Long() { return Number<uint32_t>(); }
    bool Flag() { return (Byte() & 1) != 0; }
    // Below the limit, which is 1 to 256.
    unsigned Below(unsigned uLimit) { return Byte() % uLimit; }

    // A length byte, then so many bytes.
    std::vector<uint8_t> Short() { return Take(Byte()); }
    // A length word, then so many bytes; at most `cMost`.
    std::vector<uint8_t> Long(size_t cMost) { return Take(std::min<size_t>(Word(), cMost)); }
    std::vector<uint8_t> Take(size_t cBytes)
    {
        cBytes = std::min(cBytes, m_cLeft);
        std::vector<uint8_t> bytes(m_pAt, m_pAt + cBytes);
        m_pAt += cBytes;
        m_cLeft -= cBytes;
        return bytes;
    }
    std::vector<uint8_t> Rest() { return Take(m_cLeft); }

private:
    template <class T> T Number()
    {
        T value = 0;
        size_t cBytes = std::min(sizeof value, m_cLeft);
        if (cBytes != 0) {
            memcpy(&value, m_pAt, cBytes);
        }
        m_pAt += cBytes;
        m_cLeft -= cBytes;
        return value;
    }

    const uint8_t* m_pAt;
    size_t m_cLeft;
};
