// chords.cpp - reports and what people call them.
#include "chords.h"
#include "tools/common/nearest.h"
#include "tools/common/text.h"
#include "tools/keynames.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace
{

// The modifiers of a chord as they are shown, lowest bit first.
const char* const ShownChordModifiers[8] = {"ctrl", "shift", "alt", "win", "rctrl", "rshift", "ralt", "rwin"};

// The mask that definitions take, bit by bit, as the bits of a report.
struct MaskBits {
    uint32_t ulMask;
    uint8_t ucChord, ucEither;
};
const MaskBits ModifierMasks[] = {
    {0x2, 0x01, 0x01},   {0x4, 0x10, 0x10},   {0x8, 0x02, 0x02},    {0x10, 0x20, 0x20},
    {0x20, 0x04, 0x04},  {0x40, 0x40, 0x40},  {0x80, 0x08, 0x08},   {0x100, 0x80, 0x80},
    {0x400, 0x01, 0x11}, {0x800, 0x02, 0x22}, {0x1000, 0x04, 0x44}, {0x2000, 0x08, 0x88},
};

// The names between the plus signs. A name may end with one ("Keypad +"): nothing stands before the next.
std::vector<std::string> NamesOf(std::string_view chord)
{
    std::vector<std::string> names;
    for (size_t cAt = 0; cAt <= chord.size();) {
        size_t cEnd = std::min(chord.find('+', cAt), chord.size());
        std::string_view name = chord.substr(cAt, cEnd - cAt);
        if (name.empty() && !names.empty())
            names.back() += '+';
        else
            names.emplace_back(name);
        cAt = cEnd + 1;
    }
    return names;
}

std::vector<std::string> ChordNames()
{
    std::vector<std::string> names = KnownKeyNames(false);
    for (const std::string& name : ReportModifierNames())
        names.push_back(name);
    return names;
}

} // namespace

std::optional<uint8_t> ModifierBits(std::string_view name, bool bEither)
{
    std::optional<uint32_t> mask = FindModifierMask(name);
    for (const MaskBits& bits : ModifierMasks)
        if (mask == bits.ulMask)
            return bEither ? bits.ucEither : bits.ucChord;
    return std::nullopt;
}

std::vector<std::string> ReportModifierNames()
{
    std::vector<std::string> names;
    for (const std::string& name : KnownModifierNames())
        if (ModifierBits(name, false))
            names.push_back(name);
    return names;
}

std::optional<uint8_t> UsageOfKey(std::string_view name, std::string& complaint)
{
    const KeyName* pKey = FindKeyByName(name);
    if (pKey && !pKey->bConsumer)
        return static_cast<uint8_t>(pKey->usUsage);
    std::string_view digits = Trim(name);
    if (digits.size() > 2 && LowerCase(digits.substr(0, 2)) == "0x") {
        unsigned uUsage = 0;
        auto [pEnd, error] = std::from_chars(digits.data() + 2, digits.data() + digits.size(), uUsage, 16);
        if (error == std::errc() && pEnd == digits.data() + digits.size() && uUsage <= 0xFF)
            return static_cast<uint8_t>(uUsage);
    }
    if (pKey)
        complaint =
            fmt::format("'{}' is no key of the standard report, which macros are made of", Trim(name));
    else
        complaint = fmt::format("unknown key name '{}'{}", Trim(name), DidYouMean(Trim(name), ChordNames()));
    return std::nullopt;
}

std::optional<MacroReport> ReportOfChord(std::string_view chord, std::string& complaint)
{
    MacroReport report{};
    size_t cKeys = 0;
    for (const std::string& name : NamesOf(chord)) {
        if (std::optional<uint8_t> modifier = ModifierBits(name, false)) {
            report[0] |= *modifier;
            continue;
        }
        std::optional<uint8_t> usage = UsageOfKey(name, complaint);
        if (!usage)
            return std::nullopt;
        if (*usage >= 0xE0 && *usage <= 0xE7) {
            report[0] = static_cast<uint8_t>(report[0] | 1 << (*usage - 0xE0));
        } else if (cKeys == 6) {
            complaint = fmt::format("the chord '{}' has more than the six keys of a report", chord);
            return std::nullopt;
        } else {
            report[2 + cKeys++] = *usage;
        }
    }
    return report;
}

std::string ChordOfReport(const MacroReport& report)
{
    std::string chord;
    auto add = [&](const std::string& name) { chord += (chord.empty() ? "" : "+") + name; };
    for (int iBit = 0; iBit < 8; ++iBit)
        if (report[0] & 1 << iBit)
            add(ShownChordModifiers[iBit]);
    for (size_t i = 2; i < 8 && report[i] != 0; ++i) {
        std::string name = report[i] == 1 ? "0x01" : ShownKeyName(report[i]);
        add(name.size() == 1 ? LowerCase(name) : name);
    }
    std::string complaint;
    return !chord.empty() && ReportOfChord(chord, complaint) == report ? chord : "";
}
