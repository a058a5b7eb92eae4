// verdict.cpp - for each hotkey the first reason why it fired at a report or did not.
//
// The reason is read off the steps that the driver traced: HotkeyState says what became of a hotkey, HotkeyLookedAt
// that a key of the report can mean it and whether it was armed, KeyPassed which key that was. What the driver traced
// nothing of it did not look at.
#include "tools/common/text.h"
#include "tools/keynames.h"
#include "why.h"

#include "sys/control/requests.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

// Bits that follow from others.
constexpr uint32_t EitherSide =
    MODIFIER_ANY_CONTROL | MODIFIER_ANY_SHIFT | MODIFIER_ANY_ALT | MODIFIER_ANY_GUI;

// Which modifiers stand between the mask and the word. A mask of prefixes only, or of none, has to be the word itself.
std::string MaskDifference(uint32_t ulMask, uint32_t ulWord)
{
    const bool bExact = (ulMask & ~uint32_t{MODIFIER_PREFIXES}) == 0;
    const uint32_t ulMissing = ulMask & ~ulWord;
    const uint32_t ulExtra = ulWord & ~ulMask & (bExact ? ~EitherSide : uint32_t{MODIFIER_PREFIXES});
    std::string words;
    if (ulMissing)
        words = fmt::format("{} {} missing", JoinedWith(ShownModifierMask(ulMissing), ", "),
                            ulMissing & (ulMissing - 1) ? "are" : "is");
    if (ulExtra)
        words += fmt::format("{}{} must not be there", words.empty() ? "" : ", ",
                             JoinedWith(ShownModifierMask(ulExtra), ", "));
    return words;
}

// What was traced of one hotkey at one report.
struct Course {
    bool bAnalysed = false;              // the report was compared with the hotkeys at all
    bool bLooked = false;                // it was looked at: a key can mean it
    bool bArmed = false;                 // likewise, at the first such key
    bool bKeyDown = false;               // which is in the report
    uint8_t ucKey = 0;                   // that key; 0: the report as a whole
    uint32_t ulWord = 0;                 // the modifier word then, or else at the report's begin
    bool bFired = false, bTaken = false; // it went down; its keys were taken out
    std::string firedWith, ended;        // the key; how it ended, in words
    std::string state;                   // the last one
    Bytes held;                          // of its keys, then
};

std::string EndWords(const WhyReport& report, const WhyHotkey& hotkey, const Traced& state,
                     const Traced* pKey, uint32_t ulWord)
{
    if (!pKey)
        return "ended: its keys or modifiers are gone";
    const auto ucKey = static_cast<uint8_t>(pKey->Number("key"));
    const std::string key = ShownKey(ucKey, report.uType);
    const bool bDown = pKey->Number("down");
    const bool bOwnKey = std::find(hotkey.keys.begin(), hotkey.keys.end(), ucKey) != hotkey.keys.end();
    if (state.Text("state") == "ended")
        return fmt::format("ended by {}, {}", key, bDown ? "another key" : "another key that was released");
    if (!bDown && bOwnKey)
        return fmt::format("ended: {} was released", key);
    return fmt::format("ended at {}: mask not matched: {}", key, MaskDifference(hotkey.ulModifiers, ulWord));
}

Course CourseOf(const WhyReport& report, const WhyHotkey& hotkey)
{
    Course course;
    const Traced* pKey = nullptr; // the key that is being passed
    uint32_t ulWord = 0;
    bool bItsTurn = false; // the steps that follow are about it
    for (const Traced& step : report.steps) {
        const bool bLook = step.Is("HotkeyLookedAt"), bState = step.Is("HotkeyState");
        if (step.Is("HotkeysArmed") || bLook)
            ulWord = step.Number("modifiers");
        if (step.Is("HotkeysArmed")) {
            course.bAnalysed = true;
            course.ulWord = ulWord;
        } else if (step.Is("KeyPassed")) {
            pKey = &step;
            bItsTurn = false;
        } else if (step.Is("KeysTaken")) {
            course.bTaken |= bItsTurn && step.Text("by") == "a hotkey";
        }
        if (!bLook && !bState)
            continue;
        bItsTurn = step.Number("index") == hotkey.ulIndex;
        if (!bItsTurn)
            continue;
        if (bLook && !course.bLooked) {
            course.bLooked = true;
            course.bArmed = step.Number("armed");
            course.bKeyDown = pKey && pKey->Number("down");
            course.ucKey = pKey ? static_cast<uint8_t>(pKey->Number("key")) : uint8_t{0};
            course.ulWord = ulWord;
        }
        if (bLook)
            continue;
        course.state = step.Text("state");
        course.held = step.BytesOf("held");
        if (course.state == "down") {
            course.bFired = true;
            course.firedWith =
                pKey ? " with " + ShownKey(static_cast<uint8_t>(pKey->Number("key")), report.uType) : "";
        } else if (course.state == "up" || course.state == "ended") {
            course.ended = EndWords(report, hotkey, step, pKey, ulWord);
        }
    }
    return course;
}

std::string MissingKeys(const WhyReport& report, const WhyHotkey& hotkey, const Bytes& held)
{
    std::vector<std::string> missing;
    for (size_t i = 0; i < held.size() && i < hotkey.keys.size(); ++i)
        if (held[i] == 0)
            missing.push_back(ShownKey(hotkey.keys[i], report.uType));
    return JoinedWith(missing, ", ");
}

std::string FiredWords(const WhyHotkey& hotkey, const Course& course)
{
    return fmt::format(
        "fired{}{}{}{}", course.firedWith,
        hotkey.ulModifiers ? ", armed by " + JoinedWith(ShownModifierMask(hotkey.ulModifiers), " + ")
                           : ", which asks for no modifier",
        course.bTaken ? "; its keys were swallowed" : "", course.ended.empty() ? "" : "; " + course.ended);
}

// The mode that took the report, "" when none did.
std::string ModeOf(const WhyReport& report)
{
    for (const Traced& step : report.steps)
        if (step.Is("ReportTaken"))
            return step.Text("mode");
    return "";
}

// Of a hotkey that neither came down nor up: what stood in its way.
std::pair<Reason, std::string> ObstacleOf(const WhyReport& report, const WhyHotkey& hotkey,
                                          const Course& course)
{
    const std::string mode = ModeOf(report);
    const std::string difference = MaskDifference(hotkey.ulModifiers, course.ulWord);
    if (course.state == "incomplete")
        return {Reason::KeyMissing, "key missing: " + MissingKeys(report, hotkey, course.held)};
    if (course.bLooked && !course.bArmed)
        return difference.empty()
                   ? std::pair(Reason::NotInRow,
                               std::string("not armed any more: a key that is none of its own stands before "
                                           "its keys in the report"))
                   : std::pair(Reason::MaskNotMatched, "mask not matched: " + difference);
    if (course.bLooked && course.ucKey && !course.bKeyDown)
        return {Reason::Released,
                fmt::format("{} was released; it was not down", ShownKey(course.ucKey, report.uType))};
    if (mode.empty())
        return {Reason::NoReport, report.sent
                                      ? "not looked at: too many keys at once, or a report of another kind"
                                      : "not looked at: the report is the driver's own"};
    if (mode != "hotkeys")
        return {Reason::OtherMode, mode == "none" ? "not looked at: report processing is off"
                                                  : "not looked at: the report is the " + mode + " mode's"};
    if (!course.bAnalysed)
        return {Reason::NoReport, "not looked at: the hotkeys know no such report"};
    if (hotkey.ulKeyCount == 0 && !difference.empty())
        return {Reason::MaskNotMatched, "mask not matched: " + difference};
    return {Reason::NoKey, course.bLooked ? "its keys are not all in the report"
                                          : "not looked at: none of its keys is in the report"};
}

Verdict VerdictOf(const WhyReport& report, const WhyHotkey& hotkey)
{
    const Course course = CourseOf(report, hotkey);
    const auto because = [&](Reason reason, const std::string& words) {
        return Verdict{hotkey.ulIndex, hotkey.ulId, reason, words};
    };
    if (course.bFired)
        return because(Reason::Fired, FiredWords(hotkey, course));
    if (!course.ended.empty())
        return because(Reason::Ended, course.ended);
    if (course.state == "stays")
        return because(Reason::Stays, "is down already");
    const auto [reason, words] = ObstacleOf(report, hotkey, course);
    return because(reason, words);
}

// A definition of which the driver made no hotkey.
Verdict VerdictOf(const WhySession& session, const WhyReport& report, const KeyDefinition& definition)
{
    for (const SessionLine& line : session.refused)
        if (line.uKeyboard == report.uKeyboard && line.ulId == definition.ulId)
            return {std::nullopt, definition.ulId, Reason::Refused,
                    fmt::format("the driver refused it: {} ({})", line.why, StatusText(line.ulStatus))};
    const bool bSale = definition.ulType == DEFINITION_POINT_OF_SALE;
    if (!bSale && definition.ulType != DEFINITION_DISCARD)
        return {std::nullopt, definition.ulId, Reason::NoHotkey, "the driver made no hotkey of it"};
    const std::string mode = ModeOf(report);
    if (mode == (bSale ? "sale" : "discard"))
        return {std::nullopt, definition.ulId, Reason::TookReport,
                bSale ? "took the report: its keys are told as scan codes"
                      : "took the report: the system sees none of its keys"};
    return {std::nullopt, definition.ulId, mode.empty() ? Reason::NoReport : Reason::OtherMode,
            "did not take the report"};
}

bool IsInList(const WhyReport& report, uint32_t ulId)
{
    return std::any_of(report.hotkeys.begin(), report.hotkeys.end(),
                       [=](const WhyHotkey& hotkey) { return hotkey.ulId == ulId; });
}

} // namespace

const char* NameOf(Reason reason)
{
    static const char* const names[] = {"fired",       "stays",     "ended",  "key_missing", "mask",
                                        "not_in_row",  "released",  "no_key", "other_mode",  "no_report",
                                        "took_report", "no_hotkey", "refused"};
    return names[static_cast<size_t>(reason)];
}

std::vector<Verdict> VerdictsOf(const WhySession& session, const WhyReport& report,
                                const ReplayConfig& config)
{
    std::vector<Verdict> verdicts;
    for (const WhyHotkey& hotkey : report.hotkeys)
        verdicts.push_back(VerdictOf(report, hotkey));
    for (const KeyDefinition& definition : config.definitions)
        if (!IsInList(report, definition.ulId))
            verdicts.push_back(VerdictOf(session, report, definition));
    return verdicts;
}
