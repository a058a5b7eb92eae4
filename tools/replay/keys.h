// keys.h - which keys a report tells of.
#pragma once

#include "packet.h"

#include <string>
#include <vector>

// Where the usages of keys begin in a report; its length for a report that has none.
size_t FirstUsageOf(const Bytes& report, unsigned uType);

// One name for each key that is down, modifiers first.
std::vector<std::string> KeyListOfReport(const Bytes& report, unsigned uType);

// "LCtrl+F1", "Volume Up": the modifiers and keys, by what the type of keyboard sends (1 normal, 2 power,
// 3 Jaalaa, 4 Chic); "" for none or for a report without keys.
std::string KeysOfReport(const Bytes& report, unsigned uType);
