// session.cpp - collects the lines of a replay, and what the verbs that use them have in common.
#include "session.h"
#include "tools/replay/command.h"
#include "tools/replay/input.h"

#include <fmt/format.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

class Collector final : public ReplayPrinter
{
public:
    explicit Collector(Session& session) : m_session(session) {}

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        if (m_session.keyboards.size() <= uKeyboard)
            m_session.keyboards.resize(uKeyboard + 1);
        m_session.keyboards[uKeyboard] = {keyboard, uType};
        Add(LineKind::Keyboard, ullUs, uKeyboard);
    }
    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string& why) override
    {
        SessionLine& line = Add(LineKind::Definition, ullUs, uKeyboard);
        line.ulId = ulId;
        line.ulStatus = ulStatus;
        line.why = why;
    }
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        SessionLine& line = Add(LineKind::Report, ullUs, uKeyboard);
        line.sent = sent;
        line.seen = seen;
    }
    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        Add(LineKind::Event, ullUs, uKeyboard).record = record;
    }
    void Macro(uint64_t ullUs, const MacroRecord& record) override
    {
        Add(LineKind::Macro, ullUs, m_uLatest).macro = record;
    }
    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override
    {
        Add(LineKind::Led, ullUs, uKeyboard).ucLeds = ucReport;
    }
    void End(uint64_t ullUs, const ReplayTotals& totals) override
    {
        m_session.ullEndUs = ullUs;
        m_session.totals = totals;
    }

private:
    SessionLine& Add(LineKind kind, uint64_t ullUs, unsigned uKeyboard)
    {
        m_uLatest = uKeyboard;
        SessionLine& line = m_session.lines.emplace_back();
        line.kind = kind;
        line.ullUs = ullUs;
        line.uKeyboard = uKeyboard;
        return line;
    }

    Session& m_session;
    unsigned m_uLatest = 0;
};

} // namespace

Session TakeSession(const Script& script, const ReplaySetup& setup)
{
    Session session;
    session.kinds = EventKinds(setup.config.definitions);
    Collector collector(session);
    RunReplay(script, setup, collector);
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

SessionInput::SessionInput(const SessionArguments& arguments)
    : script(ReadInput(arguments.input)),
      config(arguments.config.empty() ? ReplayConfig() : ReadConfig(arguments.config)),
      setup{DriverEntry, KindsNamed(arguments.keyboards), config}
{
}
