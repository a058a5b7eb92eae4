// promise_test.cpp - what `tvusb check` claims of a definition, held against the driver by random configurations and
// sessions: refused is refused and nothing else is, never is never, once is once.
//
// TV64USB_SESSIONS=10000 plays so many instead of the usual few; a failure names its seed.
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tools/check/check.h"
#include "tools/common/text.h"
#include "tools/keynames.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <random>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

using KeyPool = std::vector<const KeyName*>;

class Dice
{
public:
    explicit Dice(unsigned uSeed) : m_engine(uSeed) {}
    unsigned Below(unsigned uEnd) { return static_cast<unsigned>(m_engine() % uEnd); }
    bool In(unsigned uOf) { return Below(uOf) == 0; }
    template <typename List> auto Of(const List& list)
    {
        return *(std::begin(list) + Below(std::size(list)));
    }

private:
    std::mt19937 m_engine;
};

// A few keys a session, so that what is defined is also pressed; most of them keys that this kind has.
KeyPool RandomKeys(Dice& dice, const EmuKind& kind)
{
    KeyPool pool;
    while (pool.size() < 5) {
        const KeyName& key = AllKeyNames()[dice.Below(static_cast<unsigned>(AllKeyNames().size()))];
        bool bHas = kind.ulKbdType == 1   ? !key.bConsumer && key.usUsage < 0xE0
                    : kind.ulKbdType == 3 ? key.pRow->ulHIDJaalaa != 0
                    : kind.ulKbdType == 4 ? key.pRow->ulHIDChic != 0
                                          : key.bConsumer;
        if (key.MakeCode() != 0 && (bHas || dice.In(20)))
            pool.push_back(&key);
    }
    return pool;
}

uint32_t RandomModifiers(Dice& dice)
{
    const uint32_t some[] = {0,
                             0,
                             0,
                             MODIFIER_LEFT_CONTROL,
                             MODIFIER_ANY_CONTROL,
                             MODIFIER_RIGHT_ALT,
                             MODIFIER_ANY_SHIFT,
                             MODIFIER_CONTEXT_KEY,
                             MODIFIER_PREFIX1,
                             MODIFIER_PREFIX2,
                             MODIFIER_POSKEY_PREFIX,
                             MODIFIER_FN,
                             1,
                             0x4000};
    return dice.Of(some) | (dice.In(4) ? dice.Of(some) : 0);
}

KeyDefinition RandomDefinition(Dice& dice, const KeyPool& pool, uint32_t ulId)
{
    const uint32_t types[] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 5, 11, 4}, swallows[] = {0, 1, 2, 256, 257};
    const unsigned counts[] = {0, 0, 1, 1, 1, 2, 2, 9, 33};
    std::vector<uint8_t> scans;
    for (unsigned u = dice.Of(counts); u != 0; --u) {
        if (dice.In(12))
            scans.push_back(static_cast<uint8_t>(dice.Below(256)));
        for (uint8_t ucByte : MakeCodeBytes(dice.Of(pool)->MakeCode()))
            scans.push_back(ucByte);
    }
    KeyDefinition definition{};
    definition.ulId = dice.In(12) ? dice.Below(3) : ulId;
    definition.ulType = dice.Of(types);
    definition.ulModifiers = RandomModifiers(dice);
    definition.ulSwallow = dice.Of(swallows);
    definition.usScanCount = static_cast<uint16_t>(scans.size());
    std::copy_n(scans.begin(), std::min(scans.size(), sizeof definition.ucScans), definition.ucScans);
    return definition;
}

ReplayConfig RandomConfig(Dice& dice, const KeyPool& pool)
{
    ReplayConfig config;
    for (const PrefixSetting& prefix : Prefixes)
        if (!dice.In(2))
            config.settings[prefix.pSetting] = dice.In(4) ? 0x7Fu : dice.Of(pool)->MakeCode();
    for (const char* pName : {"RunDiagNormalPacket02", "SendUpEventImmediately"})
        if (dice.In(4))
            config.settings[pName] = 1u;
    for (unsigned u = 1 + dice.Below(5); u != 0; --u) {
        bool bAgain = !config.definitions.empty() && dice.In(8);
        config.definitions.push_back(
            bAgain ? config.definitions.back()
                   : RandomDefinition(dice, pool, 10 + static_cast<uint32_t>(config.definitions.size())));
        config.definitions.back().ulSwallow ^= bAgain && dice.In(2);
        config.definitionLines.push_back(static_cast<unsigned>(config.definitions.size()));
    }
    return config;
}

// A report as a keyboard of that kind sends it, of keys of the pool that it has.
EmuBytes RandomReport(Dice& dice, const EmuKind& kind, const KeyPool& pool)
{
    const unsigned uKeys = dice.Below(4);
    if (kind.ulKbdType == 3 || kind.ulKbdType == 4) {
        uint32_t ulWord = 0;
        for (unsigned u = 0; u < uKeys; ++u) {
            const KeyTableRow& row = *dice.Of(pool)->pRow;
            ulWord |= kind.ulKbdType == 3 ? row.ulHIDJaalaa : row.ulHIDChic;
        }
        auto byte = [=](int iShift) { return static_cast<UCHAR>(ulWord >> iShift); };
        if (dice.In(3))
            return {static_cast<UCHAR>(kind.ulKbdType - 2), byte(16)}; // a power report
        EmuBytes report = {static_cast<UCHAR>(kind.ulKbdType - 1), byte(24), byte(16), byte(8), byte(0)};
        report.resize(kind.ulKbdType == 3 ? 5 : 4);
        return report;
    }
    if (kind.ulKbdType == 2) {
        const KeyName& key = *dice.Of(pool);
        unsigned uUsage = key.bConsumer && uKeys != 0 ? key.usUsage : 0;
        EmuBytes report = {1, static_cast<UCHAR>(uUsage), static_cast<UCHAR>(uUsage >> 8)};
        if (dice.In(2))
            report.erase(report.begin());
        return report;
    }
    const UCHAR modifiers[] = {0, 0, 0x01, 0x10, 0x02, 0x40, 0x41};
    EmuBytes report = {dice.Of(modifiers), 0};
    for (unsigned u = 0; u < uKeys; ++u)
        if (const KeyName& key = *dice.Of(pool); !key.bConsumer && key.usUsage < 0xE0)
            report.push_back(static_cast<UCHAR>(key.usUsage));
    if (dice.In(8))
        report.push_back(0x65); // the context key
    report.resize(8);
    return report;
}

// One configuration at one keyboard of that kind.
struct Outcome {
    std::vector<bool> refused;                    // a definition each
    std::map<uint32_t, std::string> events;       // "du": the downs and ups by id
    std::map<uint32_t, std::string> firstReports; // likewise, of the first report alone
};

Outcome Play(Dice& dice, const ReplayConfig& config, const EmuKind& kind, const KeyPool& pool)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    for (const auto& [name, value] : config.settings)
        options.Settings[name] = std::get<uint32_t>(value);
    EmuMachine machine(options);
    EmuKeyboard* pKeyboard = machine.Plug(*kind.pDescriptors);
    EmuApplication application;
    Outcome outcome;
    application.RegisterNotifyEvent(pKeyboard->Index());
    application.StartReportProcessing(pKeyboard->Index());
    for (const KeyDefinition& definition : config.definitions)
        outcome.refused.push_back(!NT_SUCCESS(application.AddDefinition(pKeyboard->Index(), definition)));
    for (unsigned u = 0; u < 30; ++u) {
        pKeyboard->Report(RandomReport(dice, kind, pool));
        HostSettle();
        for (const NotifyRecord& record : application.TakeRecords(pKeyboard->Index()))
            outcome.events[record.ulId] += record.ulValue ? 'd' : 'u';
        if (u == 0)
            outcome.firstReports = outcome.events;
    }
    return outcome;
}

bool Begins(const std::string& text, const char* pBeginning)
{
    return text.rfind(pBeginning, 0) == 0;
}

// The configuration in the file's words.
std::string TextOf(const ReplayConfig& config)
{
    std::string text;
    for (const auto& [name, value] : config.settings)
        text += fmt::format("{} = 0x{:X}\n", name, std::get<uint32_t>(value));
    for (const KeyDefinition& own : config.definitions)
        text += fmt::format("id = {}, type = {}, modifiers = 0x{:X}, swallow = {}, scans = {}\n", own.ulId,
                            own.ulType, own.ulModifiers, own.ulSwallow,
                            HexOf({own.ucScans, own.ucScans + std::min<size_t>(own.usScanCount, 32)}, " "));
    return text;
}

struct Told {
    bool bRefused = false, bNever = false, bOnce = false;
};

// What check says of each definition.
std::vector<Told> ClaimsOf(const ReplayConfig& config, KeyboardKind kind)
{
    std::vector<Problem> problems;
    CheckDefinitions(config, kind, problems);
    std::vector<Told> told(config.definitions.size());
    for (const Problem& problem : problems) {
        std::string what = problem.what.substr(problem.what.find(": ") + 2);
        Told& own = told.at(problem.uLine - 1);
        own.bRefused |= Begins(what, "the driver refuses it");
        own.bNever |= Begins(what, "it never fires") || Begins(what, "it has no effect");
        own.bOnce |= Begins(what, "it fires with the first report");
    }
    return told;
}

} // namespace

TEST(Promise, WhatCheckClaimsIsSo)
{
    const char* pSessions = getenv("TV64USB_SESSIONS");
    const unsigned uSessions = pSessions ? static_cast<unsigned>(atoi(pSessions)) : 300;
    unsigned uRefused = 0, uNever = 0, uOnce = 0, uFired = 0;
    for (unsigned uSeed = 1; uSeed <= uSessions && !HasFailure(); ++uSeed) {
        Dice dice(uSeed);
        const EmuKind& kind = EmuMachine::Kinds()[uSeed % EmuMachine::Kinds().size()];
        const KeyPool pool = RandomKeys(dice, kind);
        const ReplayConfig config = RandomConfig(dice, pool);
        const std::vector<Told> told = ClaimsOf(config, KeyboardKind{kind.ulKbdType});
        Outcome outcome = Play(dice, config, kind, pool);
        uFired += static_cast<unsigned>(outcome.events.size());
        for (size_t i = 0; i < told.size(); ++i) {
            const KeyDefinition& own = config.definitions[i];
            SCOPED_TRACE("seed " + std::to_string(uSeed) + ", " + kind.pName + ", definition " +
                         std::to_string(i + 1) + " of\n" + TextOf(config));
            EXPECT_TRUE(outcome.refused[i] ? told[i].bRefused || told[i].bNever : !told[i].bRefused);
            bool bAlone =
                std::count_if(config.definitions.begin(), config.definitions.end(),
                              [&](const KeyDefinition& other) { return other.ulId == own.ulId; }) == 1;
            if (bAlone && (told[i].bRefused || told[i].bNever)) {
                EXPECT_EQ("", outcome.events[own.ulId]);
            }
            if (bAlone && told[i].bOnce) {
                EXPECT_EQ('d', outcome.events[own.ulId][0]);
                EXPECT_EQ(outcome.firstReports[own.ulId], outcome.events[own.ulId]);
            }
            uRefused += told[i].bRefused, uNever += told[i].bNever, uOnce += told[i].bOnce;
        }
    }
    EXPECT_LT(uSessions / 4, uRefused);
    EXPECT_LT(uSessions / 4, uNever);
    EXPECT_LT(uSessions / 60, uOnce);
    EXPECT_LT(uSessions / 6, uFired);
}
