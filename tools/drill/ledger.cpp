// ledger.cpp - follows the keys on both sides of the driver.
#include "ledger.h"

#include <fmt/format.h>

#include <algorithm>

size_t Ledger::FirstWaiting() const
{
    size_t cFirst = m_presses.size();
    for (const auto& [key, cPress] : m_waiting)
        cFirst = std::min(cFirst, cPress);
    return cFirst;
}

std::set<std::string> Ledger::Stuck(const std::set<unsigned>& without) const
{
    std::set<std::string> stuck;
    const auto below = m_below.Held();
    for (const auto& [uKeyboard, key] : m_above.Held())
        if (below.count({uKeyboard, key}) == 0 && without.count(uKeyboard) == 0)
            stuck.insert(fmt::format("{} of keyboard {}", key, uKeyboard));
    return stuck;
}

void Ledger::Keyboard(uint64_t, unsigned uKeyboard, uint32_t, unsigned uType, const ScriptKeyboard&)
{
    m_types[uKeyboard] = uType;
}

void Ledger::Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent, const Bytes& seen)
{
    m_ullUs = ullUs;
    m_uKeyboard = uKeyboard;
    ++m_uReports;
    if (sent)
        for (const std::string& key : m_below.Follow(uKeyboard, m_types[uKeyboard], *sent).pressed) {
            m_waiting[{uKeyboard, key}] = m_presses.size();
            m_presses.push_back({ullUs, uKeyboard, key, false});
        }
    for (const std::string& key : m_above.Follow(uKeyboard, m_types[uKeyboard], seen).pressed)
        if (auto waiting = m_waiting.extract({uKeyboard, key}))
            m_presses[waiting.mapped()].bSeen = true;
}

void Ledger::Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord&)
{
    m_ullUs = ullUs;
    m_uKeyboard = uKeyboard;
    ++m_uEvents;
}

void Ledger::Macro(uint64_t ullUs, const MacroRecord&)
{
    m_ullUs = ullUs;
    ++m_uEvents;
}
