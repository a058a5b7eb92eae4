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

// What is claimed of a definition: that the driver refuses it, that it never fires, or that it goes down with the first
// report and never comes up.
enum class Claim { Fine, Refused, Never, Once };

// One definition on a keyboard of that kind.
struct DefinitionFault {
    Claim claim = Claim::Fine;
    bool bOfKind = false; // another kind of keyboard may take it
    std::string what;     // the reason
};
DefinitionFault FaultOf(const KeyDefinition& definition, const ReplayConfig& config, KeyboardKind kind);

// definitions.cpp: all of them; without a kind, what holds on every kind.
void CheckDefinitions(const ReplayConfig& config, std::optional<KeyboardKind> kind,
                      std::vector<Problem>& warnings);

// settings.cpp: prefixes and the macro mode.
void CheckSettings(const ReplayConfig& config, std::vector<Problem>& warnings);

// The number that a setting has, or nothing when the file does not set it.
std::optional<uint32_t> NumberSetting(const ReplayConfig& config, const std::string& name);

// A prefix key: the modifier and the setting that chooses the key.
struct PrefixSetting {
    const char* pModifier;
    const char* pSetting;
    uint32_t ulBit, ulDefault;
};
extern const PrefixSetting Prefixes[3];

// The name of the key with that scan code, or its bytes.
std::string KeyNameOf(uint32_t ulScanCode);

// scans.cpp: the definition's keys as scan codes. False: a prefix byte without the bytes that belong to it.
bool SplitScans(const KeyDefinition& definition, std::vector<uint32_t>& codes);

// True when some key of the driver's table has that scan code.
bool HasKey(uint32_t ulScanCode);
