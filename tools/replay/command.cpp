// command.cpp - tvusb replay: the command line of the replay.
#include "config.h"
#include "input.h"
#include "output.h"
#include "replay.h"
#include "tools/verbs.h"

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

struct Arguments {
    std::string input;
    std::string config;
    std::vector<std::string> keyboards = {"normal"};
    bool bJson = false;
};

int Replay(const Arguments& arguments)
{
    Script script = ReadInput(arguments.input);
    ReplayConfig config;
    if (!arguments.config.empty())
        config = ReadConfig(arguments.config);
    auto printer = arguments.bJson ? MakeJsonPrinter(stdout) : MakeTablePrinter(stdout, TerminalOf(stdout));
    ReplaySetup setup{DriverEntry, {}, config};
    for (const std::string& name : arguments.keyboards)
        setup.kinds.push_back(EmuMachine::FindKind(name));
    return RunReplay(script, setup, *printer) == 0 ? ExitGood : ExitFailed;
}

} // namespace

void AddReplayVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pReplay = app.add_subcommand("replay", "Replay a keyboard's reports through the driver");
    pReplay
        ->add_option("INPUT", arguments->input, "USB capture (pcap, pcapng) or HID recording (hid-recorder)")
        ->required();
    pReplay->add_option("--config", arguments->config, "settings and key definitions (TOML)");
    pReplay
        ->add_option("--keyboard", arguments->keyboards,
                     "what the keyboards of a recording are, in their order, the last one for the rest: "
                     "normal (default), or another")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember(EmuMachine::KindNames()));
    pReplay->add_flag("--json", arguments->bJson, "print JSON objects, one a line, instead of a table");
    verbs.push_back({pReplay, [arguments] { return Replay(*arguments); }});
}
