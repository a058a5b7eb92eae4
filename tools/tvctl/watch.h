// watch.h - a keyboard's events as they come.
#pragma once

#include "definitions.h"

#include <CLI/CLI.hpp>

struct WatchLimits {
    uint32_t ulEvents = 0;  // ends after so many, 0: never
    uint32_t ulSeconds = 0; // ends after so long, 0: never

    void AddTo(CLI::App* pVerb);
};

// Tells the keyboard's events, with the names of their definitions, until a limit or an interrupt ends it.
// Fails (Failure): another application listens already, the keyboard is pulled out.
void Watch(Session& session, const tvusb::Keyboard& keyboard, const std::vector<NamedDefinition>& names,
           const WatchLimits& limits);
