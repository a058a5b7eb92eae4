// compile.cpp - from the readable form to the macro file.
#include "chords.h"
#include "client/typing.h"
#include "readable.h"
#include "tools/common/nearest.h"
#include "tools/common/text.h"
#include "tools/common/tomlreader.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

class MacroCompiler : TomlReader
{
public:
    MacroCompiler(const std::string& file, std::vector<Problem>* pProblems) : TomlReader(file, pProblems) {}

    MacroFile Compile(std::string_view text)
    {
        toml::table root = ParseText(m_file, text);
        RefuseUnknownKeys(root, {"macro", "reserved", "tail"}, "the file");
        if (const toml::node* pNode = root.get("macro"))
            for (const toml::node& table : TablesOf(*pNode, "macros are tables: [[macro]]"))
                Try([&] { m_macros.macros.push_back(ReadMacro(*table.as_table())); });
        if (const toml::node* pNode = root.get("tail"))
            Try([&] { m_macros.tail = HexOf(*pNode, "tail"); });
        if (const toml::node* pNode = root.get("reserved"))
            Try([&] { ReadReserved(*pNode); });
        Try([&] {
            if (!m_macros.tail.empty() && ReadMacroFile(m_file, BytesOf(m_macros)).tail != m_macros.tail)
                Fail(*root.get("tail"), "tail holds a whole record; it is the beginning of one that is cut");
        });
        return std::move(m_macros);
    }

private:
    void ReadReserved(const toml::node& node)
    {
        m_macros.unread = HexOf(node, "reserved");
        bool bFollowed = !m_macros.macros.empty() || !m_macros.tail.empty();
        if (m_macros.unread.size() > MacroUnreadBytes ||
            (bFollowed && m_macros.unread.size() < MacroUnreadBytes))
            Fail(node, fmt::format("reserved has {} bytes; there are {}", m_macros.unread.size(),
                                   MacroUnreadBytes));
    }

    MacroEntry ReadMacro(const toml::table& table) const
    {
        RefuseUnknownKeys(table, {"key", "modifiers", "mark", "play", "rest"}, "[[macro]]");
        MacroEntry entry;
        entry.uLine = LineOf(table);
        Try([&] { entry.usKey = ReadTrigger(table); });
        if (const toml::node* pNode = table.get("play")) {
            if (const auto* pArray = pNode->as_array())
                for (const toml::node& element : *pArray)
                    Try([&] { Play(element, entry.actions); });
            else
                Try([&] { Play(*pNode, entry.actions); });
        }
        if (const toml::node* pNode = table.get("rest")) {
            entry.rest = HexOf(*pNode, "rest");
            if (entry.rest.size() >= MacroActionBytes)
                Fail(*pNode, fmt::format("rest has {} bytes; {} are a whole action", entry.rest.size(),
                                         MacroActionBytes));
        }
        if (entry.ActionBytes() > MacroMostActionBytes)
            Fail(table,
                 fmt::format("the macro has {} actions; their {} bytes do not fit the 16 bits that count "
                             "them, which hold {} actions",
                             entry.actions.size(), entry.ActionBytes(),
                             MacroMostActionBytes / MacroActionBytes));
        return entry;
    }

    // What starts the macro.
    uint16_t ReadTrigger(const toml::table& table) const
    {
        const toml::node* pKey = table.get("key");
        const toml::node* pModifiers = table.get("modifiers");
        const toml::node* pMark = table.get("mark");
        if (!pKey == !pModifiers)
            Fail(pKey ? *pKey : table, "a macro needs a key or modifiers, one of the two");
        if (pKey && pMark)
            Fail(*pMark, "a mark belongs to modifiers, not to a key");
        if (pKey)
            return ReadKey(*pKey);
        uint32_t ulMark = pMark ? NumberOf(*pMark, "mark", 0xFF) : 1;
        if (ulMark == 0)
            Fail(*pMark, "mark is not 0: that would be a key");
        return static_cast<uint16_t>(ulMark << 8 | ReadModifiers(*pModifiers));
    }

    uint8_t ReadKey(const toml::node& node) const
    {
        if (node.is_integer())
            return static_cast<uint8_t>(NumberOf(node, "key", 0xFF));
        if (!node.is_string())
            Fail(node, "key is a name in quotes or a usage number");
        std::string complaint;
        std::optional<uint8_t> usage = UsageOfKey(node.as_string()->get(), complaint);
        if (!usage)
            Fail(node, complaint);
        return *usage;
    }

    uint8_t ReadModifiers(const toml::node& node) const
    {
        if (node.is_integer())
            return static_cast<uint8_t>(NumberOf(node, "modifiers", 0xFF));
        uint8_t ucBits = 0;
        for (const toml::node& element : ArrayOf(node, "modifiers is a number, or names")) {
            const std::string& name = TextOf(element, "a modifier");
            std::optional<uint8_t> bits = ModifierBits(name, true);
            if (!bits)
                Fail(element, fmt::format("unknown modifier name '{}'{}", name,
                                          DidYouMean(name, ReportModifierNames())));
            ucBits |= *bits;
        }
        return ucBits;
    }

    void Play(const toml::node& node, std::vector<MacroAction>& actions) const
    {
        if (const auto* pChord = node.as_string()) {
            std::string complaint;
            std::optional<MacroReport> press = ReportOfChord(pChord->get(), complaint);
            if (!press)
                Fail(node, complaint);
            PressAndRelease(*press, actions);
            return;
        }
        if (!node.is_table())
            Fail(node, "a macro plays chords (\"ctrl+c\"), { text = \"...\" } or { report = \"...\" }");
        const toml::table& table = *node.as_table();
        RefuseUnknownKeys(table, {"text", "report", "head"}, "what a macro plays");
        const toml::node* pText = table.get("text");
        const toml::node* pReport = table.get("report");
        const toml::node* pHead = table.get("head");
        if (!pText == !pReport)
            Fail(node, "{ text = \"...\" } or { report = \"...\" }, one of the two");
        if (pText && pHead)
            Fail(*pHead, "a head belongs to a report, not to a text");
        if (pText)
            PlayText(*pText, actions);
        else
            actions.push_back(ReadAction(*pReport, pHead));
    }

    void PlayText(const toml::node& node, std::vector<MacroAction>& actions) const
    {
        for (char c : TextOf(node, "text")) {
            std::optional<MacroReport> press = tvusb::ReportOfCharacter(c);
            if (!press)
                Fail(node,
                     static_cast<unsigned char>(c) < 0x80
                         ? fmt::format("no key of the US layout types the character 0x{:02x}", c)
                         : "the text has a character that is not ASCII; no key of the US layout types it");
            PressAndRelease(*press, actions);
        }
    }

    MacroAction ReadAction(const toml::node& report, const toml::node* pHead) const
    {
        MacroAction action;
        std::vector<uint8_t> bytes = HexOf(report, "report");
        if (bytes.size() != action.report.size())
            Fail(report, fmt::format("a report has {} bytes, not {}", action.report.size(), bytes.size()));
        std::copy(bytes.begin(), bytes.end(), action.report.begin());
        if (pHead) {
            bytes = HexOf(*pHead, "head");
            if (bytes.size() != action.head.size())
                Fail(*pHead, fmt::format("a head has {} bytes, not {}", action.head.size(), bytes.size()));
            std::copy(bytes.begin(), bytes.end(), action.head.begin());
        }
        return action;
    }

    static void PressAndRelease(const MacroReport& press, std::vector<MacroAction>& actions)
    {
        actions.push_back({{{0, 8}}, press});
        actions.push_back({{{0, 8}}, MacroReport{}});
    }

    // Bytes as pairs of hexadecimal digits, with blanks between the bytes or without.
    std::vector<uint8_t> HexOf(const toml::node& node, const char* pName) const
    {
        std::vector<uint8_t> bytes;
        int iHigh = -1;
        for (char c : LowerCase(TextOf(node, pName))) {
            size_t cDigit = std::string_view("0123456789abcdef").find(c);
            bool bBlank = c == ' ' || c == '\n' || c == '\t';
            if (bBlank ? iHigh >= 0 : cDigit == std::string_view::npos)
                Fail(node, fmt::format("{} is bytes of two hexadecimal digits: \"00 0a\"", pName));
            if (bBlank)
                continue;
            if (iHigh < 0) {
                iHigh = static_cast<int>(cDigit);
            } else {
                bytes.push_back(static_cast<uint8_t>(iHigh << 4 | static_cast<int>(cDigit)));
                iHigh = -1;
            }
        }
        if (iHigh >= 0)
            Fail(node, fmt::format("{} is bytes of two hexadecimal digits: \"00 0a\"", pName));
        return bytes;
    }

    MacroFile m_macros;
};

} // namespace

MacroFile CompileMacros(const std::string& file, std::string_view text, std::vector<Problem>* pProblems)
{
    return MacroCompiler(file, pProblems).Compile(text);
}
