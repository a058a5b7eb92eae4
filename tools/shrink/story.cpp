// story.cpp - a session as a story: settings, macros, keyboards and definitions, then moment by moment what was done and
// what came of it, as the replay tells it. docs/stories.md has the words.
//
//   moment    what timers brought:   wait Nms | events    answer -> bytes ...
//             what a step brought:   report BYTES -> BYTES | events    answer -> bytes ...    shows LEDS
#include "shrink.h"
#include "tools/common/files.h"
#include "tools/common/text.h"
#include "tools/macro/file.h"
#include "tools/replay/player.h"
#include "tools/session/session.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace
{

constexpr uint64_t MillisecondUs = 1000;
constexpr std::array<uint8_t, 8> SetLeds = {0x21, 9, 0, 2, 0, 0, 1, 0};

std::string Upper(const Bytes& bytes)
{
    std::string text = HexOf(bytes, " ");
    std::transform(text.begin(), text.end(), text.begin(), toupper);
    return text;
}

std::string ModifiersOf(uint32_t ulMask)
{
    static const std::pair<const char*, uint32_t> names[] = {
        {"lctrl", MODIFIER_LEFT_CONTROL},
        {"rctrl", MODIFIER_RIGHT_CONTROL},
        {"lshift", MODIFIER_LEFT_SHIFT},
        {"rshift", MODIFIER_RIGHT_SHIFT},
        {"lalt", MODIFIER_LEFT_ALT},
        {"ralt", MODIFIER_RIGHT_ALT},
        {"lwin", MODIFIER_LEFT_GUI},
        {"rwin", MODIFIER_RIGHT_GUI},
        {"context", MODIFIER_CONTEXT_KEY},
        {"ctrl", MODIFIER_ANY_CONTROL},
        {"shift", MODIFIER_ANY_SHIFT},
        {"alt", MODIFIER_ANY_ALT},
        {"win", MODIFIER_ANY_GUI},
        {"poskey", MODIFIER_POSKEY_PREFIX},
        {"prefix1", MODIFIER_PREFIX1},
        {"prefix2", MODIFIER_PREFIX2},
        {"fn", MODIFIER_FN},
    };
    std::string text;
    for (const auto& [pName, ulBit] : names)
        if (ulMask & ulBit) {
            text += (text.empty() ? "" : "+") + std::string(pName);
            ulMask &= ~ulBit;
        }
    if (ulMask)
        throw NoStory(fmt::format("it has no name for the modifier bits 0x{:x}", ulMask));
    return text.empty() ? "-" : text;
}

std::string WordsOf(const KeyDefinition& definition)
{
    const std::string swallow = definition.ulSwallow ? " swallow" : "";
    if (definition.ulSwallow > 1)
        throw NoStory(
            fmt::format("definition {} has a swallow of {}", definition.ulId, definition.ulSwallow));
    if (definition.ulType == DEFINITION_HOTKEY && definition.usScanCount <= sizeof(definition.ucScans)) {
        const Bytes scans(definition.ucScans, definition.ucScans + definition.usScanCount);
        return fmt::format("hotkey {} {}{}{}{}", definition.ulId, ModifiersOf(definition.ulModifiers),
                           scans.empty() ? "" : " ", Upper(scans), swallow);
    }
    if (definition.ulModifiers || definition.usScanCount)
        throw NoStory(
            fmt::format("definition {} has modifiers or keys that it cannot write", definition.ulId));
    return fmt::format("define {} {}{}", definition.ulId, definition.ulType, swallow);
}

std::string WordsOf(const NotifyRecord& record)
{
    const std::string byte = fmt::format("{:02X}", record.ulValue & 0xFF);
    const std::string what = record.ucSource != NOTIFY_SOURCE_HOTKEY ? "key " + byte
                             : record.ulValue == 1                   ? "down"
                             : record.ulValue == 0                   ? "up"
                                                                     : "repeat " + byte;
    return fmt::format("{} {}{}", what, record.ulId, record.ulEscAbort ? " abort" : "");
}

std::string WordsOf(const MacroRecord& record)
{
    if (record.usType == MACRO_RECORD_MODE)
        return fmt::format("mode {}", record.ucMode);
    return "captured " + Upper(Bytes(record.ucReport, record.ucReport + record.ucLength));
}

class StoryWriter
{
public:
    StoryWriter(const Script& script, const ReplaySetup& setup, uint64_t ullUntilUs)
        : m_script(script), m_setup(setup), m_ullUntilUs(ullUntilUs)
    {
        // Which lines came by which step: those told before the reader was asked for the one after it.
        Script watched = script;
        watched.Open = [this, &script]() -> StepReader {
            return [this, read = script.Open()](ScriptStep& step) {
                m_parts.push_back({});
                bool bMore = read(step);
                if (bMore)
                    m_parts.back().step = step;
                return bMore;
            };
        };
        m_parts.push_back({});
        WalkSession(m_session, watched, setup,
                    [this](SessionLine&& line) { m_parts.back().lines.push_back(std::move(line)); });
    }

    std::string Write(const std::string& title)
    {
        Line("# The smallest session that still shows it; made by tvusb shrink.");
        Line("story " + title);
        Settings();
        for (unsigned k = 0; k < m_script.keyboards.size(); ++k)
            Keyboard(k);
        for (Part& part : m_parts)
            Play(part);
        return m_text;
    }

private:
    struct Part {
        std::optional<ScriptStep> step;
        std::vector<SessionLine> lines;
    };
    using Lines = std::vector<SessionLine>;

    void Line(const std::string& text) { m_text += text + "\n"; }

    void Settings()
    {
        for (const auto& [name, value] : m_setup.config.settings)
            if (const auto* pNumber = std::get_if<uint32_t>(&value); pNumber && name.substr(0, 3) != "Log")
                Line(fmt::format("setting {} 0x{:08X}", name, *pNumber));
        const ReplayConfig& config = m_setup.config;
        if (config.macroFile.empty())
            return;
        const std::string& file = config.compiledMacros ? config.compiledMacros->Path() : config.macroFile;
        MacroFile macros = ReadMacroFile(config.macroFile, ReadWholeFile(file));
        if (!macros.tail.empty())
            throw NoStory("its macro file ends with half a macro");
        if (macros.macros.empty())
            Line("macrofile empty");
        for (const MacroEntry& macro : macros.macros) {
            std::string reports;
            for (const MacroAction& action : macro.actions)
                reports +=
                    (reports.empty() ? " " : ", ") + Upper(Bytes(action.report.begin(), action.report.end()));
            if (!macro.rest.empty())
                throw NoStory("its macro file has a macro with half a report");
            Line(fmt::format("macro {:X}{}", macro.usKey, reports));
        }
    }

    void Keyboard(unsigned uKeyboard)
    {
        Line("keyboard " + KindOf(uKeyboard));
        m_uCurrent = uKeyboard;
        if (!m_setup.config.bReportProcessing)
            Line("processing off");
        size_t cDefinition = 0;
        for (const Part& part : m_parts)
            for (const SessionLine& line : part.lines)
                if (line.kind == LineKind::Definition && line.uKeyboard == uKeyboard)
                    Line((line.ulStatus ? "refused " : "") +
                         WordsOf(m_setup.config.definitions.at(cDefinition++)));
    }

    // A kind that the driver takes for the same, with room for the reports.
    std::string KindOf(unsigned uKeyboard)
    {
        m_session.keyboards.resize(m_script.keyboards.size());
        size_t cLongest = 0;
        for (const Part& part : m_parts)
            if (part.step && part.step->kind == StepKind::Report && part.step->uKeyboard == uKeyboard)
                cLongest = std::max(cLongest, part.step->data.size());
        for (const EmuKind& kind : EmuMachine::Kinds())
            if (kind.ulKbdType == m_session.keyboards[uKeyboard].uType &&
                PacketBytesOf(*kind.pDescriptors) >= cLongest)
                return kind.pName;
        throw NoStory(fmt::format("it has no keyboard like keyboard {}, which sends reports of {} bytes",
                                  uKeyboard, cLongest));
    }

    // Time by time: the lines before the step's own report were brought by timers.
    void Play(Part& part)
    {
        Lines& lines = part.lines;
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const SessionLine& line) {
                                       return line.kind == LineKind::Keyboard ||
                                              line.kind == LineKind::Definition;
                                   }),
                    lines.end());
        auto at = lines.begin();
        const auto own = part.step
                             ? std::find_if(at, lines.end(),
                                            [&](const SessionLine& line) { return IsOf(line, *part.step); })
                             : lines.end();
        auto beforeStep = [&](auto line) {
            return line != lines.end() && line < own && (!part.step || line->ullUs <= part.step->ullUs);
        };
        while (beforeStep(at)) {
            auto next =
                std::find_if(at, own, [&](const SessionLine& line) { return line.ullUs != at->ullUs; });
            Moment(at->ullUs, nullptr, {at, next});
            at = next;
        }
        if (part.step && (part.step->kind == StepKind::Report || at != lines.end()))
            Moment(part.step->ullUs, &*part.step, {at, lines.end()});
    }

    static bool IsOf(const SessionLine& line, const ScriptStep& step)
    {
        if (line.ullUs != step.ullUs || line.uKeyboard != step.uKeyboard)
            return false;
        return step.kind == StepKind::Report ? line.kind == LineKind::Report && line.sent == step.data
                                             : line.kind == LineKind::Led;
    }

    void Moment(uint64_t ullUs, const ScriptStep* pStep, const Lines& lines)
    {
        if (ullUs > m_ullUntilUs)
            return;
        unsigned uKeyboard = pStep ? pStep->uKeyboard : m_uCurrent;
        for (const SessionLine& line : lines)
            if (line.kind == LineKind::Report || line.kind == LineKind::Event) {
                if (pStep && line.uKeyboard != uKeyboard)
                    throw NoStory("two keyboards have something at one moment");
                uKeyboard = line.uKeyboard;
            }
        if (ullUs % MillisecondUs)
            throw NoStory(fmt::format("its times are whole milliseconds, and {} us is none", ullUs));
        On(uKeyboard);
        const std::string wait = fmt::format("wait {}ms", (ullUs - m_ullUs) / MillisecondUs);
        if (pStep && ullUs != m_ullUs)
            Line(wait);
        m_ullUs = ullUs;

        auto reports = [&] {
            std::vector<Bytes> seen;
            for (const SessionLine& line : lines)
                if (line.kind == LineKind::Report)
                    seen.push_back(line.seen);
            return seen;
        }();
        std::string deed = pStep ? DeedOf(*pStep) : wait;
        if (pStep && pStep->kind == StepKind::Report && !reports.empty()) {
            deed += " -> " + Upper(reports.front());
            reports.erase(reports.begin());
        }
        const std::string events = EventsOf(lines);
        Line(deed + (events.empty() ? "" : " | " + events));
        for (const Bytes& report : reports)
            Line("answer -> " + Upper(report));
        Shows(lines);
    }

    static std::string DeedOf(const ScriptStep& step)
    {
        if (step.kind == StepKind::Report)
            return "report " + Upper(step.data);
        if (step.setup != SetLeds || step.data.size() != 1)
            throw NoStory("it sets LEDs by the plain request only");
        return fmt::format("led {:02X} -> {:02X}", step.data[0], LedFlagsOf(step.data[0]));
    }

    // Records of keyboards come before those of the macro mode.
    static std::string EventsOf(const Lines& lines)
    {
        std::string events;
        for (LineKind kind : {LineKind::Event, LineKind::Macro})
            for (const SessionLine& line : lines)
                if (line.kind == kind)
                    events += (events.empty() ? "" : ", ") +
                              (kind == LineKind::Event ? WordsOf(line.record) : WordsOf(line.macro));
        return events;
    }

    void Shows(const Lines& lines)
    {
        std::map<unsigned, Bytes> leds;
        for (const SessionLine& line : lines)
            if (line.kind == LineKind::Led)
                leds[line.uKeyboard].push_back(line.ucLeds);
        for (const auto& [uKeyboard, shown] : leds) {
            On(uKeyboard);
            Line("shows " + Upper(shown));
        }
    }

    void On(unsigned uKeyboard)
    {
        if (m_uCurrent != uKeyboard)
            Line(fmt::format("on {}", uKeyboard));
        m_uCurrent = uKeyboard;
    }

    const Script& m_script;
    const ReplaySetup& m_setup;
    const uint64_t m_ullUntilUs;
    Session m_session;
    std::vector<Part> m_parts; // one before the first step, then one for each
    std::string m_text;
    unsigned m_uCurrent = 0;
    uint64_t m_ullUs = 0;
};

} // namespace

std::string StoryOf(const std::string& title, const Script& script, const ReplaySetup& setup,
                    uint64_t ullUntilUs)
{
    return StoryWriter(script, setup, ullUntilUs).Write(title);
}
