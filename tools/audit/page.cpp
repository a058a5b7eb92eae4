// page.cpp - an audit as one page for people, and as JSON lines for programs.
#include "audit.h"
#include "tools/common/text.h"
#include "tools/why/why.h"

#include <fmt/format.h>

namespace
{

const char* const Titles[] = {
    "lost",     "stuck at the end",    "fired by accident", "dropped by a full queue",
    "not read", "definitions refused", "left behind",       "differences"};

std::string Seconds(uint64_t ullUs)
{
    return fmt::format("{}.{:06}", ullUs / 1000000, ullUs % 1000000);
}

// All inputs together.
Audit SumOf(const std::vector<Audited>& audits)
{
    Audit sum;
    for (const auto& [audit, found] : audits) {
        sum.ullEndUs += audit.ullEndUs;
        sum.totals.uKeyboards += audit.totals.uKeyboards;
        sum.totals.uReports += audit.totals.uReports;
        sum.uSent += audit.uSent;
        sum.uSeen += audit.uSeen;
        sum.uMade += audit.uMade;
        for (const auto& [by, uTimes] : audit.taken)
            sum.taken[by] += uTimes;
        for (const auto& [ulId, use] : audit.hotkeys) {
            sum.hotkeys[ulId].uFired += use.uFired;
            sum.hotkeys[ulId].uKeysCame += use.uKeysCame;
            sum.hotkeys[ulId].uArmed += use.uArmed;
        }
        if (audit.ullSlowestUs > sum.ullSlowestUs) {
            sum.ullSlowestUs = audit.ullSlowestUs;
            sum.slowest = audit.slowest + (audits.size() > 1 ? " in " + audit.input : "");
        }
    }
    return sum;
}

std::string UseWords(const HotkeyUse& use)
{
    if (use.uFired)
        return fmt::format("fired {} time{}", use.uFired, use.uFired == 1 ? "" : "s");
    if (use.uKeysCame == 0)
        return "never fired: none of its keys came";
    return fmt::format("never fired: its keys came {} time{}, with its modifiers {}", use.uKeysCame,
                       use.uKeysCame == 1 ? "" : "s", use.uArmed);
}

size_t CountOf(const AuditPage& page, FindingKind kind)
{
    size_t cAll = 0;
    for (const auto& [audit, found] : page.audits)
        cAll += found.CountOf(kind);
    return cAll;
}

void PrintFindings(const AuditPage& page, FindingKind kind)
{
    size_t cShown = 0;
    for (const auto& [audit, found] : page.audits)
        for (const Finding& finding : found.FirstOf(kind)) {
            if (++cShown > MostShown)
                break;
            if (cShown == 1)
                fmt::print("\n  {}\n", Titles[static_cast<size_t>(kind)]);
            fmt::print("    {}{:>11} s  keyboard {}  {}\n", page.audits.size() > 1 ? audit.input + "  " : "",
                       Seconds(finding.ullUs), finding.uKeyboard, finding.text);
            for (const std::string& detail : finding.details)
                fmt::print("                     {}\n", detail);
        }
    const size_t cAll = CountOf(page, kind);
    if (cAll > MostShown)
        fmt::print("    and {} more; --json tells them all\n", cAll - MostShown);
}

} // namespace

void PrintPage(const AuditPage& page)
{
    const Audit sum = SumOf(page.audits);
    fmt::print("{}{}{}\n",
               page.audits.size() == 1 ? page.audits[0].audit.input
                                       : fmt::format("{} inputs", page.audits.size()),
               page.config.empty() ? ", without a configuration" : " with " + page.config,
               page.against.empty() ? "" : ", against " + page.against);
    fmt::print("  {} keyboard{}, {} reports, {} s\n\n", sum.totals.uKeyboards,
               sum.totals.uKeyboards == 1 ? "" : "s", sum.totals.uReports, Seconds(sum.ullEndUs));
    fmt::print("  presses sent        {:>8}\n  seen by the system  {:>8}\n", sum.uSent, sum.uSeen);
    for (const auto& [by, uTimes] : sum.taken)
        fmt::print("  taken               {:>8}  by {}\n", uTimes, by);
    fmt::print("  lost                {:>8}\n", CountOf(page, FindingKind::Lost));
    fmt::print("  seen besides        {:>8}\n", sum.uMade);
    fmt::print("  slowest way         {:>8} s{}\n", Seconds(sum.ullSlowestUs),
               sum.slowest.empty() ? "" : "  " + sum.slowest);
    if (!sum.hotkeys.empty())
        fmt::print("\n  hotkeys\n");
    for (const auto& [ulId, use] : sum.hotkeys)
        fmt::print("    {:>5}  {:20}  {}\n", ulId, ShownDefinition(ulId, page.settings), UseWords(use));
    size_t cWrong = 0;
    for (size_t i = 0; i < std::size(Titles); ++i) {
        PrintFindings(page, static_cast<FindingKind>(i));
        cWrong += CountOf(page, static_cast<FindingKind>(i));
    }
    fmt::print("\n  {}\n", cWrong == 0 ? "nothing is wrong"
                                       : fmt::format("{} finding{}", cWrong, cWrong == 1 ? "" : "s"));
}

void PrintJson(const AuditPage& page)
{
    for (const auto& [audit, found] : page.audits) {
        unsigned uTaken = 0;
        for (const auto& [by, uTimes] : audit.taken)
            uTaken += uTimes;
        fmt::print("{{\"type\":\"audit\",\"file\":{},\"t_us\":{},\"keyboards\":{},\"reports\":{},\"sent\":{},"
                   "\"seen\":{},"
                   "\"taken\":{},\"besides\":{},\"slowest_us\":{},\"findings\":{}}}\n",
                   QuotedJson(audit.input), audit.ullEndUs, audit.totals.uKeyboards, audit.totals.uReports,
                   audit.uSent, audit.uSeen, uTaken, audit.uMade, audit.ullSlowestUs, found.Count());
        for (const auto& [ulId, use] : audit.hotkeys)
            fmt::print(
                "{{\"type\":\"hotkey\",\"file\":{},\"id\":{},\"fired\":{},\"came\":{},\"armed\":{}}}\n",
                QuotedJson(audit.input), ulId, use.uFired, use.uKeysCame, use.uArmed);
        found.PrintAll();
    }
}
