// keynames.h - the keys as people call them.
//
// One table: a key's HID usage and its names, joined with its row of the driver's key table, which knows the PS/2
// set 1 make code. The configuration takes any of the
// names, in any case; the printed table shows the first.
#pragma once

#include "sys/report/keytable.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct KeyName {
    uint16_t usUsage; // of the keyboard page, or of the consumer page for the media keys
    bool bConsumer;
    const char* pNames;      // separated by '|', the one to show first
    const KeyTableRow* pRow; // of the driver's table

    uint32_t MakeCode() const; // most significant byte first, or 0 when the key has none
};

// All keys, keyboard page first, each page by usage.
const std::vector<KeyName>& AllKeyNames();

// The key of that name, or null.
const KeyName* FindKeyByName(std::string_view name);

// Every name of the keys, the media keys too or not, and of the modifiers.
std::vector<std::string> KnownKeyNames(bool bMediaKeys);
std::vector<std::string> KnownModifierNames();

// The name to show for a usage of the keyboard page: "F1", or "0xa7" when nobody named it.
std::string ShownKeyName(uint8_t ucUsage);

// The name to show for a usage of the consumer page: "Volume Up", or "0x0e5".
std::string ShownMediaName(uint16_t usUsage);

// The names of the modifier bits of a report's first byte, lowest bit first.
std::vector<std::string> ShownModifiers(uint8_t ucModifiers);

// A make code as the bytes a definition holds.
std::vector<uint8_t> MakeCodeBytes(uint32_t ulMakeCode);

// The names of the bits of a hotkey's modifier mask, or of the driver's modifier word, lowest bit first.
std::vector<std::string> ShownModifierMask(uint32_t ulMask);

// The bit of a hotkey's modifier mask for a name such as "ctrl" or "left shift".
std::optional<uint32_t> FindModifierMask(std::string_view name);
