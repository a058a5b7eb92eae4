// smallest.cpp - leaves out of a session what it does not need to show something.
//
//   steps     in halves, quarters, ... single ones: a part that is not needed goes (delta debugging)
//   bytes     of each report, one at a time, become zero
//   times     each gap becomes the shortest of 0, 1, 2, 4, ... ms that still shows it
//
// Each time the whole of the rest is played. What tells the kind of a keyboard stays.
#include "shrink.h"

#include <algorithm>
#include <map>
#include <memory>

namespace
{

constexpr uint64_t MillisecondUs = 1000;

// True for a descriptor that was asked for and the like: what a keyboard is, not what it did.
bool TellsKind(const ScriptStep& step)
{
    constexpr uint8_t KindMask = 0x60;
    return step.kind == StepKind::Control && (step.setup[0] & KindMask) == 0;
}

class Shrinker
{
public:
    Shrinker(const Script& script, const ReplaySetup& setup, const Expression& expression)
        : m_script(script), m_setup(setup), m_expression(expression), m_steps(script.AllSteps())
    {
    }

    Steps Run()
    {
        LeaveOutSteps();
        for (size_t i = 0; i < m_steps.size(); ++i)
            if (m_steps[i].kind == StepKind::Report)
                LeaveOutBytes(i);
        for (size_t i = 0; i < m_steps.size(); ++i)
            Shorten(i);
        return std::move(m_steps);
    }

private:
    bool Holds(const Steps& steps) const
    {
        return m_expression.HoldsFor(WithSteps(m_script, steps), m_setup);
    }

    void LeaveOutSteps()
    {
        for (size_t cPart = (m_steps.size() + 1) / 2; cPart > 0;) {
            bool bLess = false;
            for (size_t cAt = 0; cAt < m_steps.size();) {
                const size_t cEnd = std::min(cAt + cPart, m_steps.size());
                Steps fewer;
                for (size_t i = 0; i < m_steps.size(); ++i)
                    if (i < cAt || i >= cEnd || TellsKind(m_steps[i]))
                        fewer.push_back(m_steps[i]);
                if (fewer.size() < m_steps.size() && Holds(fewer)) {
                    m_steps = std::move(fewer);
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

    void LeaveOutBytes(size_t cStep)
    {
        for (size_t i = 0; i < m_steps[cStep].data.size(); ++i) {
            uint8_t ucBefore = std::exchange(m_steps[cStep].data[i], 0);
            if (ucBefore != 0 && !Holds(m_steps))
                m_steps[cStep].data[i] = ucBefore;
        }
    }

    // Two steps are never brought to one moment. A gap that has to stay becomes one of whole milliseconds, if it may.
    void Shorten(size_t cStep)
    {
        const uint64_t ullGap = m_steps[cStep].ullUs - (cStep ? m_steps[cStep - 1].ullUs : 0);
        std::vector<uint64_t> gaps;
        for (uint64_t ull = cStep ? MillisecondUs : 0; ull < ullGap; ull = ull ? 2 * ull : MillisecondUs)
            gaps.push_back(ull);
        gaps.push_back(ullGap / MillisecondUs * MillisecondUs);
        gaps.push_back((ullGap + MillisecondUs) / MillisecondUs * MillisecondUs);
        for (uint64_t ullNew : gaps) {
            if (ullNew == ullGap || (cStep && ullNew == 0))
                continue;
            Steps moved = m_steps;
            for (size_t i = cStep; i < moved.size(); ++i)
                moved[i].ullUs = moved[i].ullUs - ullGap + ullNew;
            if (!Holds(moved))
                continue;
            m_steps = std::move(moved);
            return;
        }
    }

    const Script& m_script;
    const ReplaySetup& m_setup;
    const Expression& m_expression;
    Steps m_steps;
};

} // namespace

Script WithSteps(const Script& script, const Steps& steps)
{
    Script rest = script;
    rest.keyboards.clear();
    std::map<unsigned, unsigned> numbers;
    for (unsigned k = 0; k < script.keyboards.size(); ++k) {
        uint32_t ulLongest = 0;
        for (const ScriptStep& step : steps)
            if (step.kind == StepKind::Report && step.uKeyboard == k)
                ulLongest = std::max(ulLongest, static_cast<uint32_t>(step.data.size()));
        if (ulLongest == 0)
            continue;
        numbers[k] = static_cast<unsigned>(rest.keyboards.size());
        ScriptKeyboard& keyboard = rest.keyboards.emplace_back(script.keyboards[k]);
        if (!script.bEnumerates)
            keyboard.ulReadBytes = ulLongest;
    }
    auto left = std::make_shared<Steps>();
    for (const ScriptStep& step : steps)
        if (auto number = numbers.find(step.uKeyboard); number != numbers.end()) {
            left->push_back(step);
            left->back().uKeyboard = number->second;
            if (!script.bEnumerates) // a recording's times count from its first report
                left->back().ullUs -= steps.front().ullUs;
        }
    rest.notes.clear(); // of what is not there any more
    rest.Open = [left]() -> StepReader {
        return [left, cAt = size_t(0)](ScriptStep& step) mutable {
            bool bMore = cAt < left->size();
            if (bMore)
                step = (*left)[cAt++];
            return bMore;
        };
    };
    return rest;
}

Steps Smallest(const Script& script, const ReplaySetup& setup, const Expression& expression)
{
    return Shrinker(script, setup, expression).Run();
}
