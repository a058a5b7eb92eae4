// found.h - the keyboards among the devices of a capture, and what concerns each.
#pragma once

#include "devices.h"
#include "script.h"

#include <vector>

// One keyboard found: which interface of which device.
struct Found {
    const Device* pDevice;
    DeviceKey key;
    unsigned uInterface; // of the configuration, or NoInterface + endpoint when none was captured
    std::vector<uint8_t> endpoints;
    unsigned uOrdinal = 0;  // among the keyboards of its device
    unsigned uSiblings = 1; // keyboards of its device
};

constexpr unsigned NoInterface = 0x100;

// The keyboards in the order of their numbers: by the device first seen, and the interface. uOthers counts the reporting
// endpoints of interfaces that are no HID interfaces.
std::vector<Found> FindKeyboards(const Devices& devices, unsigned& uOthers);
ScriptKeyboard DescribeKeyboard(const Found& found);

// True when a control request goes to this keyboard: to its device, its interface or its endpoint.
bool Concerns(const std::array<uint8_t, 8>& setup, const Found& found);

// What this keyboard is shown of a captured answer: for a composite device's configuration, its own part.
Bytes OwnAnswer(const std::array<uint8_t, 8>& setup, const Bytes& answer, const Found& found);
