// collect.cpp - plays a session and keeps what belongs to the report that is asked for.
//
// A keyboard has one read on its way at a time. What the driver traces for a keyboard between two of its report lines
// therefore belongs to the second: its read's way down, and what was done with the report.
#include "why.h"

#include <map>

namespace
{

class Collector final : public LinePrinter
{
public:
    Collector(WhySession& session, const WhyChoice& choice) : m_session(session), m_choice(choice) {}

    void Trace(const Traced& step)
    {
        const uint32_t ulDevice = step.Number("keyboard");
        if (!step.Is("HotkeyListEntry")) {
            m_steps[ulDevice].push_back(step);
            return;
        }
        std::vector<WhyHotkey>& list = m_lists[ulDevice];
        if (step.Number("index") == 0)
            list.clear();
        list.push_back({step.Number("index"), step.Number("id"), step.Number("modifiers"),
                        step.Number("keyCount"), step.BytesOf("keys")});
    }

    bool IsEnough() const { return m_bEnough; }

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard&) override
    {
        CloseUnlessAt(ullUs);
        m_keyboards[uKeyboard] = {ulIndex, uType};
        m_steps.erase(ulIndex); // what was traced of its coming
    }
    void End(uint64_t, const ReplayTotals& totals) override { m_session.uLeaks = totals.uLeaks; }

private:
    bool IsWanted(uint64_t ullUs) const
    {
        return m_choice.uReport ? m_choice.uReport == m_session.uReports : ullUs <= m_choice.ullUs;
    }

    void Line(SessionLine&& line) override
    {
        if (line.kind == LineKind::Report)
            Keep(line);
        else if (line.kind != LineKind::Definition)
            Tell(line);
        else if (line.ulStatus)
            m_session.refused.push_back(line);
    }

    void Keep(const SessionLine& line)
    {
        CloseUnlessAt(line.ullUs);
        const auto [ulDevice, uType] = m_keyboards[line.uKeyboard];
        std::vector<Traced> steps;
        steps.swap(m_steps[ulDevice]);
        ++m_session.uReports;
        m_latest.erase(line.uKeyboard);
        if (!IsWanted(line.ullUs))
            return;
        if (!m_session.reports.empty() && m_session.reports.back().ullUs != line.ullUs) {
            m_session.reports.clear();
            m_latest.clear();
        }
        m_latest[line.uKeyboard] = m_session.reports.size();
        m_session.reports.push_back({m_session.uReports,
                                     line.ullUs,
                                     line.uKeyboard,
                                     uType,
                                     line.sent,
                                     line.seen,
                                     std::move(steps),
                                     m_lists[ulDevice],
                                     {}});
    }

    // What is asked for, and everything of its moment, has been told.
    void CloseUnlessAt(uint64_t ullUs)
    {
        const bool bFound = !m_session.reports.empty();
        m_bEnough = m_bEnough || (m_choice.uReport ? bFound && m_session.reports.back().ullUs < ullUs
                                                   : ullUs > m_choice.ullUs);
    }

    void Tell(const SessionLine& line)
    {
        const auto latest = m_latest.find(line.uKeyboard);
        if (latest != m_latest.end() && m_session.reports[latest->second].ullUs == line.ullUs)
            m_session.reports[latest->second].told.push_back(line);
    }

    WhySession& m_session;
    const WhyChoice m_choice;
    std::map<unsigned, std::pair<uint32_t, unsigned>> m_keyboards; // the driver's index, the type
    std::map<uint32_t, std::vector<Traced>> m_steps; // since the last report line, by that index
    std::map<uint32_t, std::vector<WhyHotkey>> m_lists;
    std::map<unsigned, size_t> m_latest; // chosen reports that are the last of their keyboard
    bool m_bEnough = false;
};

} // namespace

WhySession CollectWhy(const Script& script, ReplaySetup setup, const WhyChoice& choice)
{
    WhySession session;
    Collector collector(session, choice);
    setup.BeforeLoad = [&] {
        ListenToDriver(TraceEverything, TraceReports | TraceHotkeys | TraceQueues | TraceMacro | TraceSale,
                       [&](const Traced& step) { collector.Trace(step); });
    };
    setup.IsEnough = [&] { return collector.IsEnough(); };
    RunReplay(script, setup, collector);
    return session;
}
