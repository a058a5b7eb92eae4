// latency.cpp - a histogram with bounds that double.
#include "latency.h"

#include <fmt/format.h>

#include <algorithm>

constexpr size_t MostTimes = 1000000;
constexpr uint32_t FirstBoundUs = 25;
constexpr size_t WidestBar = 40;

void Latency::Add(Clock::duration time)
{
    auto llUs = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    std::lock_guard<std::mutex> lock(m_Lock);
    if (m_Times.size() < MostTimes)
        m_Times.push_back(static_cast<uint32_t>(std::clamp<long>(llUs, 0, UINT32_MAX)));
}

std::string Latency::Text() const
{
    std::vector<uint32_t> times;
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        times = m_Times;
    }
    if (times.empty())
        return "";
    std::sort(times.begin(), times.end());
    const size_t cTimes = times.size();
    std::string text =
        fmt::format("{} reports: median {} us, 99.9 % {} us, most {} us", cTimes, times[cTimes / 2],
                    times[std::min(cTimes - 1, cTimes * 999 / 1000)], times.back());
    auto from = times.begin();
    for (uint64_t ullBound = FirstBoundUs; from != times.end(); ullBound *= 2) {
        auto to = std::lower_bound(from, times.end(), ullBound);
        const auto cHere = static_cast<size_t>(to - from);
        if (cHere != 0)
            text += fmt::format("\n  below {:>8} us {:>8}  {}", ullBound, cHere,
                                std::string((cHere * WidestBar + cTimes - 1) / cTimes, '#'));
        from = to;
    }
    return text;
}
