// keyboards.h - the keyboards as people name them.
//
// A keyboard is named by its index, by VID:PID or VID:PID:INTERFACE, by its serial number, or by the name of its
// device interface; "index:", "id:", "serial:" and "name:" before it say which is meant. Every look-up asks the
// driver anew.
#pragma once

#include "client/client.h"
#include "line.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct KeyboardFacts {
    tvusb::Keyboard keyboard;
    std::string hardwareId, description, object, name; // name: of its device interface, or ""
    std::string id;                                    // "7a3c:0101:00" of the hardware id, or ""
    std::optional<tvusb::DeviceDescriptor> device;     // what the keyboard itself tells
    std::string serial;                                // "" for none
};

// Fails (Failure).
std::vector<KeyboardFacts> FactsOfAll(const tvusb::Driver& driver);
// Whether the user's word names this keyboard.
bool IsNamed(const KeyboardFacts& facts, std::string_view word);

Line LineOf(const KeyboardFacts& facts, std::string_view type);
// One line: "keyboard 3  7a3c:0101:00  Product  serial 12  \\?\usb#…"
std::string TextOf(const KeyboardFacts& facts);
