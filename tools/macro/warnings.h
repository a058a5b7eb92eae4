// warnings.h - what the driver does silently with a macro file.
#pragma once

#include "file.h"

#include <optional>
#include <string>
#include <vector>

constexpr size_t MacroMost = 100;          // macros that the driver holds
constexpr size_t MacroMostQueued = 16;     // reports that it queues at once
constexpr size_t MacroMostBytes = 1 << 20; // of a file that it reads
constexpr size_t MacroMostNameUnits = 93;  // of the file's full name

struct MacroWarning {
    const MacroEntry* pEntry; // that it is about, or null for the whole file
    size_t cOffset;           // in the file that was read
    std::string what;
};

// In the order of the file.
std::vector<MacroWarning> WarningsOf(const MacroFile& macros);

// The warning for a file whose full name, as the driver is given it, is too long.
std::optional<std::string> WarnOfName(const std::string& driverName);
