// audit.h - what became of the presses and hotkeys of whole sessions.
//
//   RunReplay, traced ──► Auditor: each press sent ──► seen, taken by somebody who may, or lost
//                                  each hotkey ──► how often, and whether by accident
//                           └──► Audit and findings of each input ──► a page, or JSON lines
//
// Memory does not grow with the session: findings go to whoever takes them as they are found.
// Who took a key is what the driver traced of it; a press that nobody took and the system never saw is lost.
#pragma once

#include "tools/replay/replay.h"
#include "tools/session/session.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// A hotkey fired by accident when keys that write text, and are none of its own, were pressed at the same keyboard less
// than this before and after it went down.
constexpr uint64_t TypingUs = 300000;

enum class FindingKind { Lost, Stuck, Accident, QueueFull, Unread, Refused, LeftBehind, Difference };
const char* NameOf(FindingKind kind); // as docs/json.md tells them

// Something that is wrong.
struct Finding {
    FindingKind kind;
    uint64_t ullUs;
    unsigned uKeyboard;
    std::string text;
    std::vector<std::string> details = {}; // a difference: what came of it on either side
};

struct HotkeyUse {
    unsigned uFired = 0;
    unsigned uKeysCame = 0; // reports with a key that could mean it
    unsigned uArmed = 0;    // of these: its modifiers matched
};

struct Audit {
    std::string input;
    uint64_t ullEndUs = 0;
    ReplayTotals totals;
    unsigned uSent = 0; // presses
    unsigned uSeen = 0; // of these, by the system
    unsigned uMade = 0; // presses that the system saw besides: macros, modifiers that come back
    std::map<std::string, unsigned> taken; // by whom
    uint64_t ullSlowestUs = 0;             // from the press to the system
    std::string slowest;                   // which one that was
    std::map<uint32_t, HotkeyUse> hotkeys; // by id, those of the driver's lists
};

// Plays the script. Fails: as RunReplay.
using FindingTaker = std::function<void(const Finding&)>;
Audit AuditOf(const std::string& input, const Script& script, const ReplaySetup& setup,
              const FindingTaker& take);

// against.cpp: each report of the session under two configurations, both played at once; a finding for each that went
// another way. The names are the configurations'. Fails: as RunReplay.
struct Side {
    std::string name;
    const ReplayConfig& config;
};
void FindDifferences(const Script& script, const ReplaySetup& setup, const Side& one, const Side& other,
                     const FindingTaker& take);

// found.cpp: the findings of one input. A page needs the first ones of each kind; all of them are kept as lines, in a
// file without a name.
class Found
{
public:
    Found(std::string input, bool bAll);
    void Add(const Finding& finding); // Fails (std::runtime_error): cannot be kept
    size_t CountOf(FindingKind kind) const { return m_counts[static_cast<size_t>(kind)]; }
    size_t Count() const;
    const std::vector<Finding>& FirstOf(FindingKind kind) const { return m_first[static_cast<size_t>(kind)]; }
    void PrintAll() const; // JSON lines

private:
    static constexpr size_t Kinds = static_cast<size_t>(FindingKind::Difference) + 1;
    std::string m_input;
    std::array<size_t, Kinds> m_counts{};
    std::array<std::vector<Finding>, Kinds> m_first;
    std::shared_ptr<FILE> m_all;
};
constexpr size_t MostShown = 12; // findings of a kind on the page

// page.cpp: what people read; and JSON lines. Both print all inputs' audits.
struct Audited {
    Audit audit;
    Found found;
};
struct AuditPage {
    std::vector<Audited> audits;
    std::string config, against;
    const ReplayConfig& settings;
};
void PrintPage(const AuditPage& page);
void PrintJson(const AuditPage& page);
