// words.cpp - hotkeys, keys and the driver's steps as a person calls them.
#include "tools/check/check.h"
#include "tools/common/text.h"
#include "tools/keynames.h"
#include "why.h"

#include <fmt/format.h>

namespace
{

constexpr unsigned Normal = 1, Power = 2; // KbdTypeOf; of a power keyboard's usages each byte is a key

std::string Keys(const Bytes& keys, unsigned uType)
{
    std::vector<std::string> names;
    for (uint8_t ucKey : keys)
        names.push_back(ShownKey(ucKey, uType));
    return JoinedWith(names, ", ");
}

std::string StateWords(const Traced& step)
{
    const std::string state = step.Text("state");
    const uint32_t ulId = step.Number("id");
    if (state == "down" || state == "stays")
        return fmt::format("definition {} {}", ulId, state == "down" ? "goes down" : "stays down");
    if (state == "up")
        return fmt::format("definition {} comes up", ulId);
    if (state == "ended")
        return fmt::format("definition {} is ended by that key", ulId);
    return fmt::format("definition {} waits for more of its keys", ulId);
}

// Who takes a report.
std::string ModeWords(const std::string& mode)
{
    if (mode == "none")
        return "nobody looks at the report: report processing is off, or nothing is defined";
    return fmt::format("the report is for {}", mode == "hotkeys" ? "the hotkeys"
                                               : mode == "macro" ? "the macro mode"
                                               : mode == "sale"  ? "point of sale"
                                                                 : "the discard mode");
}

// True when the key of that step was found to be an armed hotkey's.
bool IsMeant(const Traced& step, const WhyReport& report)
{
    for (const Traced* p = &step; p > report.steps.data() && !p->Is("KeyPassed"); --p)
        if (p->Is("HotkeyLookedAt") && p->Number("armed"))
            return true;
    return false;
}

} // namespace

std::string JoinedWith(const std::vector<std::string>& words, const char* pBetween)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : pBetween) + word;
    return text;
}

std::string ShownKey(uint8_t ucKey, unsigned uType)
{
    return uType == Normal  ? ShownKeyName(ucKey)
           : uType == Power ? ShownMediaName(ucKey)
                            : fmt::format("0x{:02x}", ucKey);
}

std::string ShownDefinition(uint32_t ulId, const ReplayConfig& config)
{
    for (size_t i = 0; i < config.definitions.size(); ++i) {
        const KeyDefinition& definition = config.definitions[i];
        std::vector<uint32_t> codes;
        if (definition.ulId != ulId || !SplitScans(definition, codes))
            continue;
        std::vector<std::string> names = ShownModifierMask(definition.ulModifiers);
        for (uint32_t ulCode : codes)
            names.push_back(KeyNameOf(ulCode));
        const std::string& name = config.definitionNames[i];
        return JoinedWith(names, "+") + (name.empty() ? "" : " (" + name + ")");
    }
    return "";
}

std::string WordsOf(const Traced& step, const WhyReport& report)
{
    const uint8_t ucKey = static_cast<uint8_t>(step.Number("key"));
    const std::string key = ShownKey(ucKey, report.uType);
    if (step.Is("ReportTaken"))
        return ModeWords(step.Text("mode"));
    if (step.Is("HotkeysArmed")) {
        const uint32_t ulWord = step.Number("modifiers");
        return fmt::format("modifier word 0x{:x}{}", ulWord,
                           ulWord ? ": " + JoinedWith(ShownModifierMask(ulWord), ", ") : "");
    }
    if (step.Is("ModifierChanged"))
        return fmt::format("{} {}", JoinedWith(ShownModifierMask(step.Number("modifier")), ", "),
                           step.Number("down") ? "went down" : "came up");
    if (step.Is("KeyPassed"))
        return fmt::format("{} {}", key, step.Number("down") ? "is in the report" : "has left the report");
    if (step.Is("HotkeyLookedAt"))
        return fmt::format("it can mean definition {}, which is {}", step.Number("id"),
                           step.Number("armed") ? "armed" : "not armed");
    if (step.Is("HotkeyState"))
        return StateWords(step);
    if (step.Is("KeysTaken")) {
        const std::string by = step.Text("by");
        const Bytes keys = step.BytesOf("keys");
        return fmt::format("{} {} {}", Keys(keys, report.uType), keys.size() > 1 ? "are" : "is",
                           by == "nobody" ? "not given back: no keyboard of this kind gets keys back"
                                          : "taken out by " + by);
    }
    if (step.Is("ModifiersTaken") && step.Number("modifiers"))
        return fmt::format("taken out of the report: {}",
                           JoinedWith(ShownModifiers(static_cast<uint8_t>(step.Number("modifiers"))), ", "));
    if (step.Is("KeyHeldBack"))
        return key + (IsMeant(step, report)
                          ? " is held back"
                          : " is held back, as the first key of no hotkey after a hotkey's key, at "
                            "whichever keyboard that was");
    if (step.Is("KeyGiven"))
        return key + " is given to the system";
    if (step.Is("ReadAnswered"))
        return fmt::format("the read is answered above the keyboard with {}: {}", step.Text("with"),
                           HexOf(step.BytesOf("report"), " "));
    return step.Line();
}
