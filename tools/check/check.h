// check.h - looks through a configuration without running it.
//
// Mistakes (the file cannot be used) and warnings (the driver would refuse it, or it has no effect), each with
// its line. The rules are those by which the driver takes definitions and reads its settings.
#pragma once

#include "tools/replay/config.h"

#include <optional>
#include <string>
#include <vector>

// As the driver numbers them.
enum class KeyboardKind : uint32_t { Normal = 1, Power, Jaalaa, Chic, Other };

// What is wrong with one definition on a keyboard of that kind, or "".
struct DefinitionFault {
    bool bRefused = false; // by the driver, when it is added; otherwise it never fires
    bool bOfKind = false;  // another kind of keyboard may take it
    std::string what;
};
DefinitionFault FaultOf(const KeyDefinition& definition, const ReplayConfig& config, KeyboardKind kind);

// definitions.cpp: all of them; without a kind, what holds on every kind.
void CheckDefinitions(const ReplayConfig& config, std::optional<KeyboardKind> kind,
                      std::vector<Problem>& warnings);

// settings.cpp: prefixes and the macro mode.
void CheckSettings(const ReplayConfig& config, std::vector<Problem>& warnings);

// The number that a setting has, or nothing when the file does not set it.
std::optional<uint32_t> NumberSetting(const ReplayConfig& config, const std::string& name);

// True when some key of the driver's table has that scan code.
bool HasKey(uint32_t ulScanCode);
