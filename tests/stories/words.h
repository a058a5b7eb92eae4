// words.h - the parts of a story's line: words, numbers, bytes and the names that stories use.
//
// "left -> right | events" are the three parts of a line, absent ones empty. What cannot be read throws BadLine,
// which fails the line with its text.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "emu/app/application.h"
#include "emu/app/machine.h"

using Words = std::vector<std::string>;

struct BadLine : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Parts {
    std::string Left, Right, Events;
};

Words SplitWords(const std::string& text);
Parts SplitParts(std::string text);

// The whole word as a number of the base; 0 takes "0x" for hexadecimal ones.
unsigned long Number(const std::string& word, int base);
ULONG Number32(const std::string& word, int base);
ULONG Milliseconds(const std::string& word); // "250ms"

// The words from one on as hexadecimal bytes, and bytes as such words.
EmuBytes Bytes(const Words& words, size_t from = 0);
EmuBytes Bytes(const std::string& text);
std::string Text(const EmuBytes& bytes);

// "lctrl+fn" as bits of the modifier word; "-" for none.
ULONG Modifiers(const std::string& word);

// An event as stories tell it: "down 7", "up 7 abort", "repeat 3B 7", "key 1E 0".
std::string EventText(const NotifyRecord& record);
// And of the macro mode: "mode 1", "captured 00 00 04".
std::string EventText(const MacroRecord& record);
