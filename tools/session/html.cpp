// html.cpp - a session as one page: keys over time as bars, what was sent beside what was seen.
//
// A bar is a key on one side, from the report that has it to the next one of that kind without it. Reports of
// different kinds (length, and the ID where the kind of keyboard has one) do not end each other's keys.
#include "session.h"
#include "page.h"
#include "tools/common/text.h"
#include "tools/replay/keys.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace
{

constexpr unsigned Jaalaa = 3, Chic = 4; // KbdTypeOf

// Which bars go on: by side, keyboard and kind of report, then by key.
using Stream = std::tuple<bool, unsigned, size_t, uint8_t>;
using OpenBars = std::map<Stream, std::map<std::string, KeyBar>>;

void Follow(OpenBars& open, std::vector<KeyBar>& bars, const SessionLine& line, unsigned uType, bool bAbove)
{
    const Bytes& report = bAbove ? line.seen : *line.sent;
    bool bWithId = (uType == Jaalaa || uType == Chic) && !report.empty();
    std::map<std::string, KeyBar>& held =
        open[{bAbove, line.uKeyboard, report.size(), bWithId ? report[0] : uint8_t{0}}];
    std::vector<std::string> keys = KeyListOfReport(report, uType);
    for (auto at = held.begin(); at != held.end();)
        if (std::find(keys.begin(), keys.end(), at->first) == keys.end()) {
            at->second.ullToUs = line.ullUs;
            bars.push_back(at->second);
            at = held.erase(at);
        } else
            ++at;
    for (const std::string& key : keys)
        held.try_emplace(key, KeyBar{line.uKeyboard, bAbove, !line.sent, false, key, line.ullUs, line.ullUs});
}

// As JSON that may stand in a page: no '<' can end the script around it.
std::string Quoted(const std::string& text)
{
    std::string quoted;
    for (char c : QuotedJson(text))
        c == '<' ? quoted += "\\u003c" : quoted += c;
    return quoted;
}

template <typename List, typename Format> std::string Array(const List& list, Format format)
{
    std::string text;
    for (const auto& entry : list)
        text += (text.empty() ? "" : ",\n") + format(entry);
    return "[" + text + "]";
}

std::string JsonOf(const Session& session)
{
    std::vector<SessionLine> events;
    std::copy_if(session.lines.begin(), session.lines.end(), std::back_inserter(events),
                 [](const SessionLine& line) { return line.kind != LineKind::Report; });
    return fmt::format(
        "{{\"end\":{},\"reports\":{},\"told\":{},\"leaks\":{},\n\"keyboards\":{},\n\"events\":{},\n\"bars\":{"
        "}}}",
        session.ullEndUs, session.totals.uReports, session.totals.uEvents, session.totals.uLeaks,
        Array(session.keyboards,
              [](const SessionKeyboard& keyboard) {
                  return fmt::format("{{\"name\":{}}}",
                                     Quoted(fmt::format("{:04x}:{:04x} {}", keyboard.script.usVendor,
                                                        keyboard.script.usProduct, keyboard.script.name)));
              }),
        Array(events,
              [&session](const SessionLine& line) {
                  return fmt::format("{{\"t\":{},\"kbd\":{},\"text\":{}}}", line.ullUs, line.uKeyboard,
                                     Quoted(WordsOf(session.kinds, line)));
              }),
        Array(BarsOf(session), [](const KeyBar& bar) {
            return fmt::format(
                "{{\"kbd\":{},\"above\":{},\"own\":{},\"held\":{},\"key\":{},\"from\":{},\"to\":{}}}",
                bar.uKeyboard, bar.bAbove, bar.bOwn, bar.bHeld, Quoted(bar.key), bar.ullFromUs, bar.ullToUs);
        }));
}

} // namespace

std::vector<KeyBar> BarsOf(const Session& session)
{
    std::vector<KeyBar> bars;
    OpenBars open;
    for (const SessionLine& line : session.lines) {
        if (line.kind != LineKind::Report)
            continue;
        unsigned uType = session.keyboards[line.uKeyboard].uType;
        if (line.sent)
            Follow(open, bars, line, uType, false);
        Follow(open, bars, line, uType, true);
    }
    for (auto& [stream, held] : open)
        for (auto& [key, bar] : held) {
            bar.ullToUs = session.ullEndUs;
            bar.bHeld = true;
            bars.push_back(bar);
        }
    std::sort(bars.begin(), bars.end(), [](const KeyBar& a, const KeyBar& b) {
        return std::tie(a.ullFromUs, a.uKeyboard, a.bAbove) < std::tie(b.ullFromUs, b.uKeyboard, b.bAbove);
    });
    return bars;
}

std::string HtmlOf(const Session& session)
{
    std::string page = PageText;
    const std::string place = "@SESSION@";
    return page.replace(page.find(place), place.size(), JsonOf(session));
}
