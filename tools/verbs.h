// verbs.h - the verbs of tvusb: each adds itself to the command line and tells how it is run.
//
// A verb returns the exit status: 0 all went well, 1 the run failed or a check found something, 2 an input is
// bad. It reads and checks all its input before it prints or writes anything.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <vector>

constexpr int ExitGood = 0, ExitFailed = 1, ExitBadInput = 2;

struct Verb {
    CLI::App* pCommand;
    std::function<int()> Run;
};
using Verbs = std::vector<Verb>;

void AddReplayVerb(CLI::App& app, Verbs& verbs); // replay/command.cpp
void AddShowVerb(CLI::App& app, Verbs& verbs);   // session/command.cpp
void AddAuditVerb(CLI::App& app, Verbs& verbs);  // audit/command.cpp
void AddDrillVerb(CLI::App& app, Verbs& verbs);  // drill/command.cpp
void AddWhyVerb(CLI::App& app, Verbs& verbs);    // why/command.cpp
void AddScrubVerb(CLI::App& app, Verbs& verbs);  // scrub/command.cpp
void AddShrinkVerb(CLI::App& app, Verbs& verbs); // shrink/command.cpp
void AddMacroVerbs(CLI::App& app, Verbs& verbs); // macro/command.cpp
void AddKeysVerb(CLI::App& app, Verbs& verbs);   // keys/command.cpp
void AddCheckVerb(CLI::App& app, Verbs& verbs);  // check/command.cpp
void AddLiveVerb(CLI::App& app, Verbs& verbs);   // live/command.cpp
