// keytracker.cpp - compares each report with the one before it of its kind.
#include "keytracker.h"
#include "tools/replay/keys.h"

#include <algorithm>

namespace
{

constexpr unsigned Jaalaa = 3, Chic = 4; // KbdTypeOf

} // namespace

KeyTracker::Change KeyTracker::Follow(unsigned uKeyboard, unsigned uType, const Bytes& report)
{
    const bool bWithId = (uType == Jaalaa || uType == Chic) && !report.empty();
    std::set<std::string>& held = m_held[{uKeyboard, report.size(), bWithId ? report[0] : uint8_t{0}}];
    const std::vector<std::string> keys = KeyListOfReport(report, uType);
    Change change;
    for (auto at = held.begin(); at != held.end();)
        if (std::find(keys.begin(), keys.end(), *at) == keys.end()) {
            change.released.push_back(*at);
            at = held.erase(at);
        } else
            ++at;
    for (const std::string& key : keys)
        if (held.insert(key).second)
            change.pressed.push_back(key);
    return change;
}

std::set<std::pair<unsigned, std::string>> KeyTracker::Held() const
{
    std::set<std::pair<unsigned, std::string>> all;
    for (const auto& [stream, keys] : m_held)
        for (const std::string& key : keys)
            all.emplace(std::get<0>(stream), key);
    return all;
}
