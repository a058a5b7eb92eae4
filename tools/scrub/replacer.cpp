// replacer.cpp - puts other keys, x and zeros in the place of what was typed, step by step.
#include "scrub.h"
#include "tools/replay/devices.h"
#include "tools/replay/keys.h"
#include "tools/common/text.h"

#include <algorithm>

namespace
{

constexpr unsigned Jaalaa = 3, Chic = 4; // KbdTypeOf
constexpr uint8_t KindMask = 0x60, StandardKind = 0, ClassKind = 0x20;
constexpr uint8_t RequestGetDescriptor = 6, RequestSetReport = 9, ReportTypeOutput = 2;
constexpr uint8_t Overrun = 1;

// True when no character of a text gives anything away.
bool IsPlain(uint16_t usUnit)
{
    return usUnit < 0x80 && !isalnum(static_cast<unsigned char>(usUnit));
}

bool IsOverrun(const Bytes& report)
{
    return report.size() == 8 && std::count(report.begin() + 2, report.end(), Overrun) == 6;
}

// Descriptors that tell what a device is, not what its owner wrote into it.
bool IsPlainDescriptor(uint8_t ucType)
{
    constexpr uint8_t Qualifier = 6, OtherSpeed = 7, Hid = 0x21, HidReport = 0x22;
    return ucType == DescriptorDevice || ucType == DescriptorConfiguration || ucType == Qualifier ||
           ucType == OtherSpeed || ucType == Hid || ucType == HidReport;
}

} // namespace

bool IsOpaque(const Bytes& report, unsigned uType, bool bMouse)
{
    if (bMouse)
        return true;
    if (uType == Jaalaa || uType == Chic)
        return report.empty() || report[0] == 0 || report[0] > 3 || report.size() > 9;
    return report.size() != 8 && report.size() != 3 && report.size() != 2;
}

void Replacer::Scrub(ScriptStep& step)
{
    step.kind == StepKind::Report ? ScrubReport(step) : ScrubControl(step);
}

void Replacer::ScrubReport(ScriptStep& step)
{
    const SessionKeyboard& keyboard = m_keyboards.at(step.uKeyboard);
    Bytes& report = step.data;
    if (IsOpaque(report, keyboard.uType, keyboard.script.bMouse))
        return Blank(report, 1);
    const size_t cFirst = FirstUsageOf(report, keyboard.uType);
    if (cFirst == report.size() || IsOverrun(report))
        return;
    Held& held = m_held[{step.uKeyboard, report.size(), report.size() == 8 ? uint8_t{0} : report[0]}];
    Held now;
    for (size_t i = cFirst; i < report.size(); ++i)
        if (auto before = held.find(report[i]); before != held.end())
            now.insert(*before);
    for (size_t i = cFirst; i < report.size(); ++i)
        if (int iClass = ClassOf(report[i], m_named); iClass >= 0) {
            if (!now.count(report[i]))
                now[report[i]] = Stand(iClass, held, now);
            report[i] = now[report[i]];
        }
    held = std::move(now);
}

// The first key of the class that stands for no other one, in this report or in the last. There is one: those that
// something stands for are keys of the class that are not named themselves.
uint8_t Replacer::Stand(int iClass, const Held& before, const Held& now)
{
    ++m_counts.ullPresses;
    const std::vector<uint8_t> keys = KeysOfClass(iClass, m_named);
    return *std::find_if(keys.begin(), keys.end(), [&](uint8_t ucKey) {
        auto stands = [&](const auto& pair) { return pair.second == ucKey; };
        return std::none_of(before.begin(), before.end(), stands) &&
               std::none_of(now.begin(), now.end(), stands);
    });
}

void Replacer::ScrubControl(ScriptStep& step)
{
    const uint8_t ucKind = step.setup[0] & KindMask, ucRequest = step.setup[1], ucType = step.setup[3];
    if (ucKind == ClassKind && ucRequest == RequestSetReport && ucType == ReportTypeOutput &&
        step.data.size() <= 2)
        return; // LEDs
    if (ucKind != StandardKind || ucRequest != RequestGetDescriptor)
        return Blank(step.data, 0);
    if (ucType != DescriptorString)
        return IsPlainDescriptor(ucType) ? void() : Blank(step.data, 2);
    if (step.setup[2] == 0)
        return; // the languages
    ++m_counts.ullStrings;
    for (size_t i = 2; i < step.data.size(); i += 2) {
        const bool bHalf = i + 1 == step.data.size();
        if (bHalf || !IsPlain(WordAt(step.data.data(), i))) {
            step.data[i] = 'x';
            if (!bHalf)
                step.data[i + 1] = 0;
        }
    }
}

std::string Replacer::ScrubText(const std::string& text)
{
    std::string scrubbed;
    for (unsigned char c : text)
        if (c < 0x80 || c >= 0xC0) // one x for a character
            scrubbed += IsPlain(c) ? static_cast<char>(c) : 'x';
    m_counts.ullStrings += !text.empty();
    return scrubbed;
}

void Replacer::Blank(Bytes& data, size_t cFrom)
{
    if (data.size() <= cFrom)
        return;
    m_counts.ullBlanked += std::any_of(data.begin() + static_cast<ptrdiff_t>(cFrom), data.end(),
                                       [](uint8_t uc) { return uc != 0; });
    std::fill(data.begin() + static_cast<ptrdiff_t>(cFrom), data.end(), 0);
}
