// smallest.cpp - leaves out of a session what it does not need to show something.
//
//   steps     in halves, quarters, ... single ones: a part that is not needed goes (delta debugging)
//   bytes     of each report, one at a time, become zero
//   times     each gap becomes the shortest of 0, 1, 2, 4, ... ms that still shows it
//
// Each time the whole of the rest is played. What tells the kind of a keyboard stays.
#include "shrink.h"
#include "tools/common/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <utility>

namespace
{

constexpr uint64_t MillisecondUs = 1000;

// True for a descriptor that was asked for and the like: what a keyboard is, not what it did.
bool TellsKind(const ScriptStep& step)
{
    constexpr uint8_t KindMask = 0x60;
    return step.kind == StepKind::Control && (step.setup[0] & KindMask) == 0;
}

using Chosen = std::vector<uint32_t>; // places of steps, in their order

Script WithChosen(const Script& script, const Steps& steps, const Chosen& chosen)
{
    Script rest = script;
    rest.keyboards.clear();
    std::map<unsigned, uint32_t> longest; // report, by keyboard
    for (uint32_t ulStep : chosen)
        if (const ScriptStep& step = steps[ulStep]; step.kind == StepKind::Report)
            longest[step.uKeyboard] =
                std::max(longest[step.uKeyboard], static_cast<uint32_t>(step.data.size()));
    std::map<unsigned, unsigned> numbers;
    for (const auto& [uKeyboard, ulLongest] : longest) {
        if (ulLongest == 0)
            continue;
        numbers[uKeyboard] = static_cast<unsigned>(rest.keyboards.size());
        ScriptKeyboard& keyboard = rest.keyboards.emplace_back(script.keyboards[uKeyboard]);
        if (!script.bEnumerates)
            keyboard.ulReadBytes = ulLongest;
    }
    // A recording's times count from its first report.
    const uint64_t ullFirstUs = script.bEnumerates || chosen.empty() ? 0 : steps[chosen.front()].ullUs;
    rest.notes.clear(); // of what is not there any more
    rest.Open = [=, &steps]() -> StepReader {
        return [=, &steps, cAt = size_t(0)](ScriptStep& step) mutable {
            while (cAt < chosen.size()) {
                step = steps[chosen[cAt++]];
                if (auto number = numbers.find(step.uKeyboard); number != numbers.end()) {
                    step.uKeyboard = number->second;
                    step.ullUs -= ullFirstUs;
                    return true;
                }
            }
            return false;
        };
    };
    return rest;
}

Chosen AllOf(const Steps& steps)
{
    Chosen all(steps.size());
    std::iota(all.begin(), all.end(), 0u);
    return all;
}

class Shrinker
{
public:
    Shrinker(const Script& script, Steps&& steps, const ReplaySetup& setup, const Expression& expression)
        : m_script(script), m_setup(setup), m_expression(expression), m_steps(std::move(steps)),
          m_left(AllOf(m_steps))
    {
    }

    Steps Run()
    {
        LeaveOutSteps();
        for (uint32_t ulStep : m_left)
            if (m_steps[ulStep].kind == StepKind::Report)
                LeaveOutBytes(m_steps[ulStep]);
        for (size_t i = 0; i < m_left.size(); ++i)
            Shorten(i);
        Steps steps;
        for (uint32_t ulStep : m_left)
            steps.push_back(std::move(m_steps[ulStep]));
        return steps;
    }

private:
    bool Holds(const Chosen& chosen) const
    {
        return m_expression.HoldsFor(WithChosen(m_script, m_steps, chosen), m_setup);
    }

    void LeaveOutSteps()
    {
        for (size_t cPart = (m_left.size() + 1) / 2; cPart > 0;) {
            bool bLess = false;
            for (size_t cAt = 0; cAt < m_left.size();) {
                const size_t cEnd = std::min(cAt + cPart, m_left.size());
                Chosen fewer;
                for (size_t i = 0; i < m_left.size(); ++i)
                    if (i < cAt || i >= cEnd || TellsKind(m_steps[m_left[i]]))
                        fewer.push_back(m_left[i]);
                if (fewer.size() < m_left.size() && Holds(fewer)) {
                    m_left = std::move(fewer);
                    bLess = true;
                } else
                    cAt = cEnd;
            }
            if (cPart > 1)
                cPart /= 2;
            else if (!bLess)
                return;
        }
    }

    void LeaveOutBytes(ScriptStep& step)
    {
        for (uint8_t& ucByte : step.data) {
            const uint8_t ucBefore = std::exchange(ucByte, 0);
            if (ucBefore != 0 && !Holds(m_left))
                ucByte = ucBefore;
        }
    }

    // Two steps are never brought to one moment. A gap that has to stay becomes one of whole milliseconds, if it may.
    void Shorten(size_t cStep)
    {
        const uint64_t ullGap = TimeOf(cStep) - (cStep ? TimeOf(cStep - 1) : 0);
        std::vector<uint64_t> gaps;
        for (uint64_t ull = cStep ? MillisecondUs : 0; ull < ullGap; ull = ull ? 2 * ull : MillisecondUs)
            gaps.push_back(ull);
        gaps.push_back(ullGap / MillisecondUs * MillisecondUs);
        gaps.push_back((ullGap + MillisecondUs) / MillisecondUs * MillisecondUs);
        for (uint64_t ullNew : gaps) {
            if (ullNew == ullGap || (cStep && ullNew == 0))
                continue;
            Move(cStep, ullNew - ullGap);
            if (Holds(m_left))
                return;
            Move(cStep, ullGap - ullNew);
        }
    }

    uint64_t TimeOf(size_t cStep) const { return m_steps[m_left[cStep]].ullUs; }

    // Everything from there on, later, or earlier by a number that wraps.
    void Move(size_t cStep, uint64_t ullLater)
    {
        for (size_t i = cStep; i < m_left.size(); ++i)
            m_steps[m_left[i]].ullUs += ullLater;
    }

    const Script& m_script;
    const ReplaySetup& m_setup;
    const Expression& m_expression;
    Steps m_steps;
    Chosen m_left;
};

} // namespace

Steps StepsOf(const std::string& input, const Script& script, size_t cMost)
{
    Steps steps;
    StepReader read = script.Open();
    for (ScriptStep step; read(step);) {
        if (steps.size() == cMost)
            throw InputError(
                fmt::format("{}: it has more than {} reports and requests, which do not fit into memory "
                            "together; choose a part (--from, --to, --device)",
                            input, cMost));
        steps.push_back(std::move(step));
    }
    return steps;
}

Script WithSteps(const Script& script, const Steps& steps)
{
    return WithChosen(script, steps, AllOf(steps));
}

Steps Smallest(const Script& script, Steps&& steps, const ReplaySetup& setup, const Expression& expression)
{
    return Shrinker(script, std::move(steps), setup, expression).Run();
}
