// words.h - what a replay tells, as a person says it: the table, the page and the comments of a capture share it.
#pragma once

#include "sys/control/requests.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

// Which ids tell scan codes. An event's value alone does not: Esc held at a cashier's keyboard repeats the byte 1,
// which is also a hotkey that goes down.
class EventKinds
{
public:
    EventKinds() = default;
    explicit EventKinds(const std::vector<KeyDefinition>& definitions);
    bool IsScan(const NotifyRecord& record) const;

private:
    std::set<uint32_t> m_scanIds; // of point-of-sale definitions alone
};

std::string HotkeyWords(const NotifyRecord& record); // "hotkey 7 up (Esc)"
std::string ScanWords(const std::string& scans,
                      uint32_t ulId);              // "scan e0 50 of definition 9", scans: " e0 50"
std::string MacroWords(const MacroRecord& record); // "macro mode on", "captured 00 00 04"
std::string LedWords(uint8_t ucReport);            // "LEDs: Num"
std::string DefinitionWords(uint32_t ulId, uint32_t ulStatus,
                            const std::string& why); // "definition 3 refused: ..."
