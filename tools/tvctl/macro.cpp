// macro.cpp - tvctl macro reload, record, status.
//
// While reports are recorded they do not reach the system, and that outlives the application: recording always has
// an end that needs no other keyboard, the Escape key or a time, and what was switched on is switched off again.
#include "interrupt.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/text.h"
#include "tools/keynames.h"
#include "tools/macro/readable.h"
#include "tvctl.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

constexpr uint8_t Escape = 0x29;
constexpr uint32_t TicksOfSecond = 10000; // of the driver's clock

// Reports become records as long as it lives.
class Capture
{
public:
    explicit Capture(const tvusb::MacroMode& macros) : m_macros(macros) { Must(m_macros.SetCapture(1)); }
    ~Capture()
    {
        (void)m_macros.SetCapture(0);
    } // with the last keyboard the driver is gone, and the capture with it
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

private:
    tvusb::MacroMode m_macros;
};

struct MacroArguments {
    std::string file, key;
    uint32_t ulSeconds = 60;
    bool bOff = false;
};

ExitStatus Status(Session& session)
{
    tvusb::MacroMode macros = session.Driver().Macros();
    bool bOn = Must(macros.IsOn()), bCapture = Must(macros.GetCapture()) == 1;
    uint32_t ulRecords = Must(macros.Records().Count());
    session.Tell(
        Line("macro").Truth("on", bOn).Truth("recording", bCapture).Number("records_waiting", ulRecords),
        fmt::format("macro mode {}  recording {}  records waiting {}", bOn ? "on" : "off",
                    bCapture ? "on" : "off", ulRecords));
    return Done;
}

ExitStatus Reload(Session& session)
{
    Must(session.Driver().Macros().Reload());
    session.Tell(Line("reloaded"), "the driver has read the macro settings and the macro file again");
    return Done;
}

std::vector<uint8_t> ReportOf(const MacroRecord& record)
{
    return {record.ucReport, record.ucReport + std::min<size_t>(record.ucLength, sizeof(record.ucReport))};
}

bool IsEscapeAlone(const std::vector<uint8_t>& report)
{
    return report.size() == 8 && report[0] == 0 && report[2] == Escape && report[3] == 0;
}

// Tells the reports until Escape, the time or an interrupt ends it, and gives those of 8 bytes: a macro holds no
// others.
std::vector<MacroAction> RecordReports(Session& session, const tvusb::MacroMode& macros, uint32_t ulSeconds)
{
    std::vector<MacroAction> actions;
    auto listener = macros.Records().Listen();
    if (listener.Error() == tvusb::Status::Unsuccessful)
        throw Failure(Refused,
                      "another application is told the macro records, and the driver tells only one");
    Must(listener.Error());
    Must(macros.Records().Clear());
    NoteInterrupts();
    Capture capture(macros);
    const uint32_t ulStart = Must(session.Driver().GetTime());
    while (!IsInterrupted() && Must(session.Driver().GetTime()) - ulStart < ulSeconds * TicksOfSecond) {
        auto records = listener->Wait(WAIT_TURN_MS);
        Must(records.Error());
        for (const MacroRecord& record : *records) {
            std::vector<uint8_t> report = ReportOf(record);
            if (record.usType != MACRO_RECORD_REPORT)
                continue;
            if (IsEscapeAlone(report))
                return actions;
            session.Tell(Line("report").Hex("report", report), HexOf(report, " "));
            MacroAction action;
            std::copy_n(report.begin(), std::min(report.size(), action.report.size()), action.report.begin());
            if (report.size() == action.report.size())
                actions.push_back(action);
        }
    }
    return actions;
}

// Fails (InputError): no key of a standard report has this name.
uint16_t UsageOf(const std::string& name)
{
    const KeyName* pKey = FindKeyByName(name);
    if (!pKey || pKey->bConsumer)
        throw InputError(fmt::format("no key of the standard report is '{}'", name));
    return pKey->usUsage;
}

ExitStatus Record(Session& session, const MacroArguments& arguments)
{
    if (arguments.bOff) {
        Must(session.Driver().Macros().SetCapture(0));
        return Status(session);
    }
    MacroEntry entry;
    entry.usKey = UsageOf(arguments.key);
    entry.actions = RecordReports(session, session.Driver().Macros(), arguments.ulSeconds);
    if (entry.actions.empty())
        throw Failure(
            Refused,
            "nothing was recorded: reports are told only while a mode hotkey is set (KorvexHotkey), and "
            "those of ordinary keyboards alone");
    if (!arguments.file.empty()) {
        const size_t cActions = entry.actions.size();
        MacroFile macros;
        macros.macros = {std::move(entry)};
        std::string text = ShowMacros(arguments.file, macros);
        WriteWholeFile(arguments.file, {text.begin(), text.end()});
        session.Tell(Line("recorded").Text("file", arguments.file).Number("reports", cActions),
                     fmt::format("{}: {} reports", arguments.file, cActions));
    }
    return Done;
}

} // namespace

void AddMacroVerbs(CLI::App& app, ControlVerbs& verbs)
{
    auto arguments = std::make_shared<MacroArguments>();
    arguments->key = "F1";
    CLI::App* pMacro = app.add_subcommand("macro", "Macro mode: status, reload, record");
    pMacro->require_subcommand(1);
    verbs.push_back(
        {pMacro->add_subcommand("status", "Tell whether the macro mode and recording are on"), Status});
    verbs.push_back({pMacro->add_subcommand("reload", "Have the driver read its macros again"), Reload});

    CLI::App* pRecord = pMacro->add_subcommand(
        "record",
        "Record what is typed, until Escape; the system does not see it. It logs every key: passwords too");
    pRecord->add_option("FILE", arguments->file, "where it goes, as a macro in readable form (TOML)");
    pRecord->add_option("--key", arguments->key, "the key that plays the macro (default F1)");
    pRecord->add_option("--seconds", arguments->ulSeconds, "the longest time (default 60)")
        ->check(CLI::Range(1, 3600));
    pRecord->add_flag("--off", arguments->bOff, "end a recording whose application was killed");
    verbs.push_back({pRecord, [arguments](Session& session) { return Record(session, *arguments); }});
}
