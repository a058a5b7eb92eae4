// command.h - what verbs that replay an input share on the command line.
#pragma once

#include "emu/app/machine.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

void AddKeyboardOption(CLI::App& verb, std::vector<std::string>& keyboards);
// The kinds of those names; null for "guess".
std::vector<const EmuDescriptors*> KindsNamed(const std::vector<std::string>& names);
