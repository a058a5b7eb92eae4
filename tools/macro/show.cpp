// show.cpp - from the macro file to the readable form.
//
// Each press with its release is shown as a chord, and chords in a row that type characters as a text. What
// would not give the same bytes again is shown as it is.
#include "chords.h"
#include "client/typing.h"
#include "readable.h"
#include "tools/common/text.h"
#include "tools/keynames.h"

#include <fmt/format.h>

namespace
{

std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (char c : text)
        switch (c) {
        case '"':
        case '\\':
            quoted += {'\\', c};
            break;
        case '\n':
            quoted += "\\n";
            break;
        case '\t':
            quoted += "\\t";
            break;
        case '\b':
            quoted += "\\b";
            break;
        default:
            quoted += c;
        }
    return quoted + "\"";
}

template <typename Array> std::string Hex(const Array& bytes)
{
    return "\"" + HexOf(std::vector<uint8_t>(bytes.begin(), bytes.end()), " ") + "\"";
}

bool HasUsualHead(const MacroAction& action)
{
    return action.head == MacroAction().head;
}

// Walks the actions of a macro and names what they play.
class Lines
{
public:
    explicit Lines(const std::vector<MacroAction>& actions) : m_actions(actions)
    {
        while (m_cAt < m_actions.size()) {
            if (size_t cCharacters = CountCharacters(); cCharacters >= 2)
                AddText(cCharacters);
            else if (IsPressAndRelease(m_cAt))
                AddChord();
            else
                AddReport();
        }
    }

    std::vector<std::string> lines;

private:
    bool IsPressAndRelease(size_t cAt) const
    {
        return cAt + 1 < m_actions.size() && HasUsualHead(m_actions[cAt]) &&
               HasUsualHead(m_actions[cAt + 1]) && m_actions[cAt + 1].report == MacroReport() &&
               !ChordOfReport(m_actions[cAt].report).empty();
    }

    size_t CountCharacters() const
    {
        size_t cCount = 0;
        while (IsPressAndRelease(m_cAt + 2 * cCount) &&
               tvusb::CharacterOfReport(m_actions[m_cAt + 2 * cCount].report))
            ++cCount;
        return cCount;
    }

    void AddText(size_t cCharacters)
    {
        std::string text;
        for (size_t i = 0; i < cCharacters; ++i)
            text += tvusb::CharacterOfReport(m_actions[m_cAt + 2 * i].report);
        lines.push_back("{ text = " + Quoted(text) + " }");
        m_cAt += 2 * cCharacters;
    }

    void AddChord()
    {
        lines.push_back(Quoted(ChordOfReport(m_actions[m_cAt].report)));
        m_cAt += 2;
    }

    void AddReport()
    {
        const MacroAction& action = m_actions[m_cAt++];
        std::string head = HasUsualHead(action) ? "" : ", head = " + Hex(action.head);
        lines.push_back("{ report = " + Hex(action.report) + head + " }");
    }

    const std::vector<MacroAction>& m_actions;
    size_t m_cAt = 0;
};

std::string TriggerOf(const MacroEntry& entry)
{
    if (!entry.IsModifiers()) {
        std::string name = ShownKeyName(entry.Low());
        std::string complaint;
        bool bNamed = UsageOfKey(name, complaint) == entry.Low() && name.substr(0, 2) != "0x";
        return "key = " + (bNamed ? Quoted(name) : fmt::format("0x{:02X}", entry.Low()));
    }
    std::string names;
    for (const std::string& name : ShownModifiers(entry.Low()))
        names += (names.empty() ? "" : ", ") + Quoted(name);
    std::string mark = entry.usKey >> 8 == 1 ? "" : fmt::format("\nmark = 0x{:02X}", entry.usKey >> 8);
    return "modifiers = [" + names + "]" + mark;
}

std::string ShowMacro(const MacroEntry& entry)
{
    std::string text = "\n[[macro]]\n" + TriggerOf(entry) + "\n";
    Lines play(entry.actions);
    if (play.lines.size() == 1) {
        text += "play = [" + play.lines[0] + "]\n";
    } else if (!play.lines.empty()) {
        text += "play = [\n";
        for (const std::string& line : play.lines)
            text += "    " + line + ",\n";
        text += "]\n";
    }
    if (!entry.rest.empty())
        text += "rest = " + Hex(entry.rest) + "\n";
    return text;
}

} // namespace

std::string ShowMacros(const std::string& name, const MacroFile& macros)
{
    std::string printable;
    for (char c : name)
        printable += c >= ' ' && c <= '~' ? c : '?';
    std::string text = fmt::format("# {}: {} macro{}.\n", printable, macros.macros.size(),
                                   macros.macros.size() == 1 ? "" : "s");
    if (macros.unread != MacroFile().unread)
        text += "reserved = " + Hex(macros.unread) + "\n";
    if (!macros.tail.empty())
        text += "tail = " + Hex(macros.tail) + " # a record that is cut\n";
    for (const MacroEntry& entry : macros.macros)
        text += ShowMacro(entry);
    return text;
}
