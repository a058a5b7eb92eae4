// found.h - the keyboards at the machine's USB, as the system tells of them in its folder /sys.
//
// Nothing is opened: who looks needs no rights. A keyboard that this program offers over USB/IP itself is none of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct UsbFound {
    std::string name;    // the port's: "1-1.2"
    std::string node;    // "/dev/bus/usb/001/002"
    std::string product; // as the keyboard calls itself
    uint16_t usVendor = 0, usProduct = 0;
    std::vector<uint8_t> interfaces; // the numbers of its HID interfaces
};

// Those with an interface of a keyboard, by the names of their ports.
std::vector<UsbFound> FindUsbKeyboards(const std::string& sysfs = "/sys");

// "046d:c31c Keyboard K120 at 1-1.2"
std::string WordsOf(const UsbFound& keyboard);

// Those that are wished: by VID:PID, by the port, or by a part of the name; by nothing, all.
std::vector<UsbFound> MeantOf(const std::vector<UsbFound>& keyboards, const std::string& wish);
// The one that is wished.
// Fails (InputError): none, or several, which are listed.
UsbFound ChooseKeyboard(const std::vector<UsbFound>& keyboards, const std::string& wish);

// True when drivers of the system's own have all its HID interfaces.
bool IsSystems(const UsbFound& keyboard, const std::string& sysfs = "/sys");

// True when the machine has a terminal of its own and no other keyboard to type at it.
bool IsOnlyKeyboard(const UsbFound& keyboard, const std::string& sysfs = "/sys");
