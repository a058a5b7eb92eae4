// latency.h - how long reports take from the bus to the HID device above.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

class Latency
{
public:
    using Clock = std::chrono::steady_clock;
    void Add(Clock::duration time);
    // "300 reports: median 61 us, 99.9 % 204 us, most 311 us", and a line for each range that has some. "" for none.
    std::string Text() const;

private:
    mutable std::mutex m_Lock;     // guards the times
    std::vector<uint32_t> m_Times; // in microseconds; the first million
};
