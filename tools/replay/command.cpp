// command.cpp - tvusb replay: the command line of the replay.
#include "command.h"
#include "config.h"
#include "input.h"
#include "inputfile.h"
#include "output.h"
#include "replay.h"
#include "tools/common/failure.h"
#include "tools/session/session.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <unistd.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

struct Arguments {
    std::string input;
    std::string config;
    std::vector<std::string> keyboards;
    PartArguments part;
    bool bPartial = false, bFollow = false;
    bool bJson = false, bChanged = false;
    std::string pcapng;
};

// Tells on a terminal that a long file is being played, while what is printed goes elsewhere.
class ProgressLine
{
public:
    ~ProgressLine()
    {
        if (m_bShown)
            fputs("\r\x1b[K", stderr);
    }
    void Show(uint64_t ullUs, const ReplayTotals& totals)
    {
        auto now = std::chrono::steady_clock::now();
        if (now - m_latest < std::chrono::milliseconds(500))
            return;
        m_latest = now;
        m_bShown = true;
        fmt::print(stderr, "\r{} reports, {} events, {} s of the input\x1b[K", totals.uReports,
                   totals.uEvents, ullUs / 1000000);
    }

private:
    std::chrono::steady_clock::time_point m_latest = std::chrono::steady_clock::now();
    bool m_bShown = false;
};

void FollowUntilInterrupted()
{
    signal(SIGINT, [](int) { StopFollowing(); });
    signal(SIGTERM, [](int) { StopFollowing(); });
}

unsigned Print(const Arguments& arguments, const Script& script, const ReplaySetup& setup)
{
    auto printer = arguments.bJson
                       ? MakeJsonPrinter(stdout)
                       : MakeTablePrinter(stdout, TerminalOf(stdout), EventKinds(setup.config.definitions));
    if (arguments.bChanged)
        printer = MakeChangedPrinter(std::move(printer));
    auto show = [&] {
        printer->Pause();
        fflush(stdout);
    };
    SetBeforeWait(show);
    try {
        unsigned uLeft = RunReplay(script, setup, *printer);
        SetBeforeWait({});
        return uLeft;
    } catch (...) { // what was told before the fault is seen
        SetBeforeWait({});
        show();
        throw;
    }
}

int Replay(const Arguments& arguments)
{
    if (arguments.bFollow)
        FollowUntilInterrupted();
    ScriptChoice choice = arguments.part.Choice();
    choice.bPartial = arguments.bPartial;
    choice.bFollow = arguments.bFollow;
    choice.bLive = arguments.pcapng.empty();
    Script script = ReadInput(arguments.input, choice);
    ReplayConfig config;
    if (!arguments.config.empty())
        config = ReadConfig(arguments.config);
    ReplaySetup setup{DriverEntry, KindsNamed(arguments.keyboards), config};
    const bool bPrints = arguments.pcapng.empty();
    ProgressLine progress;
    if (!(bPrints && isatty(STDOUT_FILENO)) && isatty(STDERR_FILENO))
        setup.Progress = [&](uint64_t ullUs, const ReplayTotals& totals) { progress.Show(ullUs, totals); };
    unsigned uLeft = bPrints ? Print(arguments, script, setup) : WritePcapng(arguments.pcapng, script, setup);
    if (!script.cut.empty())
        throw InputError(script.cut);
    return uLeft == 0 ? ExitGood : ExitFailed;
}

} // namespace

std::string FaultOfSecond(const std::string& text)
{
    double second = 0;
    bool bGood = CLI::detail::lexical_cast(text, second) && second >= 0 && second <= LatestSecond;
    return bGood ? "" : fmt::format("{} is no second from 0 to {:.0f}", text, LatestSecond);
}

ScriptChoice PartArguments::Choice() const
{
    ScriptChoice choice;
    choice.devices = devices;
    choice.ullFromUs = static_cast<uint64_t>(from * 1e6);
    choice.ullToUs = static_cast<uint64_t>(to * 1e6);
    if (from > to)
        throw InputError(fmt::format("--from {:g} is behind --to {:g}", from, to));
    return choice;
}

void AddPartOptions(CLI::App& verb, PartArguments& part)
{
    verb.add_option("--device", part.devices, "only these: VID:PID, or a part of their name")
        ->allow_extra_args(false);
    verb.add_option("--from", part.from, "only reports from that second of the input on")
        ->check(FaultOfSecond);
    verb.add_option("--to", part.to, "only what comes up to that second")->check(FaultOfSecond);
}

std::vector<const EmuDescriptors*> KindsNamed(const std::vector<std::string>& names)
{
    std::vector<const EmuDescriptors*> kinds;
    for (const std::string& name : names)
        kinds.push_back(name == "guess" ? nullptr : EmuMachine::FindKind(name));
    return kinds;
}

void AddKeyboardOption(CLI::App& verb, std::vector<std::string>& keyboards)
{
    std::vector<std::string> names = EmuMachine::KindNames();
    names.push_back("guess");
    verb.add_option(
            "--keyboard", keyboards,
            "what the keyboards are of which the input does not tell it, in their order, the last one for "
            "the rest: normal (a recording's default), or another; guess: by their first report")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember(names));
}

void AddReplayVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pReplay = app.add_subcommand("replay", "Replay a keyboard's reports through the driver");
    pReplay
        ->add_option(
            "INPUT", arguments->input,
            "USB capture (pcap, pcapng) or HID recording (hid-recorder), maybe compressed (.gz); - reads it "
            "from standard input")
        ->required();
    pReplay->add_option("--config", arguments->config, "settings and key definitions (TOML)");
    AddKeyboardOption(*pReplay, arguments->keyboards);
    CLI::Option* pJson =
        pReplay->add_flag("--json", arguments->bJson, "print JSON objects, one a line, instead of a table");
    pReplay
        ->add_option("--pcapng", arguments->pcapng,
                     "print nothing; write both sides of the driver as a capture for Wireshark")
        ->excludes(pJson);
    AddPartOptions(*pReplay, arguments->part);
    pReplay->add_flag("--changed", arguments->bChanged, "only what the driver rewrote or told");
    pReplay->add_flag("--partial", arguments->bPartial, "of a broken file, play what is whole");
    pReplay->add_flag("--follow", arguments->bFollow,
                      "wait for more of a file that still grows (Ctrl+C ends)");
    verbs.push_back({pReplay, [arguments] { return Replay(*arguments); }});
}
