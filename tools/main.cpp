// main.cpp - tvusb: the command line. One subcommand a job; each lies in a folder of its own.
//
// Exit status: 0 all went well, 1 the run failed or a check found something, 2 the command line or an input is
// bad.
#include "common/commandline.h"
#include "common/failure.h"
#include "verbs.h"

#include <fmt/format.h>

int main(int argc, char** argv)
{
    CLI::App app("tvusb - the keyboard filter driver on your own machine", "tvusb");
    app.set_version_flag("--version", TV64USB_VERSION);
    app.require_subcommand(1);
    Verbs verbs;
    AddReplayVerb(app, verbs);
    AddShowVerb(app, verbs);
    AddWhyVerb(app, verbs);
    AddAuditVerb(app, verbs);
    AddScrubVerb(app, verbs);
    AddDrillVerb(app, verbs);
    AddShrinkVerb(app, verbs);
    AddMacroVerbs(app, verbs);
    AddKeysVerb(app, verbs);
    AddCheckVerb(app, verbs);
    AddLiveVerb(app, verbs);
    if (auto status = ParseCommandLine(app, argc, argv, ExitBadInput))
        return *status;
    try {
        for (const Verb& verb : verbs)
            if (verb.pCommand->parsed())
                return verb.Run();
        return ExitBadInput;
    } catch (const InputError& error) {
        fflush(stdout);
        fmt::print(stderr, "tvusb: {}\n", error.what());
        return ExitBadInput;
    } catch (const std::exception& error) {
        fflush(stdout);
        fmt::print(stderr, "tvusb: {}\n", error.what());
        return ExitFailed;
    }
}
