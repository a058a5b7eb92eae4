// replay.h - plays a script through the driver on an emulated machine and tells what happens.
#pragma once

#include "config.h"
#include "output.h"
#include "script.h"

#include "emu/app/machine.h"

struct ReplaySetup {
    PDRIVER_INITIALIZE pEntry; // the driver's
    std::vector<const EmuDescriptors*>
        kinds; // what a recording's keyboards answer with, the last for the rest
    const ReplayConfig& config;
};

// Returns what was left behind at the end, 0 when all is well. Each call is a machine of its own.
// Fails (std::runtime_error): the driver does not load or refuses a keyboard.
unsigned RunReplay(const Script& script, const ReplaySetup& setup, ReplayPrinter& printer);
