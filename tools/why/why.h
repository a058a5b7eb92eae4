// why.h - one report of a session, and why each definition fired there or did not.
//
//   RunReplay, traced ──► WhyReport: the report, what the driver traced for it, what the application was told
//                              └──► VerdictsOf: for each definition the first reason
//
// What the driver did and why is taken from its trace points and its own list of hotkeys alone; here it is put into
// words.
#pragma once

#include "tools/replay/replay.h"
#include "tools/session/session.h"
#include "tools/session/trace.h"

#include <optional>
#include <string>
#include <vector>

// Which report: the Nth line of the replay's reports, or those of a moment (none then: the last before it).
struct WhyChoice {
    unsigned uReport = 0; // from 1; 0: by the time
    uint64_t ullUs = 0;
};

// A hotkey of the driver's list, in its order.
struct WhyHotkey {
    uint32_t ulIndex, ulId, ulModifiers;
    uint32_t ulKeyCount;
    Bytes keys; // the first eight
};

struct WhyReport {
    unsigned uReport = 0;
    uint64_t ullUs = 0;
    unsigned uKeyboard = 0;
    unsigned uType = 0; // as KbdTypeOf
    std::optional<Bytes> sent;
    Bytes seen;
    std::vector<Traced> steps;      // from the way down of the read to its end
    std::vector<WhyHotkey> hotkeys; // of this keyboard, then
    std::vector<SessionLine> told;  // to the application because of it, and LED reports
};

struct WhySession {
    std::vector<WhyReport> reports;
    std::vector<SessionLine> refused; // definitions
    unsigned uReports = 0;            // how many were played
    unsigned uLeaks = 0;
};

// Plays the script up to what is asked for. Fails: as RunReplay.
WhySession CollectWhy(const Script& script, ReplaySetup setup, const WhyChoice& choice);

// verdict.cpp: the hotkeys of the driver's list, then the definitions that are not in it.
enum class Reason {
    Fired,
    Stays,
    Ended,
    KeyMissing,
    MaskNotMatched,
    NotInRow,
    Released,
    NoKey,
    OtherMode,
    NoReport,
    TookReport,
    NoHotkey,
    Refused
};
const char* NameOf(Reason reason); // as docs/json.md tells them

struct Verdict {
    std::optional<uint32_t> index; // in the driver's list
    uint32_t ulId;
    Reason reason;
    std::string words;
};
std::vector<Verdict> VerdictsOf(const WhySession& session, const WhyReport& report,
                                const ReplayConfig& config);

// words.cpp: "ctrl+F1", by the definition of that id; and a step in words.
std::string ShownDefinition(uint32_t ulId, const ReplayConfig& config);
std::string WordsOf(const Traced& step, const WhyReport& report);
std::string ShownKey(uint8_t ucKey, unsigned uType);
std::string JoinedWith(const std::vector<std::string>& words, const char* pBetween);
