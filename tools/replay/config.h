// config.h - reads the configuration of a replay: settings of the driver and key definitions.
//
// The file is TOML. Everything in it is checked when it is read; an unknown key, an unknown key name or a bad
// value is an InputError that names the line. Whether the driver takes a definition is the driver's affair.
// A macro file in its readable form (.toml) is compiled into a temporary file for the driver to read.
#pragma once

#include "sys/control/requests.h"
#include "tools/common/files.h"
#include "tools/common/tomlreader.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct ReplayConfig {
    bool bReportProcessing = true;
    std::map<std::string, std::variant<uint32_t, std::string>> settings; // registry values by name
    std::string fileRoot; // the host folder that the driver's file names lie in
    std::vector<KeyDefinition> definitions;

    std::map<std::string, unsigned> settingLines;  // of the file, by name
    std::vector<unsigned> definitionLines;         // one for each definition
    std::vector<std::string> definitionNames;      // likewise; "" for none
    std::string macroFile;                         // KorvexConfigFile as the host knows it, or ""
    std::shared_ptr<TemporaryFile> compiledMacros; // what its readable form became
};

// Fails (InputError).
ReplayConfig ReadConfig(const std::string& file);
// The same from text; file is the name for messages, and file names are relative to its folder. With a list
// of problems, mistakes go there and the reading goes on; only what is no TOML at all fails then.
ReplayConfig ParseConfig(const std::string& file, std::string_view text,
                         std::vector<Problem>* pProblems = nullptr);
