// replay.h - plays a script through the driver on an emulated machine and tells what happens.
#pragma once

#include "config.h"
#include "output.h"
#include "script.h"
#include "trial.h"

#include "emu/app/machine.h"

#include <functional>

struct ReplaySetup {
    PDRIVER_INITIALIZE pEntry; // the driver's
    // What keyboards answer with that the input does not tell of, in their order, the last for the rest; null:
    // what their first report looks like. None: a recording's are normal, a capture's stay unknown.
    std::vector<const EmuDescriptors*> kinds;
    const ReplayConfig& config;
    std::function<void(uint64_t ullUs, const ReplayTotals&)> Progress = {}; // every few thousand steps
    std::function<void()> BeforeLoad = {}; // the host runs, the driver is about to be loaded
    std::function<bool()> IsEnough = {};   // asked before each step: true leaves out the rest of the input
    ReplayTrial* pTrial = nullptr;
};

// Gaps of more than ten minutes are played for ten minutes, and the rest is skipped.
// Returns what was left behind at the end, 0 when all is well. Each call is a machine of its own.
// Fails (std::runtime_error): the driver does not load or refuses a keyboard; (InputError) the input.
unsigned RunReplay(const Script& script, const ReplaySetup& setup, ReplayPrinter& printer);
