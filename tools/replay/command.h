// command.h - what verbs that replay an input share on the command line.
#pragma once

#include "script.h"

#include "emu/app/machine.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

// A second of the input; "nan" is a number to the parser, and in no range. Returns what is wrong, "" for nothing.
constexpr double LatestSecond = 1e12;
std::string FaultOfSecond(const std::string& text);

// Which part of the input.
struct PartArguments {
    std::vector<std::string> devices;
    double from = 0, to = LatestSecond; // seconds
    ScriptChoice Choice() const;
};
void AddPartOptions(CLI::App& verb, PartArguments& part);

void AddKeyboardOption(CLI::App& verb, std::vector<std::string>& keyboards);
// The kinds of those names; null for "guess".
std::vector<const EmuDescriptors*> KindsNamed(const std::vector<std::string>& names);
