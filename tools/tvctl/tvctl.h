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

void AddListVerbs(CLI::App& app, ControlVerbs& verbs);       // list.cpp: list, info, version
void AddWatchVerb(CLI::App& app, ControlVerbs& verbs);       // watch.cpp
void AddHotkeyVerbs(CLI::App& app, ControlVerbs& verbs);     // hotkey.cpp: hotkey, apply
void AddInsertVerbs(CLI::App& app, ControlVerbs& verbs);     // insert.cpp: type, insert
void AddSettingVerbs(CLI::App& app, ControlVerbs& verbs);    // settings.cpp: leds, typematic
void AddEepromVerbs(CLI::App& app, ControlVerbs& verbs);     // eeprom.cpp
void AddDescriptorVerbs(CLI::App& app, ControlVerbs& verbs); // strings.cpp: strings, descriptor
void AddMacroVerbs(CLI::App& app, ControlVerbs& verbs);      // macro.cpp
void AddReloadVerb(CLI::App& app, ControlVerbs& verbs);      // reload.cpp
void AddDoctorVerb(CLI::App& app, ControlVerbs& verbs);      // doctor.cpp

// "1.3.0"
std::string VersionText(uint32_t ulVersion);

// command.cpp: the whole program; returns the exit status. The way leads to the driver.
int RunTvctl(int argc, const char* const* argv, const MakeTransport& way);
