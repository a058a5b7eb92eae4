// definition.cpp - one definition on one kind of keyboard: does the driver take it, can it fire?
//
//   scan bytes ──► scan codes ──► rows of the key table ──► the bytes that this kind's reports carry
#include "check.h"

#include "sys/report/keytable.h"
#include "tools/common/text.h"
#include "tools/keynames.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

constexpr size_t MostKeyBytes = 32;
constexpr uint32_t ContextKeyBit = 0x200, SingleBits = 0x1FE;
constexpr uint32_t KnownModifierBits = 0xB8003FFE;
constexpr uint16_t FnUsage = 0xA5;

struct PrefixSetting {
    const char* pModifier;
    const char* pSetting;
    uint32_t ulBit, ulDefault;
};
const PrefixSetting Prefixes[] = {
    {"prefix1", "Prefix1", 0x10000000, 0x7D},
    {"prefix2", "Prefix2", 0x20000000, 0x7B},
    {"pos", "PosKeyPrefix", 0x08000000, 0x79},
};

const KeyTableRow* RowOf(uint32_t ulScanCode)
{
    auto pRow = std::find_if(std::begin(KeyTable), std::end(KeyTable),
                             [=](const KeyTableRow& row) { return row.ulScanCode == ulScanCode; });
    return pRow == std::end(KeyTable) ? nullptr : pRow;
}

bool IsConsumer(const KeyTableRow* pRow)
{
    return pRow - KeyTable >= 255;
}

std::string NameOf(uint32_t ulScanCode)
{
    for (const KeyName& key : AllKeyNames())
        if (key.ulMakeCode == ulScanCode) {
            std::string_view names = key.pNames;
            return std::string(names.substr(0, names.find('|')));
        }
    return "0x" + HexOf(MakeCodeBytes(ulScanCode));
}

// The definition's keys as scan codes, cut where the driver cuts them. False: a prefix without its bytes.
bool SplitScans(const KeyDefinition& definition, std::vector<uint32_t>& codes)
{
    const uint8_t* pScans = definition.ucScans;
    size_t cScans = definition.usScanCount;
    const uint8_t printScreen[] = {0xE0, 0x2A, 0xE0, 0x37};
    if (cScans == 4 && std::equal(printScreen, printScreen + 4, pScans)) {
        codes.push_back(0xE02AE037);
        return true;
    }
    for (size_t i = 0; i < cScans; ++i) {
        size_t cMore = pScans[i] == 0xE1 ? 2 : pScans[i] == 0xE0 ? 1 : 0;
        if (cScans - i <= cMore)
            return false;
        uint32_t ulCode = pScans[i];
        for (; cMore > 0; --cMore)
            ulCode = ulCode << 8 | pScans[++i];
        codes.push_back(ulCode);
    }
    return true;
}

DefinitionFault Refused(const std::string& what)
{
    return {true, false, what};
}

DefinitionFault Never(const std::string& what)
{
    return {false, false, what};
}

DefinitionFault OfKind(DefinitionFault fault)
{
    fault.bOfKind = true;
    return fault;
}

// One key on one kind: how many bytes of the hotkey it takes, or what is wrong.
DefinitionFault FaultOfKey(uint32_t ulCode, KeyboardKind kind, size_t& cBytes)
{
    const KeyTableRow* pRow = RowOf(ulCode);
    if (ulCode == 0xE02A)
        return Refused("Print Screen stands alone in a definition, without other keys");
    if (!pRow)
        return Refused(fmt::format("no key has the scan code {}", HexOf(MakeCodeBytes(ulCode), " ")));
    std::string name = NameOf(ulCode);
    if (kind == KeyboardKind::Jaalaa || kind == KeyboardKind::Chic) {
        bool bJaalaa = kind == KeyboardKind::Jaalaa;
        cBytes += 4;
        if ((bJaalaa ? pRow->ulHIDJaalaa : pRow->ulHIDChic) == 0)
            return OfKind(
                Refused(fmt::format("a {} keyboard has no key {}", bJaalaa ? "Jaalaa" : "Chic", name)));
        return {};
    }
    cBytes += pRow->usUsageBytes;
    if (kind == KeyboardKind::Normal && IsConsumer(pRow))
        return OfKind(Never(fmt::format("a normal keyboard's reports have no key {}", name)));
    if (kind == KeyboardKind::Normal && pRow->usUsage >= 0xE0)
        return Never(fmt::format("{} is no key of a report; name it in modifiers", name));
    if (kind == KeyboardKind::Power && !IsConsumer(pRow) && pRow->usUsage != FnUsage)
        return OfKind(Never(fmt::format("a power keyboard's reports have no key {}", name)));
    return {};
}

// The prefix whose key this is, or null.
const PrefixSetting* PrefixOfKey(uint32_t ulCode, const ReplayConfig& config)
{
    for (const PrefixSetting& prefix : Prefixes)
        if (NumberSetting(config, prefix.pSetting).value_or(prefix.ulDefault) == ulCode)
            return &prefix;
    return nullptr;
}

DefinitionFault FaultOfModifiers(uint32_t ulModifiers, const ReplayConfig& config)
{
    if (uint32_t ulUnknown = ulModifiers & ~KnownModifierBits)
        return Never(fmt::format("no modifier sets the bits 0x{:X}", ulUnknown));
    for (const PrefixSetting& prefix : Prefixes) {
        uint32_t ulCode = NumberSetting(config, prefix.pSetting).value_or(prefix.ulDefault);
        if (ulModifiers & prefix.ulBit && !HasKey(ulCode))
            return Never(
                fmt::format("{} is not set: {} is no key's scan code", prefix.pModifier, prefix.pSetting));
    }
    return {};
}

// A hotkey of modifiers alone.
DefinitionFault FaultOfNoKeys(uint32_t ulModifiers, KeyboardKind kind)
{
    if (kind == KeyboardKind::Power)
        return Never("a power keyboard needs a key");
    bool bEither = false; // one of ctrl, shift, alt, win takes the single ones of its pair away
    uint32_t ulSingle = ulModifiers & SingleBits;
    for (auto [ulAny, ulPair] :
         {std::pair(0x400u, 0x006u), {0x800u, 0x018u}, {0x1000u, 0x060u}, {0x2000u, 0x180u}})
        if (ulModifiers & ulAny) {
            ulSingle &= ~ulPair;
            bEither = true;
        }
    if (kind == KeyboardKind::Normal && ulSingle == 0)
        return Never(
            bEither ? "modifiers without a key count one by one: name the sides (lctrl, rctrl, ...); as it "
                      "stands it is down from the first report on"
                    : "it has neither a key nor a modifier; it is down from the first report on");
    return {};
}

DefinitionFault FaultOfHotkey(const KeyDefinition& definition, const ReplayConfig& config, KeyboardKind kind)
{
    std::vector<uint32_t> codes;
    if (!SplitScans(definition, codes))
        return Refused("its scan codes end behind a prefix byte");
    size_t cBytes = 0, cKept = 0;
    DefinitionFault never;
    const PrefixSetting* pDropped = nullptr;
    for (uint32_t ulCode : codes) {
        DefinitionFault fault = FaultOfKey(ulCode, kind, cBytes);
        if (fault.bRefused)
            return fault;
        if (never.what.empty())
            never = fault;
        const PrefixSetting* pPrefix = kind == KeyboardKind::Normal ? PrefixOfKey(ulCode, config) : nullptr;
        if (pPrefix)
            pDropped = pPrefix;
        else
            ++cKept;
    }
    if (definition.ulModifiers & ContextKeyBit)
        ++cBytes;
    if (cBytes > MostKeyBytes)
        return Refused(fmt::format("its keys take {} bytes; there is room for {}", cBytes, MostKeyBytes));
    if (definition.ulId == 0)
        return Never("the driver makes no hotkey of id 0");
    if (DefinitionFault fault = FaultOfModifiers(definition.ulModifiers, config); !fault.what.empty())
        return fault;
    if (!never.what.empty())
        return never;
    if (pDropped && cKept == 0)
        return Never(fmt::format("its key is that of {}, which the driver takes as the modifier {} only",
                                 pDropped->pSetting, pDropped->pModifier));
    if (codes.empty() && !(definition.ulModifiers & ContextKeyBit))
        return FaultOfNoKeys(definition.ulModifiers, kind);
    return {};
}

} // namespace

std::optional<uint32_t> NumberSetting(const ReplayConfig& config, const std::string& name)
{
    auto setting = config.settings.find(name);
    if (setting == config.settings.end() || !std::holds_alternative<uint32_t>(setting->second))
        return std::nullopt;
    return std::get<uint32_t>(setting->second);
}

bool HasKey(uint32_t ulScanCode)
{
    return RowOf(ulScanCode) != nullptr;
}

DefinitionFault FaultOf(const KeyDefinition& definition, const ReplayConfig& config, KeyboardKind kind)
{
    if (definition.usScanCount > sizeof(definition.ucScans))
        return Refused(fmt::format("it has {} scan code bytes; there is room for {}", definition.usScanCount,
                                   sizeof(definition.ucScans)));
    if (kind == KeyboardKind::Other) {
        DefinitionFault fault =
            definition.ulType == 1 ? FaultOfHotkey(definition, config, kind) : DefinitionFault{};
        return fault.bRefused ? fault : Never("the driver leaves keyboards of another kind alone");
    }
    if (definition.ulType != 1 && definition.ulType != 5 && definition.ulType != 11)
        return Never(
            fmt::format("nothing in the driver looks at type {}: 1 hotkey, 5 point of sale, 11 discard mode",
                        definition.ulType));
    return definition.ulType == 1 ? FaultOfHotkey(definition, config, kind) : DefinitionFault{};
}
