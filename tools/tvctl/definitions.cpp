// definitions.cpp - definitions and their names.
#include "definitions.h"
#include "tools/common/failure.h"
#include "tools/common/nearest.h"
#include "tools/common/text.h"
#include "tools/keynames.h"
#include "tools/replay/config.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

struct ModifierBit {
    uint32_t ulBit;
    const char* pName;
};
const ModifierBit ModifierBits[] = {
    {MODIFIER_ANY_CONTROL, "Ctrl"},
    {MODIFIER_LEFT_CONTROL, "LCtrl"},
    {MODIFIER_RIGHT_CONTROL, "RCtrl"},
    {MODIFIER_ANY_SHIFT, "Shift"},
    {MODIFIER_LEFT_SHIFT, "LShift"},
    {MODIFIER_RIGHT_SHIFT, "RShift"},
    {MODIFIER_ANY_ALT, "Alt"},
    {MODIFIER_LEFT_ALT, "LAlt"},
    {MODIFIER_RIGHT_ALT, "RAlt"},
    {MODIFIER_ANY_GUI, "Win"},
    {MODIFIER_LEFT_GUI, "LWin"},
    {MODIFIER_RIGHT_GUI, "RWin"},
    {MODIFIER_CONTEXT_KEY, "Menu"},
    {MODIFIER_POSKEY_PREFIX, "Pos"},
    {MODIFIER_PREFIX1, "Prefix1"},
    {MODIFIER_PREFIX2, "Prefix2"},
    {MODIFIER_FN, "Fn"},
};

// The key whose make code the bytes begin with, the longest one; null for none.
const KeyName* FirstKey(const std::vector<uint8_t>& scans, size_t cAt, size_t* pcBytes)
{
    const KeyName* pFound = nullptr;
    *pcBytes = 0;
    for (const KeyName& key : AllKeyNames()) {
        std::vector<uint8_t> code = key.MakeCode() ? MakeCodeBytes(key.MakeCode()) : std::vector<uint8_t>();
        bool bThere =
            code.size() <= scans.size() - cAt && std::equal(code.begin(), code.end(), scans.begin() + cAt);
        if (bThere && code.size() > *pcBytes) {
            pFound = &key;
            *pcBytes = code.size();
        }
    }
    return pFound;
}

std::string FirstName(const KeyName& key)
{
    std::string_view names = key.pNames;
    return std::string(names.substr(0, names.find('|')));
}

// The words between the plus signs; a plus sign that ends the text or follows another is none.
std::vector<std::string> WordsOf(const std::string& chord)
{
    std::vector<std::string> words(1);
    for (char c : chord) {
        if (c == '+' && !words.back().empty())
            words.emplace_back();
        else
            words.back() += c;
    }
    return words;
}

} // namespace

std::string KeysOf(const KeyDefinition& definition)
{
    std::string keys;
    auto add = [&keys](const std::string& name) { keys += (keys.empty() ? "" : "+") + name; };
    for (const ModifierBit& modifier : ModifierBits)
        if (definition.ulModifiers & modifier.ulBit)
            add(modifier.pName);
    size_t cBytes = std::min<size_t>(definition.usScanCount, sizeof(definition.ucScans));
    std::vector<uint8_t> scans(definition.ucScans, definition.ucScans + cBytes);
    for (size_t cAt = 0, cKey; cAt < scans.size(); cAt += cKey) {
        const KeyName* pKey = FirstKey(scans, cAt, &cKey);
        add(pKey ? FirstName(*pKey) : fmt::format("0x{:02X}", scans[cAt]));
        cKey = std::max<size_t>(cKey, 1);
    }
    return keys;
}

Configuration ReadConfiguration(const std::string& file)
{
    ReplayConfig config = ReadConfig(file);
    Configuration read;
    read.bReportProcessing = config.bReportProcessing;
    read.cSettings = config.settings.size();
    for (size_t i = 0; i < config.definitions.size(); i++) {
        std::string name = config.definitionNames[i];
        read.definitions.push_back(
            {config.definitions[i], name.empty() ? KeysOf(config.definitions[i]) : name});
    }
    return read;
}

KeyDefinition ReadChord(const std::string& words, uint32_t ulId)
{
    uint32_t ulModifiers = 0;
    std::vector<uint8_t> scans;
    for (const std::string& word : WordsOf(words)) {
        std::optional<uint32_t> modifier = FindModifierMask(word);
        const KeyName* pKey = modifier ? nullptr : FindKeyByName(word);
        if (!modifier && !pKey) {
            std::vector<std::string> names = KnownKeyNames(true);
            std::vector<std::string> modifiers = KnownModifierNames();
            names.insert(names.end(), modifiers.begin(), modifiers.end());
            throw InputError(fmt::format("no key is '{}'{}", word, DidYouMean(word, names)));
        }
        if (pKey && pKey->MakeCode() == 0)
            throw InputError(fmt::format("the key '{}' has no PS/2 scan code", word));
        ulModifiers |= modifier.value_or(0);
        for (uint8_t ucByte : pKey ? MakeCodeBytes(pKey->MakeCode()) : std::vector<uint8_t>())
            scans.push_back(ucByte);
    }
    if (scans.size() > sizeof(KeyDefinition::ucScans))
        throw InputError(fmt::format("'{}' has {} bytes of scan codes, and a definition takes {}", words,
                                     scans.size(), sizeof(KeyDefinition::ucScans)));
    return tvusb::MakeHotkey(ulId, ulModifiers, scans, false);
}

std::string NameOf(const std::vector<NamedDefinition>& definitions, uint32_t ulId)
{
    for (const NamedDefinition& named : definitions)
        if (named.definition.ulId == ulId)
            return named.name;
    return "";
}
