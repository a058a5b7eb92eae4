// keytracker.h - which keys come and go on one side of the driver, report by report.
#pragma once

#include "tools/replay/packet.h"

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

// Reports of different kinds (length, and the ID where the kind of keyboard has one) do not end each other's keys.
class KeyTracker
{
public:
    struct Change {
        std::vector<std::string> pressed, released;
    };
    Change Follow(unsigned uKeyboard, unsigned uType, const Bytes& report); // uType as KbdTypeOf
    // Keyboard and key.
    std::set<std::pair<unsigned, std::string>> Held() const;

private:
    using Stream = std::tuple<unsigned, size_t, uint8_t>; // keyboard, length, ID
    std::map<Stream, std::set<std::string>> m_held;
};
