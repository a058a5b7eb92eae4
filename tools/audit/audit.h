// audit.h - what became of the presses and hotkeys of whole sessions.
//
//   RunReplay, traced ──► Auditor: each press sent ──► seen, taken by somebody who may, or lost
//                                  each hotkey ──► how often, and whether by accident
//                           └──► Audit, one for each input ──► a page, or JSON lines
//
// Who took a key is what the driver traced of it; a press that nobody took and the system never saw is lost.
#pragma once

#include "tools/replay/replay.h"
#include "tools/session/session.h"

#include <cstdint>
#include <map>
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
    std::vector<Finding> findings;
};

// Plays the script. Fails: as RunReplay.
Audit AuditOf(const std::string& input, const Script& script, const ReplaySetup& setup);

// against.cpp: each report of the session under two configurations; a finding for each that went another way. The
// names are the configurations'.
struct Side {
    std::string name;
    const ReplayConfig& config;
};
std::vector<Finding> DifferencesOf(const Script& script, const ReplaySetup& setup, const Side& one,
                                   const Side& other);

// page.cpp: what people read; and JSON lines. Both print all inputs' audits.
struct AuditPage {
    std::vector<Audit> audits;
    std::string config, against;
    const ReplayConfig& settings;
};
void PrintPage(const AuditPage& page);
void PrintJson(const AuditPage& page);
