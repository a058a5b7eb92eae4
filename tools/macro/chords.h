// chords.h - reports and what people call them: chords such as "ctrl+c".
//
// A chord is a press: modifiers and up to six keys in their order. What a report does not say exactly in this
// way has no chord, so that the chord always gives the report back byte by byte.
#pragma once

#include "file.h"

#include <optional>
#include <string>
#include <string_view>

// The press report of a chord, or nothing and the complaint.
std::optional<MacroReport> ReportOfChord(std::string_view chord, std::string& complaint);
// "ctrl+c", or "" when the report is no chord (nothing pressed, gaps, a byte that is no key).
std::string ChordOfReport(const MacroReport& report);

// The report bits of a modifier's name. "ctrl" is the left one, or either one.
std::optional<uint8_t> ModifierBits(std::string_view name, bool bEither);
// The names that it knows.
std::vector<std::string> ReportModifierNames();

// The usage of a key of the standard report: a name or a number such as "0xa7"; or nothing and the complaint.
std::optional<uint8_t> UsageOfKey(std::string_view name, std::string& complaint);
