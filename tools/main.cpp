// main.cpp - tvusb: the command line. One subcommand a job; each lies in a folder of its own.
//
// Exit status: 0 all went well, 1 the driver or the run failed, 2 the command line or an input is bad.
#include "replay/failure.h"
#include "replay/input.h"
#include "replay/replay.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <unistd.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

constexpr int ExitFailed = 1, ExitBadInput = 2;

struct ReplayArguments {
    std::string input;
    std::string config;
    std::string keyboard = "normal";
    bool bJson = false;
};

void AddReplay(CLI::App& app, ReplayArguments& arguments)
{
    CLI::App* pReplay = app.add_subcommand("replay", "Replay a keyboard's reports through the driver");
    pReplay
        ->add_option("INPUT", arguments.input, "USB capture (pcap, pcapng) or HID recording (hid-recorder)")
        ->required();
    pReplay->add_option("--config", arguments.config, "settings and key definitions (TOML)");
    pReplay
        ->add_option("--keyboard", arguments.keyboard,
                     "what the keyboards of a recording are (default: normal)")
        ->check(CLI::IsMember({"normal", "power", "jaalaa", "chic", "other"}));
    pReplay->add_flag("--json", arguments.bJson, "print JSON objects, one a line, instead of a table");
}

int Replay(const ReplayArguments& arguments)
{
    Script script = ReadInput(arguments.input);
    ReplayConfig config;
    if (!arguments.config.empty())
        config = ReadConfig(arguments.config);
    bool bColour = isatty(STDOUT_FILENO) && !getenv("NO_COLOR");
    auto printer = arguments.bJson ? MakeJsonPrinter(stdout) : MakeTablePrinter(stdout, bColour);
    ReplaySetup setup{DriverEntry, EmuMachine::FindKind(arguments.keyboard), config};
    return RunReplay(script, setup, *printer) == 0 ? 0 : ExitFailed;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("tvusb - the keyboard filter driver on your own machine");
    app.require_subcommand(1);
    ReplayArguments replay;
    AddReplay(app, replay);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : ExitBadInput;
    }
    try {
        return Replay(replay);
    } catch (const InputError& error) {
        fmt::print(stderr, "tvusb: {}\n", error.what());
        return ExitBadInput;
    } catch (const std::exception& error) {
        fflush(stdout);
        fmt::print(stderr, "tvusb: {}\n", error.what());
        return ExitFailed;
    }
}
