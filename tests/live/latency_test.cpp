// latency_test.cpp - the histogram of how long reports take.
#include <gtest/gtest.h>

#include "tools/live/latency.h"

namespace
{
using std::chrono::microseconds;

TEST(Latency, TellsMedianTailAndRanges)
{
    Latency latency;
    EXPECT_EQ("", latency.Text());
    for (int i = 0; i < 998; i++)
        latency.Add(microseconds(60));
    latency.Add(microseconds(-5));
    latency.Add(microseconds(100));
    EXPECT_EQ("1000 reports: median 60 us, 99.9 % 100 us, most 100 us\n"
              "  below       25 us        1  #\n"
              "  below      100 us      998  ########################################\n"
              "  below      200 us        1  #",
              latency.Text());
}
} // namespace
