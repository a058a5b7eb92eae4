// session.cpp - collects the lines of a replay, and what the verbs that use them have in common.
#include "session.h"
#include "tools/replay/command.h"
#include "tools/replay/input.h"

#include <fmt/format.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

class Collector final : public LinePrinter
{
public:
    Collector(Session& session, LineVisitor visit) : m_session(session), m_visit(std::move(visit)) {}

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        if (m_session.keyboards.size() <= uKeyboard)
            m_session.keyboards.resize(uKeyboard + 1);
        m_session.keyboards[uKeyboard] = {keyboard, uType};
        LinePrinter::Keyboard(ullUs, uKeyboard, ulIndex, uType, keyboard);
    }
    void End(uint64_t ullUs, const ReplayTotals& totals) override
    {
        m_session.ullEndUs = ullUs;
        m_session.totals = totals;
    }

private:
    void Line(SessionLine&& line) override { m_visit(std::move(line)); }

    Session& m_session;
    const LineVisitor m_visit;
};

} // namespace

SessionLine LinePrinter::LineOf(LineKind kind, uint64_t ullUs, unsigned uKeyboard)
{
    m_uLatest = uKeyboard;
    SessionLine line;
    line.kind = kind;
    line.ullUs = ullUs;
    line.uKeyboard = uKeyboard;
    return line;
}

void LinePrinter::Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t, unsigned, const ScriptKeyboard&)
{
    Line(LineOf(LineKind::Keyboard, ullUs, uKeyboard));
}

void LinePrinter::Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                             const std::string& why)
{
    SessionLine line = LineOf(LineKind::Definition, ullUs, uKeyboard);
    line.ulId = ulId;
    line.ulStatus = ulStatus;
    line.why = why;
    Line(std::move(line));
}

void LinePrinter::Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                         const Bytes& seen)
{
    SessionLine line = LineOf(LineKind::Report, ullUs, uKeyboard);
    line.sent = sent;
    line.seen = seen;
    Line(std::move(line));
}

void LinePrinter::Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record)
{
    SessionLine line = LineOf(LineKind::Event, ullUs, uKeyboard);
    line.record = record;
    Line(std::move(line));
}

void LinePrinter::Macro(uint64_t ullUs, const MacroRecord& record)
{
    SessionLine line = LineOf(LineKind::Macro, ullUs, m_uLatest);
    line.macro = record;
    Line(std::move(line));
}

void LinePrinter::Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport)
{
    SessionLine line = LineOf(LineKind::Led, ullUs, uKeyboard);
    line.ucLeds = ucReport;
    Line(std::move(line));
}

void LinePrinter::Descriptors(uint64_t ullUs, unsigned uKeyboard, const Bytes& device,
                              const Bytes& configuration)
{
    SessionLine line = LineOf(LineKind::Descriptors, ullUs, uKeyboard);
    line.device = device;
    line.configuration = configuration;
    Line(std::move(line));
}

void WalkSession(Session& session, const Script& script, const ReplaySetup& setup, const LineVisitor& visit)
{
    session.kinds = EventKinds(setup.config.definitions);
    Collector collector(session, visit);
    RunReplay(script, setup, collector);
}

std::unique_ptr<ReplayPrinter> MakeCollector(Session& session, LineVisitor visit)
{
    return std::make_unique<Collector>(session, std::move(visit));
}

Session TakeSession(const Script& script, const ReplaySetup& setup)
{
    Session session;
    WalkSession(session, script, setup,
                [&](SessionLine&& line) { session.lines.push_back(std::move(line)); });
    return session;
}

std::string WordsOf(const EventKinds& kinds, const SessionLine& line)
{
    switch (line.kind) {
    case LineKind::Keyboard:
        return "the keyboard is there";
    case LineKind::Definition:
        return DefinitionWords(line.ulId, line.ulStatus, line.why);
    case LineKind::Event:
        return kinds.IsScan(line.record)
                   ? ScanWords(fmt::format(" {:02x}", line.record.ulValue), line.record.ulId)
                   : HotkeyWords(line.record);
    case LineKind::Macro:
        return MacroWords(line.macro);
    case LineKind::Led:
        return LedWords(line.ucLeds);
    case LineKind::Report:
    case LineKind::Descriptors:
        break;
    }
    return "";
}

void AddSessionOptions(CLI::App& command, SessionArguments& arguments)
{
    command
        .add_option("INPUT", arguments.input, "USB capture (pcap, pcapng) or HID recording (hid-recorder)")
        ->required();
    command.add_option("--config", arguments.config, "settings and key definitions (TOML)");
    AddKeyboardOption(command, arguments.keyboards);
}

SessionInput::SessionInput(const SessionArguments& arguments, const ScriptChoice& choice)
    : script(ReadInput(arguments.input, choice)),
      config(arguments.config.empty() ? ReplayConfig() : ReadConfig(arguments.config)),
      setup{DriverEntry, KindsNamed(arguments.keyboards), config}
{
}
