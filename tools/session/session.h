// session.h - a replay line by line: what came to pass, for the verbs that look at a whole session.
//
//   TakeSession(script, setup) -> Session with all its lines
//   WalkSession(...)           hands the lines over one by one, for what is written as they come: WritePcapng, WritePage
//
// The lines are what a ReplayPrinter is told, in the same order; nothing is reckoned a second time.
#pragma once

#include "tools/replay/replay.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

enum class LineKind { Keyboard, Definition, Report, Event, Macro, Led, Descriptors };

struct SessionLine {
    LineKind kind;
    uint64_t ullUs = 0;
    unsigned uKeyboard = 0;      // of a macro record: the one that was told of last
    std::optional<Bytes> sent;   // Report: by the keyboard; nothing when the driver answered the read itself
    Bytes seen;                  // Report: by the system
    Bytes device, configuration; // Descriptors: what the keyboard answers when it is asked what it is
    uint32_t ulId = 0;           // Definition
    uint32_t ulStatus = 0;       // Definition
    std::string why;             // Definition: it is refused
    NotifyRecord record{};       // Event
    MacroRecord macro{};         // Macro
    uint8_t ucLeds = 0;          // Led: the output report
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

// Makes a line of whatever a replay tells, but of its end.
class LinePrinter : public ReplayPrinter
{
public:
    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override;
    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string& why) override;
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override;
    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override;
    void Macro(uint64_t ullUs, const MacroRecord& record) override;
    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override;
    void Descriptors(uint64_t ullUs, unsigned uKeyboard, const Bytes& device,
                     const Bytes& configuration) override;

protected:
    virtual void Line(SessionLine&& line) = 0;

private:
    SessionLine LineOf(LineKind kind, uint64_t ullUs, unsigned uKeyboard);
    unsigned m_uLatest = 0;
};

// Fails (std::runtime_error): as RunReplay.
Session TakeSession(const Script& script, const ReplaySetup& setup);

// The same without keeping lines; all else of the session is known when a line is handed over, but its end.
using LineVisitor = std::function<void(SessionLine&&)>;
void WalkSession(Session& session, const Script& script, const ReplaySetup& setup, const LineVisitor& visit);

// A printer that makes lines of what it is told, and fills the session's keyboards and totals. The session must outlive it.
std::unique_ptr<ReplayPrinter> MakeCollector(Session& session, LineVisitor visit);

// "hotkey 7 down", "LEDs: Num", "definition 3 refused: status 0xc000000d"; "" for a report.
std::string WordsOf(const EventKinds& kinds, const SessionLine& line);

// pcapng.cpp: a capture of two interfaces, "below" the driver and "above" it, with the events as comments. html.cpp: one
// page without outside parts that shows keys over time. Memory does not grow with the session.
// Both return what was left behind. Fail (InputError): cannot be written; as RunReplay.
unsigned WritePcapng(const std::string& file, const Script& script, const ReplaySetup& setup);
unsigned WritePage(const std::string& file, const std::string& title, const Script& script,
                   const ReplaySetup& setup);

// What every verb of this kind asks for: the input, the configuration, the kinds of a recording's keyboards.
struct SessionArguments {
    std::string input;
    std::string config;
    std::vector<std::string> keyboards;
};
void AddSessionOptions(CLI::App& command, SessionArguments& arguments);

// The same, read. Fails (InputError).
struct SessionInput {
    explicit SessionInput(const SessionArguments& arguments, const ScriptChoice& choice = {});
    SessionInput(const SessionInput&) = delete; // its setup refers to its configuration
    SessionInput& operator=(const SessionInput&) = delete;

    Script script;
    ReplayConfig config;
    ReplaySetup setup;
};
