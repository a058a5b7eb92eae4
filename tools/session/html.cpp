// html.cpp - a session as one page: keys over time as bars, what was sent beside what was seen.
//
// A bar is a key on one side, from the report that has it to the next one of that kind without it. Reports of
// different kinds (length, and the ID where the kind of keyboard has one) do not end each other's keys.
#include "session.h"
#include "page.h"
#include "tools/common/files.h"
#include "tools/common/text.h"
#include "tools/replay/keys.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace
{

constexpr unsigned Jaalaa = 3, Chic = 4; // KbdTypeOf

// A key on one side of the driver, from its press to its release.
struct KeyBar {
    bool bOwn; // above: the driver answered the read that pressed it
    uint64_t ullFromUs;
};

// Which bars go on: by side (true: above), keyboard and kind of report, then by key.
using Stream = std::tuple<bool, unsigned, size_t, uint8_t>;

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
    PageWriter(OutputFile& file, const Session& session) : m_file(file), m_session(session)
    {
        m_file.Write("{\"items\":[");
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
        for (const auto& [stream, held] : m_open)
            for (const auto& [key, bar] : held)
                Bar(stream, key, bar, m_session.ullEndUs, true);
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
        const Bytes& report = bAbove ? line.seen : *line.sent;
        unsigned uType = m_session.keyboards[line.uKeyboard].uType;
        bool bWithId = (uType == Jaalaa || uType == Chic) && !report.empty();
        Stream stream{bAbove, line.uKeyboard, report.size(), bWithId ? report[0] : uint8_t{0}};
        std::map<std::string, KeyBar>& held = m_open[stream];
        std::vector<std::string> keys = KeyListOfReport(report, uType);
        for (auto at = held.begin(); at != held.end();)
            if (std::find(keys.begin(), keys.end(), at->first) == keys.end()) {
                Bar(stream, at->first, at->second, line.ullUs, false);
                at = held.erase(at);
            } else
                ++at;
        for (const std::string& key : keys)
            held.try_emplace(key, KeyBar{!line.sent, line.ullUs});
    }

    void Bar(const Stream& stream, const std::string& key, const KeyBar& bar, uint64_t ullToUs, bool bHeld)
    {
        Item(fmt::format(
            "{{\"kbd\":{},\"above\":{},\"own\":{},\"held\":{},\"key\":{},\"from\":{},\"to\":{}}}",
            std::get<1>(stream), std::get<0>(stream), bar.bOwn, bHeld, Quoted(key), bar.ullFromUs, ullToUs));
    }

    void Item(const std::string& json)
    {
        m_file.Write(m_bFirst ? "\n" : ",\n");
        m_file.Write(json);
        m_bFirst = false;
    }

    OutputFile& m_file;
    const Session& m_session;
    std::map<Stream, std::map<std::string, KeyBar>> m_open;
    bool m_bFirst = true;
};

} // namespace

unsigned WritePage(const std::string& file, const Script& script, const ReplaySetup& setup)
{
    const std::string_view page = PageText, place = "@SESSION@";
    const size_t cPlace = page.find(place);
    OutputFile output(file);
    output.Write(page.substr(0, cPlace));
    Session session;
    PageWriter writer(output, session);
    WalkSession(session, script, setup, [&](SessionLine&& line) { writer.Add(line); });
    writer.End();
    output.Write(page.substr(cPlace + place.size()));
    output.Finish();
    return session.totals.uLeaks;
}
