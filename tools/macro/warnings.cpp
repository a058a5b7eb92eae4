// warnings.cpp - what the driver does silently with a macro file.
#include "warnings.h"
#include "chords.h"
#include "tools/common/text.h"
#include "tools/keynames.h"

#include <fmt/format.h>

namespace
{

std::string NameOf(const MacroEntry& entry)
{
    if (!entry.IsModifiers())
        return ShownKeyName(entry.Low());
    std::string text;
    for (const std::string& name : ShownModifiers(entry.Low()))
        text += (text.empty() ? "" : " or ") + name;
    return text.empty() ? "no modifier" : text;
}

// What a report holds down: a chord, or the bytes when there is no name for it; "" for nothing.
std::string HeldBy(const MacroReport& report)
{
    MacroReport pressed = report;
    pressed[1] = 0; // reserved, no key
    if (pressed == MacroReport())
        return "";
    std::string chord = ChordOfReport(pressed);
    return chord.empty() ? HexOf(std::vector<uint8_t>(report.begin(), report.end()), " ") : chord;
}

class Examiner
{
public:
    explicit Examiner(const MacroFile& macros) : m_macros(macros) {}

    std::vector<MacroWarning> Examine()
    {
        size_t cBytes = BytesOf(m_macros).size();
        if (cBytes > MacroMostBytes)
            Warn(nullptr, 0,
                 fmt::format("the file has {} bytes; the driver refuses more than {}", cBytes,
                             MacroMostBytes));
        for (size_t i = 0; i < m_macros.macros.size(); ++i) {
            if (i == MacroMost)
                WarnOf(i, fmt::format("the driver holds {} macros; this one and all behind it are dropped",
                                      MacroMost));
            ExamineTrigger(i);
            ExamineActions(i);
        }
        if (!m_macros.tail.empty())
            Warn(nullptr, m_macros.cTailOffset, TellTail());
        return std::move(m_warnings);
    }

private:
    void Warn(const MacroEntry* pEntry, size_t cOffset, const std::string& what)
    {
        m_warnings.push_back({pEntry, cOffset, what});
    }

    void WarnOf(size_t i, const std::string& what)
    {
        const MacroEntry& entry = m_macros.macros[i];
        Warn(&entry, entry.cOffset, fmt::format("macro {} ({}): {}", i + 1, NameOf(entry), what));
    }

    // A trigger that never comes, or that an earlier macro takes out of the report first.
    void ExamineTrigger(size_t i)
    {
        const MacroEntry& entry = m_macros.macros[i];
        if (entry.Low() == 0)
            WarnOf(i, entry.IsModifiers()
                          ? "no modifier starts it; it never plays"
                          : "usage 0 is every empty place of a report; it plays all the time");
        if (!entry.IsModifiers() && entry.Low() >= 0xE0 && entry.Low() <= 0xE7)
            WarnOf(i, "a modifier is no key of a report, so it never plays; use modifiers");
        uint8_t ucLeft = entry.Low();
        for (size_t k = 0; k < i && ucLeft != 0; ++k) {
            const MacroEntry& earlier = m_macros.macros[k];
            if (earlier.IsModifiers() != entry.IsModifiers())
                continue;
            if (entry.IsModifiers())
                ucLeft = static_cast<uint8_t>(ucLeft & ~earlier.Low());
            else if (earlier.Low() == entry.Low())
                ucLeft = 0;
            if (ucLeft == 0)
                WarnOf(i, fmt::format("macro {} takes that {} first; it never plays", k + 1,
                                      entry.IsModifiers() ? "modifier" : "key"));
        }
    }

    void ExamineActions(size_t i)
    {
        const MacroEntry& entry = m_macros.macros[i];
        size_t cActions = entry.actions.size();
        if (cActions > MacroMostQueued) {
            std::string held = HeldBy(entry.actions[MacroMostQueued - 1].report);
            WarnOf(i,
                   fmt::format("{} actions, but the driver queues {} reports at once; the last {} are lost{}",
                               cActions, MacroMostQueued, cActions - MacroMostQueued,
                               held.empty() ? "" : ", which leaves " + held + " down"));
        }
        if (cActions != 0)
            if (std::string held = HeldBy(entry.actions.back().report); !held.empty())
                WarnOf(i, fmt::format("its last report leaves {} down", held));
        if (!entry.rest.empty())
            WarnOf(i, fmt::format("{} bytes of actions are no multiple of {}; the last {} are passed over",
                                  entry.ActionBytes(), MacroActionBytes, entry.rest.size()));
    }

    std::string TellTail() const
    {
        const std::vector<uint8_t>& tail = m_macros.tail;
        if (tail.size() < 4)
            return fmt::format("a record is cut: {} of the 4 bytes of its head; the driver drops it",
                               tail.size());
        return fmt::format("a record is cut: {} of its {} bytes of actions; the driver drops it",
                           tail.size() - 4, WordAt(tail.data(), 2));
    }

    const MacroFile& m_macros;
    std::vector<MacroWarning> m_warnings;
};

} // namespace

std::vector<MacroWarning> WarningsOf(const MacroFile& macros)
{
    return Examiner(macros).Examine();
}

std::optional<std::string> WarnOfName(const std::string& driverName)
{
    size_t cUnits = 0; // of UTF-16: one a character, two for the largest ones
    for (unsigned char c : driverName)
        cUnits += (c & 0xC0) == 0x80 ? 0 : c >= 0xF0 ? 2 : 1;
    if (cUnits <= MacroMostNameUnits)
        return std::nullopt;
    return fmt::format(
        "the full name '{}' has {} characters; the driver reads at most {} and keeps its old macros",
        driverName, cUnits, MacroMostNameUnits);
}
