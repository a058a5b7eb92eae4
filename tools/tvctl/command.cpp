// command.cpp - tvctl: the command line, and how a call that went wrong is told.
//
// Answers go to standard output, what went wrong to standard error. With --json both are one JSON object a line, and
// the last line of a failed call is one of type "error".
#include "tools/common/commandline.h"
#include "tools/common/failure.h"
#include "tvctl.h"

#include <fmt/format.h>

namespace
{

int TellFailure(const Options& options, const Failure& failure)
{
    fflush(stdout);
    fmt::print(stderr, "tvctl: {}\n", failure.what());
    for (const std::string& text : failure.Texts())
        fmt::print(stderr, "  {}\n", text);
    if (options.bJson) {
        Line line("error");
        line.Number("exit", failure.Exit()).Text("what", failure.what());
        if (!failure.Said().Ok())
            line.Text("status", fmt::format("0x{:08X}", failure.Said().Value()));
        if (!failure.Lines().empty())
            line.Objects("candidates", failure.Lines());
        fmt::print("{}\n", line.Json());
    }
    return failure.Exit();
}

int Run(const Options& options, const ControlVerbs& verbs, const MakeTransport& way)
{
    Session session(options, way);
    try {
        for (const ControlVerb& verb : verbs)
            if (verb.pCommand->parsed())
                return verb.Run(session);
        return BadInput;
    } catch (const Failure& failure) {
        return TellFailure(options, failure);
    } catch (const InputError& error) {
        return TellFailure(options, {BadInput, error.what()});
    } catch (const std::exception& error) {
        return TellFailure(options, {Refused, error.what()});
    }
}

} // namespace

int RunTvctl(int argc, const char* const* argv, const MakeTransport& way)
{
    CLI::App app("tvctl - the keyboards of the driver Tv64USB, for people and scripts", "tvctl");
    Options options;
    app.set_version_flag("--version", TV64USB_VERSION);
    app.add_flag("--json", options.bJson, "answer with one JSON object a line");
    app.add_option("-k,--keyboard", options.keyboard,
                   "which keyboard: its index, VID:PID, VID:PID:INTERFACE, serial number or interface name");
    app.require_subcommand(1);
    app.fallthrough();
    ControlVerbs verbs;
    for (auto add :
         {AddListVerbs, AddWatchVerb, AddHotkeyVerbs, AddInsertVerbs, AddSettingVerbs, AddEepromVerbs,
          AddDescriptorVerbs, static_cast<void (*)(CLI::App&, ControlVerbs&)>(AddMacroVerbs), AddReloadVerb,
          AddDoctorVerb})
        add(app, verbs);
    if (auto status = ParseCommandLine(app, argc, argv, BadInput))
        return *status;
    return Run(options, verbs, way);
}
