// words.cpp - events, macro records, LEDs and definitions in words.
#include "words.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

EventKinds::EventKinds(const std::vector<KeyDefinition>& definitions)
{
    for (const KeyDefinition& definition : definitions)
        if (definition.ulType == DEFINITION_POINT_OF_SALE)
            m_scanIds.insert(definition.ulId);
    for (const KeyDefinition& definition : definitions)
        if (definition.ulType != DEFINITION_POINT_OF_SALE)
            m_scanIds.erase(definition.ulId);
}

// The report road tells scan codes, whatever they are; the hotkeys and their timer tell presses, releases, and the
// repeats of a cashier's key.
bool EventKinds::IsScan(const NotifyRecord& record) const
{
    return record.ucSource != NOTIFY_SOURCE_HOTKEY || record.ulValue > 1 || m_scanIds.count(record.ulId) != 0;
}

std::string HotkeyWords(const NotifyRecord& record)
{
    return fmt::format("hotkey {} {}{}", record.ulId, record.ulValue ? "down" : "up",
                       record.ulEscAbort ? " (Esc)" : "");
}

std::string ScanWords(const std::string& scans, uint32_t ulId)
{
    return fmt::format("scan{} of definition {}", scans, ulId);
}

std::string MacroWords(const MacroRecord& record)
{
    if (record.usType == MACRO_RECORD_MODE)
        return fmt::format("macro mode {}", record.ucMode ? "on" : "off");
    size_t cUsed = std::min<size_t>(record.ucLength, sizeof(record.ucReport));
    return "captured " + HexOf({record.ucReport, record.ucReport + cUsed}, " ");
}

std::string LedWords(uint8_t ucReport)
{
    std::string lit;
    for (const auto& [ucBit, pName] : {std::pair(1, " Num"), std::pair(2, " Caps"), std::pair(4, " Scroll")})
        if (ucReport & ucBit)
            lit += pName;
    return "LEDs:" + (lit.empty() ? " none" : lit);
}

std::string DefinitionWords(uint32_t ulId, uint32_t ulStatus, const std::string& why)
{
    return ulStatus ? fmt::format("definition {} refused: {} ({})", ulId, why, StatusText(ulStatus))
                    : fmt::format("definition {} added", ulId);
}
