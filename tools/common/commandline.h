// commandline.h - what every program's command line does: a wrong name is told with the nearest one, and man page and
// shell completion are made from the same declarations as --help.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

// Parses. Returns the exit status when there is nothing more to do: 0 behind --help and its like, iBad behind one line
// on standard error.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, const char* const* argv, int iBad);

// document.cpp: the program's page in the form of man, and its completion for bash. --man and --completion print them.
std::string ManPageOf(const CLI::App& app, const std::string& version);
std::string CompletionOf(const CLI::App& app);
