// tvctl.h - the verbs of tvctl: each adds itself to the command line and tells how it is run.
//
// A verb reads and checks all its input before it asks the driver for anything.
#pragma once

#include "session.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <vector>

struct ControlVerb {
    CLI::App* pCommand;
    std::function<ExitStatus(Session&)> Run;
};
using ControlVerbs = std::vector<ControlVerb>;

void AddListVerbs(CLI::App& app, ControlVerbs& verbs); // list.cpp: list, info, version

// command.cpp: the whole program; returns the exit status. The way leads to the driver.
int RunTvctl(int argc, const char* const* argv, const MakeTransport& way);
