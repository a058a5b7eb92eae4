// scene.h - what one run of the comparison does: chosen by its seed alone.
#pragma once

#include <cstdint>
#include <vector>

#include "control/requests.h"
#include "tests/reference/model.h"

// The same seed gives the same numbers.
class Dice
{
public:
    explicit Dice(uint64_t seed) : m_State(seed * 0x9E3779B97F4A7C15 + 1) {}
    uint32_t Below(uint32_t limit);                           // 0 to limit - 1
    bool In(uint32_t chances) { return Below(chances) == 0; } // once in so many
    template <typename T, size_t N> T OneOf(const T (&choices)[N]) { return choices[Below(N)]; }

private:
    uint64_t m_State;
};

// A key as definitions and reports name it.
struct Key {
    std::vector<uint8_t> Scans;
    uint16_t Usage;
    uint32_t Jaalaa, Chic; // 0: none
};

// The few keys that all definitions and reports of a run are made of, so that they meet.
class Keys
{
public:
    explicit Keys(Dice& dice);
    KeyDefinition Definition();
    // The next report of a keyboard whose keys come and go.
    std::vector<uint8_t> Report(reference::Kind kind);

private:
    std::vector<uint8_t> StandardReport(size_t length);
    std::vector<uint8_t> ExtendedReport(reference::Kind kind);
    void PressAndRelease();

    Dice& m_Dice;
    std::vector<Key> m_Keys;
    std::vector<size_t> m_Held; // keys by their number, oldest first
    uint8_t m_Modifiers = 0;
};
