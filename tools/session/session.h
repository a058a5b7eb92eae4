// session.h - a replay held in memory: what came to pass, line by line, for the verbs that look at a whole session.
//
//   TakeSession(script, setup) -> Session -> PcapngOf, HtmlOf, and what the other verbs make of it
//
// The lines are what a ReplayPrinter is told, in the same order; nothing is reckoned a second time.
#pragma once

#include "tools/replay/replay.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

enum class LineKind { Keyboard, Definition, Report, Event, Macro, Led };

struct SessionLine {
    LineKind kind;
    uint64_t ullUs = 0;
    unsigned uKeyboard = 0;    // of a macro record: the one that was told of last
    std::optional<Bytes> sent; // Report: by the keyboard; nothing when the driver answered the read itself
    Bytes seen;                // Report: by the system
    uint32_t ulId = 0;         // Definition
    uint32_t ulStatus = 0;     // Definition
    std::string why;           // Definition: it is refused
    NotifyRecord record{};     // Event
    MacroRecord macro{};       // Macro
    uint8_t ucLeds = 0;        // Led: the output report
};

struct SessionKeyboard {
    ScriptKeyboard script;
    unsigned uType = 0; // as KbdTypeOf
};

struct Session {
    std::vector<SessionKeyboard> keyboards;
    std::vector<SessionLine> lines;
    EventKinds kinds;
    uint64_t ullEndUs = 0;
    ReplayTotals totals;
};

// Fails (std::runtime_error): as RunReplay.
Session TakeSession(const Script& script, const ReplaySetup& setup);

// "hotkey 7 down", "LEDs: Num", "definition 3 refused: status 0xc000000d"; "" for a report.
std::string WordsOf(const EventKinds& kinds, const SessionLine& line);

// pcapng.cpp: a capture of two interfaces, "below" the driver and "above" it, with the events as comments.
Bytes PcapngOf(const Session& session);

// A key on one side of the driver, from its press to its release.
struct KeyBar {
    unsigned uKeyboard;
    bool bAbove; // as the system saw it; else as the keyboard sent it
    bool bOwn;   // above: the driver answered the read that pressed it
    bool bHeld;  // not released by the end of the session
    std::string key;
    uint64_t ullFromUs, ullToUs;
};

// html.cpp: in order of time; and one page without outside parts that shows them.
std::vector<KeyBar> BarsOf(const Session& session);
std::string HtmlOf(const Session& session);

// What every verb of this kind asks for: the input, the configuration, the kinds of a recording's keyboards.
struct SessionArguments {
    std::string input;
    std::string config;
    std::vector<std::string> keyboards;
};
void AddSessionOptions(CLI::App& command, SessionArguments& arguments);

// The same, read. Fails (InputError).
struct SessionInput {
    explicit SessionInput(const SessionArguments& arguments);
    SessionInput(const SessionInput&) = delete; // its setup refers to its configuration
    SessionInput& operator=(const SessionInput&) = delete;

    Script script;
    ReplayConfig config;
    ReplaySetup setup;
};
