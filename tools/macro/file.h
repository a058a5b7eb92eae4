// file.h - the driver's macro file, byte by byte.
//
//   0   34 bytes   the header text
//   34  16 bytes   not read by the driver
//   50  records    key (2), number of action bytes (2), actions of 10 bytes each; back to back to the end
//
// An action: a byte that means nothing, a length for the driver's log, the report of 8 bytes. Numbers are
// little-endian. Everything of a file is kept, also what the driver passes over, so that writing what was read
// gives the same bytes.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr std::string_view MacroHeader = "Korvex Configuration File V1.0.0.0";
constexpr size_t MacroUnreadBytes = 16;
constexpr size_t MacroActionBytes = 10;
constexpr size_t MacroMostActionBytes = 0xFFFF; // of one macro

using MacroReport = std::array<uint8_t, 8>;

struct MacroAction {
    std::array<uint8_t, 2> head{{0, 8}};
    MacroReport report{};
};

struct MacroEntry {
    uint16_t usKey = 0; // low byte: usage or modifier bits; high byte: 0 for a usage
    std::vector<MacroAction> actions;
    std::vector<uint8_t> rest; // what is left behind the last whole action
    size_t cOffset = 0;        // in the file that was read
    unsigned uLine = 0;        // in the readable form that was read

    bool IsModifiers() const { return usKey >> 8 != 0; }
    uint8_t Low() const { return static_cast<uint8_t>(usKey); }
    size_t ActionBytes() const { return actions.size() * MacroActionBytes + rest.size(); }
};

struct MacroFile {
    std::vector<uint8_t> unread = std::vector<uint8_t>(MacroUnreadBytes); // shorter when the file ends there
    std::vector<MacroEntry> macros;
    std::vector<uint8_t> tail; // of a record that runs past the end
    size_t cTailOffset = 0;
};

// Fails (InputError): another header.
MacroFile ReadMacroFile(const std::string& file, const std::vector<uint8_t>& content);

std::vector<uint8_t> BytesOf(const MacroFile& macros);
