// typing.h - characters as the reports of a keyboard with the US layout.
//
// "\n" is Enter, "\t" Tab, "\b" Backspace. What a report types depends on Caps Lock, as at any keyboard.
#pragma once

#include <stdint.h>

#include <array>
#include <optional>

namespace tvusb
{
// An ordinary keyboard's report: modifiers, 0, six keys.
using KeyReport = std::array<uint8_t, 8>;

// The press of a character, or nothing when no key of the layout types it.
std::optional<KeyReport> ReportOfCharacter(char c);
// The character that a press types, or 0.
char CharacterOfReport(const KeyReport& report);
} // namespace tvusb
