// scenario.h - one minute at a machine, lived through in the order that a seed chooses.
//
// The seed also chooses the scene (life.h), pauses and keys. The same seed gives the same life.
#pragma once

#include <string>

struct ScheduleOutcome {
    std::string Wrong;            // what did not hold; empty: all did
    unsigned long long ullDigest; // of every choice and of every report that the system above received
    unsigned uReceived;           // reports
};

// `folder` holds the macro file and what the driver logs.
ScheduleOutcome LiveThroughSchedule(unsigned long long ullSeed, const std::string& folder);
