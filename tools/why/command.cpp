// command.cpp - tvusb why: what the driver did with one report, and why.
//
// Exit status: 0 told, 1 the driver left something behind, 2 there is no such report, or an input is bad.
#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tools/replay/command.h"
#include "tools/replay/keys.h"
#include "tools/verbs.h"
#include "why.h"

#include <fmt/format.h>

#include <cmath>

namespace
{

struct WhyArguments : SessionArguments {
    unsigned uReport = 0;
    double at = -1; // seconds
    bool bJson = false;
};

std::string SideOf(const Bytes& report, unsigned uType)
{
    return HexOf(report, " ") + "  " + KeysOfReport(report, uType);
}

// Nothing to say of what happens with every report.
bool IsWorthTelling(const Traced& step)
{
    return !(step.Is("ModifiersTaken") && step.Number("modifiers") == 0) && !step.Is("FifoEmpty");
}

void PrintText(const WhySession& session, const WhyReport& report, const ReplayConfig& config)
{
    fmt::print("report {}, {}.{:06} s, keyboard {}\n", report.uReport, report.ullUs / 1000000,
               report.ullUs % 1000000, report.uKeyboard);
    fmt::print("  the keyboard sent  {}\n",
               report.sent ? SideOf(*report.sent, report.uType) : "nothing: the driver answered the read");
    fmt::print("  the system saw     {}\n", SideOf(report.seen, report.uType));
    for (const SessionLine& line : report.told)
        fmt::print("  {}  {}\n", line.kind == LineKind::Led ? "the keyboard got " : "the application  ",
                   WordsOf(EventKinds(config.definitions), line));
    fmt::print("\n  what the driver did, in its order\n");
    for (const Traced& step : report.steps)
        if (IsWorthTelling(step))
            fmt::print("    {}\n", WordsOf(step, report));
    if (report.steps.empty())
        fmt::print("    nothing: it passed the report on as it came\n");
    fmt::print("\n  the definitions\n");
    const std::vector<Verdict> verdicts = VerdictsOf(session, report, config);
    for (const Verdict& verdict : verdicts)
        fmt::print("    {:>5}  {:20}  {}\n", verdict.ulId, ShownDefinition(verdict.ulId, config),
                   verdict.words);
    if (verdicts.empty())
        fmt::print("    none\n");
}

void PrintJson(const WhySession& session, const WhyReport& report, const ReplayConfig& config)
{
    fmt::print("{{\"type\":\"why\",\"t_us\":{},\"kbd\":{},\"report\":{},\"in\":{},\"out\":\"{}\"}}\n",
               report.ullUs, report.uKeyboard, report.uReport,
               report.sent ? "\"" + HexOf(*report.sent) + "\"" : "null", HexOf(report.seen));
    for (const Traced& step : report.steps)
        fmt::print("{{\"type\":\"step\",\"report\":{},\"event\":{},\"trace\":{},\"text\":{}}}\n",
                   report.uReport, QuotedJson(step.Name()), QuotedJson(step.Line()),
                   QuotedJson(WordsOf(step, report)));
    for (const Verdict& verdict : VerdictsOf(session, report, config))
        fmt::print(
            "{{\"type\":\"verdict\",\"report\":{},\"index\":{},\"id\":{},\"reason\":{},\"text\":{}}}\n",
            report.uReport, verdict.index ? std::to_string(*verdict.index) : "null", verdict.ulId,
            QuotedJson(NameOf(verdict.reason)), QuotedJson(verdict.words));
}

void PrintTold(const WhyReport& report)
{
    auto json = MakeJsonPrinter(stdout);
    for (const SessionLine& line : report.told)
        if (line.kind == LineKind::Event)
            json->Event(line.ullUs, line.uKeyboard, line.record);
        else if (line.kind == LineKind::Macro)
            json->Macro(line.ullUs, line.macro);
        else
            json->Led(line.ullUs, line.uKeyboard, line.ucLeds);
}

int Why(const WhyArguments& arguments)
{
    if ((arguments.uReport == 0) == (arguments.at < 0))
        throw InputError("why: --report N or --at TIME says which report");
    SessionInput input(arguments);
    WhyChoice choice;
    choice.uReport = arguments.uReport;
    choice.ullUs = arguments.uReport ? 0 : static_cast<uint64_t>(std::llround(arguments.at * 1e6));
    const WhySession session = CollectWhy(input.script, input.setup, choice);
    if (session.reports.empty())
        throw InputError(arguments.uReport ? fmt::format("{}: there is no report {}: it has {}",
                                                         arguments.input, arguments.uReport, session.uReports)
                                           : fmt::format("{}: there is no report at {} s or before",
                                                         arguments.input, arguments.at));
    for (const WhyReport& report : session.reports) {
        if (arguments.bJson) {
            PrintJson(session, report, input.config);
            PrintTold(report);
            continue;
        }
        PrintText(session, report, input.config);
        if (&report != &session.reports.back())
            fmt::print("\n");
    }
    return session.uLeaks == 0 ? ExitGood : ExitFailed;
}

} // namespace

void AddWhyVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<WhyArguments>();
    CLI::App* pWhy = app.add_subcommand("why", "Tell why hotkeys fired or did not at one report");
    AddSessionOptions(*pWhy, *arguments);
    CLI::Option* pReport =
        pWhy->add_option("--report", arguments->uReport, "the Nth report that `replay` prints, from 1")
            ->check(CLI::Range(1u, ~0u));
    pWhy->add_option("--at", arguments->at, "the reports of that second, or the last one before")
        ->check(FaultOfSecond)
        ->excludes(pReport);
    pWhy->add_flag("--json", arguments->bJson, "print JSON objects, one a line");
    verbs.push_back({pWhy, [arguments] { return Why(*arguments); }});
}
