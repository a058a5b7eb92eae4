// definitions.h - definitions with names: from the command line, from a configuration, and put to keyboards.
#pragma once

#include "session.h"

#include <string>
#include <vector>

struct NamedDefinition {
    KeyDefinition definition;
    std::string name; // that the configuration gives it, or its keys: "Ctrl+F1"
};

// The keys of a definition as people call them; what no key has as bytes: "Ctrl+0x99".
std::string KeysOf(const KeyDefinition& definition);

struct Configuration {
    bool bReportProcessing = true;
    size_t cSettings = 0; // values for the registry, which no request sets
    std::vector<NamedDefinition> definitions;
};

// Fails (InputError): as a replay's configuration.
Configuration ReadConfiguration(const std::string& file);
// "ctrl+F1": modifiers and keys, with plus signs between them. Fails (InputError): unknown names.
KeyDefinition ReadChord(const std::string& words, uint32_t ulId);

// The name of the event's definition: "7 Ctrl+F1", or its number alone.
std::string NameOf(const std::vector<NamedDefinition>& definitions, uint32_t ulId);
