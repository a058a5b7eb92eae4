// named.cpp - the keys that a configuration names.
#include "scrub.h"
#include "tools/check/check.h"
#include "tools/keynames.h"
#include "tools/macro/file.h"

namespace
{

void NameScan(KeySet& named, uint32_t ulScanCode)
{
    for (const KeyName& key : AllKeyNames())
        if (!key.bConsumer && key.MakeCode() == ulScanCode && ulScanCode != 0)
            named[static_cast<uint8_t>(key.usUsage)] = true;
}

} // namespace

KeySet KeysNamedIn(const ReplayConfig& config)
{
    KeySet named{};
    for (const KeyDefinition& definition : config.definitions) {
        std::vector<uint32_t> codes;
        SplitScans(definition, codes);
        for (uint32_t ulCode : codes)
            NameScan(named, ulCode);
    }
    for (const PrefixSetting& prefix : Prefixes)
        NameScan(named, NumberSetting(config, prefix.pSetting).value_or(prefix.ulDefault));
    if (auto hotkey = NumberSetting(config, "KorvexHotkey"))
        named[static_cast<uint8_t>(*hotkey)] = named[static_cast<uint8_t>(*hotkey >> 8)] = true;
    if (!config.macroFile.empty()) {
        const std::string& file = config.compiledMacros ? config.compiledMacros->Path() : config.macroFile;
        for (const MacroEntry& macro : ReadMacroFile(config.macroFile, ReadWholeFile(file)).macros)
            if (!macro.IsModifiers())
                named[macro.Low()] = true;
    }
    return named;
}
