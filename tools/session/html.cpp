// html.cpp - a session as one page: keys over time as bars, what was sent beside what was seen.
//
// A bar is a key on one side, from the report that has it to the next one of that kind without it.
#include "session.h"
#include "keytracker.h"
#include "page.h"
#include "tools/common/files.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <map>
#include <tuple>

namespace
{

// A key on one side of the driver, from its press to its release.
struct KeyBar {
    bool bOwn; // above: the driver answered the read that pressed it
    uint64_t ullFromUs;
};

// Where a bar is: side (true: above), keyboard, key.
using Place = std::tuple<bool, unsigned, std::string>;

// As JSON that may stand in a page: no '<' can end the script around it.
std::string Quoted(const std::string& text)
{
    std::string quoted;
    for (char c : QuotedJson(text))
        c == '<' ? quoted += "\\u003c" : quoted += c;
    return quoted;
}

// Writes the session's JSON: each bar when it ends, each event when it is told, then what is known at the end.
class PageWriter
{
public:
    PageWriter(OutputFile& file, const std::string& title, const Session& session)
        : m_file(file), m_session(session)
    {
        m_file.Write(fmt::format("{{\"title\":{},\n\"items\":[", Quoted(title)));
    }

    void Add(const SessionLine& line)
    {
        if (line.kind != LineKind::Report)
            return Item(fmt::format("{{\"t\":{},\"kbd\":{},\"text\":{}}}", line.ullUs, line.uKeyboard,
                                    Quoted(WordsOf(m_session.kinds, line))));
        if (line.sent)
            Follow(line, false);
        Follow(line, true);
    }

    void End()
    {
        for (const auto& [place, bar] : m_open)
            Bar(place, bar, m_session.ullEndUs, true);
        std::string names;
        for (const SessionKeyboard& keyboard : m_session.keyboards)
            names += (names.empty() ? "" : ",\n") +
                     fmt::format("{{\"name\":{}}}",
                                 Quoted(fmt::format("{:04x}:{:04x} {}", keyboard.script.usVendor,
                                                    keyboard.script.usProduct, keyboard.script.name)));
        const ReplayTotals& totals = m_session.totals;
        m_file.Write(
            fmt::format("\n],\n\"end\":{},\"reports\":{},\"told\":{},\"leaks\":{},\n\"keyboards\":[{}]}}",
                        m_session.ullEndUs, totals.uReports, totals.uEvents, totals.uLeaks, names));
    }

private:
    void Follow(const SessionLine& line, bool bAbove)
    {
        const unsigned uType = m_session.keyboards[line.uKeyboard].uType;
        const KeyTracker::Change change =
            m_keys[bAbove].Follow(line.uKeyboard, uType, bAbove ? line.seen : *line.sent);
        for (const std::string& key : change.released)
            if (auto bar = m_open.extract({bAbove, line.uKeyboard, key})) // else reports of two kinds had it
                Bar(bar.key(), bar.mapped(), line.ullUs, false);
        for (const std::string& key : change.pressed)
            m_open.try_emplace({bAbove, line.uKeyboard, key}, KeyBar{!line.sent, line.ullUs});
    }

    void Bar(const Place& place, const KeyBar& bar, uint64_t ullToUs, bool bHeld)
    {
        const auto& [bAbove, uKeyboard, key] = place;
        Item(
            fmt::format("{{\"kbd\":{},\"above\":{},\"own\":{},\"held\":{},\"key\":{},\"from\":{},\"to\":{}}}",
                        uKeyboard, bAbove, bar.bOwn, bHeld, Quoted(key), bar.ullFromUs, ullToUs));
    }

    void Item(const std::string& json)
    {
        m_file.Write(m_bFirst ? "\n" : ",\n");
        m_file.Write(json);
        m_bFirst = false;
    }

    OutputFile& m_file;
    const Session& m_session;
    KeyTracker m_keys[2]; // below, above
    std::map<Place, KeyBar> m_open;
    bool m_bFirst = true;
};

} // namespace

unsigned WritePage(const std::string& file, const std::string& title, const Script& script,
                   const ReplaySetup& setup)
{
    const std::string_view page = PageText, place = "@SESSION@";
    const size_t cPlace = page.find(place);
    OutputFile output(file);
    output.Write(page.substr(0, cPlace));
    Session session;
    PageWriter writer(output, title, session);
    WalkSession(session, script, setup, [&](SessionLine&& line) { writer.Add(line); });
    writer.End();
    output.Write(page.substr(cPlace + place.size()));
    output.Finish();
    return session.totals.uLeaks;
}
