// findings.h - what a doctor says of the driver's settings.
#pragma once

#include "registry.h"

#include <string>
#include <vector>

struct Finding {
    enum { Good, Warning, Fault } kind;
    std::string what;
    std::string advice; // what to do, or ""
};

// The settings that the driver will not read, or not as they were meant, and the start-up guard.
std::vector<Finding> FindingsOf(const std::vector<RegistryValue>& values);
