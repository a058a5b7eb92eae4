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
constexpr uint32_t KnownModifierBits = 0x3FFE | MODIFIER_PREFIXES | MODIFIER_FN;
constexpr uint16_t FnUsage = 0xA5;

using KeyBytes = std::vector<uint8_t>;

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

// True when a power keyboard's report may carry that byte: as half of a media usage, too.
bool IsInPowerReports(uint16_t usUsage)
{
    return std::any_of(std::begin(KeyTable), std::end(KeyTable), [=](const KeyTableRow& row) {
        return IsConsumer(&row) && (row.usUsage >> 8 == usUsage || (row.usUsage & 0xFF) == usUsage);
    });
}

DefinitionFault Refused(const std::string& what)
{
    return {Claim::Refused, false, what};
}

DefinitionFault Never(const std::string& what)
{
    return {Claim::Never, false, what};
}

DefinitionFault OfKind(DefinitionFault fault)
{
    fault.bOfKind = true;
    return fault;
}

// One key on one kind: its bytes go behind those before, and what is wrong is told.
DefinitionFault FaultOfKey(uint32_t ulCode, KeyboardKind kind, KeyBytes& bytes)
{
    const KeyTableRow* pRow = RowOf(ulCode);
    if (ulCode == 0xE02A)
        return Refused("Print Screen stands alone in a definition, without other keys");
    if (!pRow)
        return Refused(fmt::format("no key has the scan code {}", HexOf(MakeCodeBytes(ulCode), " ")));
    std::string name = KeyNameOf(ulCode);
    if (kind == KeyboardKind::Jaalaa || kind == KeyboardKind::Chic) {
        bool bJaalaa = kind == KeyboardKind::Jaalaa;
        bytes.resize(bytes.size() + 4);
        if ((bJaalaa ? pRow->ulHIDJaalaa : pRow->ulHIDChic) == 0)
            return OfKind(
                Refused(fmt::format("a {} keyboard has no key {}", bJaalaa ? "Jaalaa" : "Chic", name)));
        return {};
    }
    if (pRow->usUsageBytes == 2)
        bytes.push_back(static_cast<uint8_t>(pRow->usUsage >> 8));
    bytes.push_back(static_cast<uint8_t>(pRow->usUsage));
    if (kind == KeyboardKind::Normal && IsConsumer(pRow))
        return OfKind(Never(fmt::format("a normal keyboard's reports have no key {}", name)));
    if (kind == KeyboardKind::Normal && pRow->usUsage >= 0xE0)
        return Never(fmt::format("{} is no key of a report; name it in modifiers", name));
    if (kind == KeyboardKind::Power && !IsConsumer(pRow) && pRow->usUsage != FnUsage &&
        !IsInPowerReports(pRow->usUsage))
        return OfKind(Never(fmt::format("a power keyboard's reports have no key {}", name)));
    return {};
}

// The prefix whose key has that usage, or null.
const PrefixSetting* PrefixOfUsage(uint8_t ucUsage, const ReplayConfig& config)
{
    for (const PrefixSetting& prefix : Prefixes) {
        const KeyTableRow* pRow = RowOf(NumberSetting(config, prefix.pSetting).value_or(prefix.ulDefault));
        if (pRow && static_cast<uint8_t>(pRow->usUsage) == ucUsage)
            return &prefix;
    }
    return nullptr;
}

// Takes out what the driver tracks as a modifier on that kind of keyboard; tells the modifier of the last one.
const char* DropTrackedKeys(KeyBytes& bytes, const ReplayConfig& config, KeyboardKind kind)
{
    const char* pDropped = nullptr;
    auto isTracked = [&](uint8_t ucUsage) {
        const PrefixSetting* pPrefix = PrefixOfUsage(ucUsage, config);
        const char* pModifier = kind == KeyboardKind::Power && ucUsage == FnUsage ? "fn"
                                : kind == KeyboardKind::Normal && pPrefix         ? pPrefix->pModifier
                                                                                  : nullptr;
        pDropped = pModifier ? pModifier : pDropped;
        return pModifier != nullptr;
    };
    bytes.erase(std::remove_if(bytes.begin(), bytes.end(), isTracked), bytes.end());
    return pDropped;
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

// A hotkey without a key: it was given none, or the prefix's key alone, which is no key but a modifier.
DefinitionFault FaultOfNoKeys(uint32_t ulModifiers, KeyboardKind kind, const char* pDropped)
{
    constexpr uint32_t SingleBits = 0x1FE;
    std::string dropped =
        pDropped ? fmt::format("its key is one that the driver takes as the modifier {} only", pDropped) : "";
    if (kind == KeyboardKind::Power)
        return Never(pDropped ? dropped : "a power keyboard needs a key");
    bool bEither = false; // one of ctrl, shift, alt, win takes the single ones of its pair away
    uint32_t ulSingle = ulModifiers & SingleBits;
    for (auto [ulAny, ulPair] :
         {std::pair<uint32_t, uint32_t>(MODIFIER_ANY_CONTROL, MODIFIER_LEFT_CONTROL | MODIFIER_RIGHT_CONTROL),
          {MODIFIER_ANY_SHIFT, MODIFIER_LEFT_SHIFT | MODIFIER_RIGHT_SHIFT},
          {MODIFIER_ANY_ALT, MODIFIER_LEFT_ALT | MODIFIER_RIGHT_ALT},
          {MODIFIER_ANY_GUI, MODIFIER_LEFT_GUI | MODIFIER_RIGHT_GUI}})
        if (ulModifiers & ulAny) {
            ulSingle &= ~ulPair;
            bEither = true;
        }
    if (kind != KeyboardKind::Normal || ulSingle != 0)
        return {};
    if (pDropped)
        return {Claim::Once, false, dropped};
    return {Claim::Once, false,
            bEither ? "modifiers without a key count one by one: name the sides (lctrl, rctrl, ...)"
                    : "it has neither a key nor a modifier of its own"};
}

DefinitionFault FaultOfHotkey(const KeyDefinition& definition, const ReplayConfig& config, KeyboardKind kind)
{
    std::vector<uint32_t> codes;
    if (!SplitScans(definition, codes))
        return Refused("its scan codes end behind a prefix byte");
    KeyBytes bytes;
    DefinitionFault never;
    const bool bSimple =
        kind == KeyboardKind::Normal && NumberSetting(config, "RunDiagNormalPacket02").value_or(0);
    bool bFirstFound = false; // simple matching looks for the first key only
    for (uint32_t ulCode : codes) {
        DefinitionFault fault = FaultOfKey(ulCode, kind, bytes);
        if (fault.claim == Claim::Refused)
            return fault;
        if (never.claim == Claim::Fine && !bFirstFound)
            never = fault;
        KeyBytes kept = bytes;
        DropTrackedKeys(kept, config, kind);
        bFirstFound = bSimple && !kept.empty();
    }
    bool bContextKey = (definition.ulModifiers & MODIFIER_CONTEXT_KEY) != 0; // which becomes a key as well
    const char* pDropped = bytes.size() > MostKeyBytes ? nullptr : DropTrackedKeys(bytes, config, kind);
    if (bytes.size() + bContextKey > MostKeyBytes)
        return Refused(fmt::format("its keys take {} bytes; there is room for {}", bytes.size() + bContextKey,
                                   MostKeyBytes));
    if (definition.ulId == 0)
        return Never("the driver makes no hotkey of id 0");
    bool bNoKeys = bytes.empty() && !bContextKey;
    if (bNoKeys && kind == KeyboardKind::Normal) // the mask does not count then
        return FaultOfNoKeys(definition.ulModifiers, kind, pDropped);
    if (DefinitionFault fault = FaultOfModifiers(definition.ulModifiers, config); fault.claim != Claim::Fine)
        return fault;
    if (never.claim != Claim::Fine)
        return never;
    return bNoKeys ? FaultOfNoKeys(definition.ulModifiers, kind, pDropped) : DefinitionFault{};
}

} // namespace

const PrefixSetting Prefixes[3] = {
    {"prefix1", "Prefix1", MODIFIER_PREFIX1, 0x7D},
    {"prefix2", "Prefix2", MODIFIER_PREFIX2, 0x7B},
    {"pos", "PosKeyPrefix", MODIFIER_POSKEY_PREFIX, 0x79},
};

std::string KeyNameOf(uint32_t ulScanCode)
{
    for (const KeyName& key : AllKeyNames())
        if (key.MakeCode() == ulScanCode) {
            std::string_view names = key.pNames;
            return std::string(names.substr(0, names.find('|')));
        }
    return "0x" + HexOf(MakeCodeBytes(ulScanCode));
}

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
        return fault.claim == Claim::Refused ? fault
                                             : Never("the driver leaves keyboards of another kind alone");
    }
    if (definition.ulType != 1 && definition.ulType != 5 && definition.ulType != 11)
        return Never(
            fmt::format("nothing in the driver looks at type {}: 1 hotkey, 5 point of sale, 11 discard mode",
                        definition.ulType));
    return definition.ulType == 1 ? FaultOfHotkey(definition, config, kind) : DefinitionFault{};
}
