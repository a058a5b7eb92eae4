// parameters.cpp - see parameters.h.
#include "parameters.h"

#include <sstream>

static std::string Unquoted(const std::string& value)
{
    std::string text;
    for (size_t i = 1; i + 1 < value.size(); i++) {
        i += value[i] == '\\';
        text += value[i];
    }
    return text;
}

Settings32 ReadParameters(const std::string& regText)
{
    Settings32 settings;
    std::istringstream stream(regText);
    for (std::string line; std::getline(stream, line);) {
        size_t end = line.find("\"=");
        if (line.empty() || line[0] != '"' || end == std::string::npos) {
            continue;
        }
        std::string name = line.substr(1, end - 1), value = line.substr(end + 2);
        if (value.rfind("dword:", 0) == 0) {
            settings[name] = std::stoul(value.substr(6), nullptr, 16);
        } else {
            settings[name] = Unquoted(value);
        }
    }
    return settings;
}
