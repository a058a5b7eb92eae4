// scrub.h - takes what was typed out of a session, so that a fault report holds no password.
//
//   letters, digits, signs   a press becomes another key of its class: the first one that nothing names and nobody
//                            holds, so a word becomes "aaaa", and what is held together stays apart
//   strings                  of descriptors and recordings: letters and digits become x
//   anything not understood  (other reports, memory that was read) becomes zeros of the same length
//
// Everything else stays: times, modifiers, Enter and the other keys, the keys that the configuration names. That
// every event stays is not believed but proved: both sessions are replayed and held side by side (proof.cpp).
#pragma once

#include "tools/replay/config.h"
#include "tools/session/session.h"

#include <array>
#include <map>
#include <tuple>

// The usages of the keys that a configuration names: in definitions, as prefixes, as what starts the macro mode and macros.
using KeySet = std::array<bool, 256>;
KeySet KeysNamedIn(const ReplayConfig& config); // named.cpp

// classes.cpp: the keys that stand for one another. The number of a key's class; -1: it has none, or it is named.
int ClassOf(uint8_t ucUsage, const KeySet& named);
int ClassOfScan(uint8_t ucByte, const KeySet& named);              // of a make or break code of one byte
std::vector<uint8_t> KeysOfClass(int iClass, const KeySet& named); // that are not named

struct ScrubCounts {
    uint64_t ullPresses = 0, ullStrings = 0, ullBlanked = 0; // of keys; texts; reports and answers
};

// replacer.cpp: scrubs the steps of one script in their order.
class Replacer
{
public:
    Replacer(const KeySet& named, const std::vector<SessionKeyboard>& keyboards)
        : m_named(named), m_keyboards(keyboards)
    {
    }
    void Scrub(ScriptStep& step);
    std::string ScrubText(const std::string& text);
    const ScrubCounts& Counts() const { return m_counts; }

private:
    using Held = std::map<uint8_t, uint8_t>; // a key and what stands for it

    void ScrubReport(ScriptStep& step);
    void ScrubControl(ScriptStep& step);
    uint8_t Stand(int iClass, const Held& before, const Held& now);
    void Blank(Bytes& data, size_t cFrom);

    const KeySet& m_named;
    const std::vector<SessionKeyboard>& m_keyboards;
    std::map<std::tuple<unsigned, size_t, uint8_t>, Held> m_held; // by keyboard, length and ID of the report
    ScrubCounts m_counts;
};

// True for a report whose keys the driver does not look at, of which therefore only the first byte stays.
bool IsOpaque(const Bytes& report, unsigned uType, bool bMouse);

// proof.cpp: replays the script and writes a line for all that a scrubbed session has in common with it.
void WriteProof(FILE* pOut, const Script& script, const ReplaySetup& setup, const KeySet& named,
                Session& session);
