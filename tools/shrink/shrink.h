// shrink.h - the smallest session that still shows something.
//
//   Expression        what it has to show, over the lines of `tvusb replay --json` and the findings of `tvusb audit`
//   Smallest(script)  leaves out what it can and asks the expression each time
//   StoryOf(script)   the rest as a story of tests/stories
#pragma once

#include "tools/replay/replay.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// "event id=7 value=1 and not event id=7 value=0": conditions that all hold, each that a line with these members comes,
// or, behind "not", that none comes. A line is of one of the kinds of docs/json.md, or one of audit's findings.
class Expression
{
public:
    // Fails (InputError): a kind that is none, a member without a value.
    explicit Expression(const std::string& text);
    // Plays the script. Fails: as RunReplay; (InputError) such a line has no such member.
    bool HoldsFor(const Script& script, const ReplaySetup& setup) const;
    // When it was sure that it holds; the latest time there is when only the end could tell.
    uint64_t DecidedAt(const Script& script, const ReplaySetup& setup) const;
    const std::string& Text() const { return m_text; }

private:
    struct Condition {
        bool bNot = false, bFinding = false;
        std::string kind;
        std::vector<std::pair<std::string, std::string>> members; // and their values, as JSON has them
        bool Fits(const std::string& line) const;
    };
    class Watch;
    Watch Play(const Script& script, const ReplaySetup& setup) const;

    std::string m_text;
    std::vector<Condition> m_conditions;
};

using Steps = std::vector<ScriptStep>;
constexpr size_t MostSteps = 1000000; // 150 MB

// All steps of the script. Fails (InputError): more than that.
Steps StepsOf(const std::string& input, const Script& script, size_t cMost = MostSteps);

// The script with these steps instead of its own, which it refers to: keyboards without a report fall out, as they do when
// it is read again.
Script WithSteps(const Script& script, const Steps& steps);

// The fewest of the steps, with the fewest bytes in their reports and the shortest times between, for which the expression
// holds: no more of them can be left out. It holds for the whole. What tells the kind of a keyboard stays.
Steps Smallest(const Script& script, Steps&& steps, const ReplaySetup& setup, const Expression& expression);

// What a story has no words for.
struct NoStory : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Up to a time. Fails (NoStory).
std::string StoryOf(const std::string& title, const Script& script, const ReplaySetup& setup,
                    uint64_t ullUntilUs);
