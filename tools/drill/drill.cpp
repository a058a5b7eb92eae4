// drill.cpp - the undisturbed run, the walk, and what a copy finds.
#include "drill.h"
#include "apart.h"
#include "ledger.h"

#include "emu/hid/hid.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

namespace
{

const WCHAR* const Driver = L"Tv64USB";
constexpr char CallMark = '=';        // before what a copy says of the call that fails
constexpr uint64_t CalmUs = 10000000; // behind the session: what is still held then is held for ever

// What happened when nothing did.
struct Undisturbed {
    std::vector<SentPress> presses;
    std::set<std::string> stuck;
    struct Before {
        unsigned uCalls;   // of the driver's, that can fail
        unsigned uPresses; // that were sent
        unsigned uEvents;  // that were told
    };
    std::vector<Before> steps; // before each step, after the last one, and before the end
    unsigned uReports = 0, uEvents = 0;
};

// Reads of the system that wait in the driver, and nothing will ever end.
std::set<std::string> HeldReads(const std::vector<EmuKeyboard*>& keyboards)
{
    std::set<std::string> held;
    unsigned long long ullTimer;
    if (HostNextTimerUs(&ullTimer))
        return held;
    for (size_t k = 0; k < keyboards.size(); ++k)
        if (keyboards[k]->Plugged() && keyboards[k]->Hid() &&
            EmuHidOutstandingReads(keyboards[k]->Hid()) != keyboards[k]->PendingReads())
            held.insert(fmt::format("a read of keyboard {} never comes back", k));
    return held;
}

// A keyboard that is plugged in now types: what it sends reaches the system. "": it does.
std::string TryAnother(EmuMachine& machine)
{
    EmuKeyboard* pKeyboard = machine.Plug();
    if (!NT_SUCCESS(pKeyboard->AddStatus()) || !NT_SUCCESS(pKeyboard->StartStatus()))
        return "a keyboard that is plugged in afterwards does not start";
    for (UCHAR ucKey : {UCHAR{4}, UCHAR{0}}) {
        pKeyboard->Report({0, 0, ucKey, 0, 0, 0, 0, 0});
        HostSettle();
    }
    return pKeyboard->Taken().size() < 2
               ? "what a keyboard sends that is plugged in afterwards does not arrive"
               : "";
}

// The first line that begins so, without that; or else.
std::string LineOf(const std::vector<std::string>& lines, const std::string& begin, const char* pElse)
{
    for (const std::string& line : lines)
        if (line.rfind(begin, 0) == 0)
            return line.substr(begin.size());
    return pElse;
}

class UndisturbedTrial final : public ReplayTrial
{
public:
    UndisturbedTrial(Undisturbed& found, const Ledger& ledger) : m_found(found), m_ledger(ledger) {}
    void Count()
    {
        m_found.steps.push_back(
            {HostFallibleCalls(), static_cast<unsigned>(m_ledger.Presses().size()), m_ledger.Events()});
    }

    Mishap AtReport(unsigned) override { return Mishap::None; }
    void AfterPull(unsigned, EmuKeyboard&) override {}
    Mishap AtEvent(unsigned) override { return Mishap::None; }
    void BeforeEnd(EmuMachine&, const std::vector<EmuKeyboard*>&) override { Count(); }

private:
    Undisturbed& m_found;
    const Ledger& m_ledger;
};

Undisturbed RunUndisturbed(const Script& script, ReplaySetup setup)
{
    Undisturbed found;
    Ledger ledger;
    UndisturbedTrial trial(found, ledger);
    setup.pTrial = &trial;
    setup.BeforeLoad = [] {
        HostFailOnlyIn(Driver);
        HostFailNth(nullptr, 0);
    };
    setup.IsEnough = [&] {
        trial.Count();
        return false;
    };
    RunReplay(script, setup, ledger);
    found.presses = ledger.Presses();
    found.stuck = ledger.Stuck({});
    found.uReports = ledger.Reports();
    found.uEvents = ledger.Events();
    return found;
}

// Plays the session once and sends copies apart; in a copy, plays on from the mishap.
class Walk final : public ReplayTrial
{
public:
    Walk(Drill& drill, const Undisturbed& undisturbed, const DrillPlan& plan)
        : m_drill(drill), m_undisturbed(undisturbed), m_plan(plan)
    {
    }

    void Run(const Script& script, ReplaySetup setup)
    {
        setup.pTrial = this;
        setup.BeforeLoad = [&] {
            HostFailOnlyIn(Driver);
            FailCalls(0);
        };
        setup.IsEnough = [&] { return AtStep(); };
        try {
            RunReplay(script, setup, m_ledger);
        } catch (const std::runtime_error& error) {
            if (!m_bApart)
                throw;
            Say(Result::Refused, error.what());
            EndApart(m_says);
        }
        if (m_bApart)
            Conclude();
    }

    Mishap AtReport(unsigned uKeyboard) override
    {
        for (Trouble trouble : {Trouble::Pulled, Trouble::Removed})
            if (!m_bApart && IsChosen(trouble, m_ledger.Reports() - 1) &&
                SendApart(trouble, m_ledger.Reports(), uKeyboard)) {
                m_pulled.insert(uKeyboard);
                return trouble == Trouble::Pulled ? Mishap::KeyboardPulled : Mishap::KeyboardRemoved;
            }
        return Mishap::None;
    }
    void AfterPull(unsigned uKeyboard, EmuKeyboard& keyboard) override
    {
        if (EmuHidOutstandingReads(keyboard.Hid()) != 0) // at once: the removal may wait for it
            SayApart(
                Said(Result::Hung,
                     fmt::format("a read of keyboard {} stays in the driver when it is pulled", uKeyboard)));
    }
    Mishap AtEvent(unsigned uKeyboard) override
    {
        return !m_bApart && IsChosen(Trouble::Gone, m_ledger.Events() - 1) &&
                       SendApart(Trouble::Gone, m_ledger.Events(), uKeyboard)
                   ? Mishap::ApplicationGone
                   : Mishap::None;
    }
    void BeforeEnd(EmuMachine& machine, const std::vector<EmuKeyboard*>& keyboards) override
    {
        if (!m_bApart)
            return;
        HostFailNth(nullptr, 0);
        HostAdvanceToUs(HostNowUs() + CalmUs);
        for (const std::string& read : HeldReads(keyboards))
            Say(Result::Hung, read);
        const std::string trouble = TryAnother(machine);
        if (!trouble.empty())
            Say(Result::NoKeyboard, trouble);
    }

private:
    bool IsChosen(Trouble trouble, unsigned uIndex) const
    {
        return uIndex % m_drill.kinds[static_cast<size_t>(trouble)].uEvery == 0;
    }

    // Before each step of the input.
    bool AtStep()
    {
        ++m_uSteps;
        if (!m_bApart)
            FailCalls(m_uSteps);
        return m_bApart && m_uSteps > m_uMishapStep + StepsAfter;
    }

    // A copy for each chosen call that the driver makes from here to the next step.
    void FailCalls(size_t cStep)
    {
        const std::vector<Undisturbed::Before>& steps = m_undisturbed.steps;
        const unsigned uBefore = cStep == 0 ? 0 : steps[cStep - 1].uCalls;
        const unsigned uEnd = steps[cStep].uCalls;
        for (unsigned uCall = uBefore; uCall < uEnd && !m_bApart; ++uCall)
            if (IsChosen(Trouble::Failed, uCall) &&
                SendApart(Trouble::Failed, uCall + 1, m_ledger.LatestKeyboard())) {
                HostListenToFailures([this](const std::string& call) {
                    SayApart(CallMark + std::to_string(m_uSteps ? m_ledger.Reports() + 1 : 0) + " " + call);
                });
                HostFailNth(nullptr, uCall - uBefore + 1);
            }
    }

    // True in the copy.
    bool SendApart(Trouble trouble, unsigned uNumber, unsigned uKeyboard)
    {
        std::optional<Apart> apart = GoApart(m_plan.uMostMs);
        if (!apart) {
            m_bApart = true;
            m_trouble = trouble;
            m_uMishapStep = m_uSteps;
            m_cFirst = m_ledger.FirstWaiting();
            m_cAtMishap = m_ledger.Presses().size();
            return true;
        }
        ++m_drill.kinds[static_cast<size_t>(trouble)].uTried;
        Note({trouble, uNumber, m_ledger.NowUs(), uKeyboard, Result::Lost, "", m_ledger.Reports()}, *apart);
        return false;
    }

    // What a copy found.
    void Note(Harm harm, const Apart& apart)
    {
        const auto add = [&](Result result, const std::string& text) {
            harm.result = result;
            harm.text = text;
            m_drill.harms.push_back(harm);
        };
        const size_t cBefore = m_drill.harms.size();
        for (const std::string& line : apart.said)
            if (line[0] == CallMark) {
                harm.uReport = static_cast<unsigned>(std::stoul(line.substr(1)));
                harm.call = line.substr(line.find(' ') + 1);
            } else
                add(static_cast<Result>(line[0] - 'a'), line.substr(1));
        if (apart.bHung)
            add(Result::Hung, fmt::format("it does not end within {:g} s", m_plan.uMostMs / 1000.0));
        else if (apart.iSignal)
            add(Result::Stopped, LineOf(apart.errors, "HOST STOP ", strsignal(apart.iSignal)));
        else
            for (const std::string& line : apart.errors)
                if (line.rfind("HOST LEAK ", 0) == 0)
                    add(Result::LeftBehind, line.substr(10));
        Drill::Kind& kind = m_drill.kinds[static_cast<size_t>(harm.trouble)];
        const auto from = m_drill.harms.begin() + static_cast<ptrdiff_t>(cBefore);
        kind.uLost += std::any_of(from, m_drill.harms.end(),
                                  [](const Harm& one) { return one.result == Result::Lost; });
        kind.uWrong += std::any_of(from, m_drill.harms.end(), IsWrong);
    }

    // In the copy.
    void Say(Result result, const std::string& text) { m_says.push_back(Said(result, text)); }
    static std::string Said(Result result, const std::string& text)
    {
        return static_cast<char>('a' + static_cast<int>(result)) + text;
    }

    [[noreturn]] void Conclude()
    {
        for (const std::string& key : m_ledger.Stuck(m_pulled))
            if (m_undisturbed.stuck.count(key) == 0)
                Say(Result::Stuck, key + " stays down");
        SayLosses();
        EndApart(m_says);
    }

    // What came in the undisturbed run and not in this one, as far as both went: presses at the system, events at an
    // application that is there.
    void SayLosses()
    {
        const Undisturbed::Before& end = m_undisturbed.steps[m_uSteps - 1];
        if (m_trouble == Trouble::Failed && m_ledger.Events() < end.uEvents)
            Say(Result::Lost,
                fmt::format("{} of {} events were not told", end.uEvents - m_ledger.Events(), end.uEvents));
        std::set<std::tuple<uint64_t, unsigned, std::string>> seen;
        const std::vector<SentPress>& own = m_ledger.Presses();
        for (size_t i = m_cFirst; i < own.size(); ++i)
            if (own[i].bSeen)
                seen.insert({own[i].ullUs, own[i].uKeyboard, own[i].key});
        const std::vector<SentPress>& all = m_undisturbed.presses;
        for (size_t i = m_cFirst; i < end.uPresses; ++i) {
            const bool bAfterPull = m_pulled.count(all[i].uKeyboard) && i >= m_cAtMishap;
            if (all[i].bSeen && !bAfterPull && seen.count({all[i].ullUs, all[i].uKeyboard, all[i].key}) == 0)
                Say(Result::Lost,
                    fmt::format("{} of keyboard {}, pressed at {}.{:06} s", all[i].key, all[i].uKeyboard,
                                all[i].ullUs / 1000000, all[i].ullUs % 1000000));
        }
    }

    Drill& m_drill;
    const Undisturbed& m_undisturbed;
    const DrillPlan m_plan;
    Ledger m_ledger;
    unsigned m_uSteps = 0;
    // In a copy: where it began, what it has to say.
    bool m_bApart = false;
    Trouble m_trouble = Trouble::Pulled;
    unsigned m_uMishapStep = 0;
    size_t m_cFirst = 0,
           m_cAtMishap = 0; // presses: the oldest that was not seen then; those that were sent then
    std::set<unsigned> m_pulled;
    std::vector<std::string> m_says;
};

unsigned EveryOf(unsigned uMoments, const DrillPlan& plan)
{
    return plan.uEvery ? plan.uEvery : std::max(1u, (uMoments + MostCopies - 1) / MostCopies);
}

} // namespace

bool IsWrong(const Harm& harm)
{
    return harm.result == Result::Lost ? harm.trouble == Trouble::Gone : harm.result != Result::Refused;
}

const char* NameOf(Trouble trouble)
{
    static const char* const names[] = {"pulled", "removed", "gone", "failed"};
    return names[static_cast<size_t>(trouble)];
}

const char* NameOf(Result result)
{
    static const char* const names[] = {"lost", "refused", "stuck",      "left_behind",
                                        "hung", "stopped", "no_keyboard"};
    return names[static_cast<size_t>(result)];
}

Drill RunDrill(const Script& script, const ReplaySetup& setup, const DrillPlan& plan)
{
    const Undisturbed undisturbed = RunUndisturbed(script, setup);
    Drill drill;
    drill.uReports = undisturbed.uReports;
    drill.uEvents = undisturbed.uEvents;
    const unsigned moments[] = {undisturbed.uReports, undisturbed.uReports, undisturbed.uEvents,
                                undisturbed.steps.back().uCalls};
    for (Trouble trouble : Troubles) {
        Drill::Kind& kind = drill.kinds[static_cast<size_t>(trouble)];
        kind.uMoments = moments[static_cast<size_t>(trouble)];
        const bool bTwice = trouble == Trouble::Pulled || trouble == Trouble::Removed;
        kind.uEvery = EveryOf(bTwice ? 2 * kind.uMoments : kind.uMoments, plan);
    }
    Walk(drill, undisturbed, plan).Run(script, setup);
    return drill;
}
