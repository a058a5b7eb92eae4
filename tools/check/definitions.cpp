// definitions.cpp - all definitions of a configuration: each for itself, and what they do to each other.
#include "check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr size_t MostDefinitions = 511; // that a keyboard holds
constexpr uint32_t Hotkey = 1, PointOfSale = 5, DiscardMode = 11;
const std::string OnceWords = "it fires with the first report and never again: ";

bool IsSame(const KeyDefinition& a, const KeyDefinition& b)
{
    return memcmp(&a, &b, sizeof(a)) == 0;
}

// The same hotkey for the driver: what it does with the keys is left out of its comparison.
bool IsSameHotkey(KeyDefinition a, const KeyDefinition& b)
{
    a.ulSwallow = b.ulSwallow;
    return a.ulType == Hotkey && IsSame(a, b);
}

class Examiner
{
public:
    Examiner(const ReplayConfig& config, std::optional<KeyboardKind> kind, std::vector<Problem>& warnings)
        : m_config(config), m_kind(kind), m_warnings(warnings)
    {
    }

    void Examine()
    {
        const auto& definitions = m_config.definitions;
        if (!m_config.bReportProcessing && !definitions.empty())
            Warn(0, "report_processing is false, so none of the definitions has an effect");
        for (size_t i = 0; i < definitions.size(); ++i) {
            if (i == MostDefinitions)
                Warn(i, fmt::format("the driver refuses it and all behind it: a keyboard holds {}",
                                    MostDefinitions));
            ExamineSwallow(i);
            if (!ExamineEarlier(i) && !ExamineFault(i) && definitions[i].ulType == Hotkey &&
                !ExamineModes(i)) {
                ExaminePrefixes(i);
                ExamineSameId(i);
            }
        }
    }

private:
    void Warn(size_t i, const std::string& what)
    {
        m_warnings.push_back({m_config.definitionLines[i],
                              fmt::format("definition {}: {}", m_config.definitions[i].ulId, what)});
    }

    // True when it has no effect by itself: on the kind that was asked for, or on every kind that has hotkeys.
    bool ExamineFault(size_t i)
    {
        const KeyboardKind all[] = {KeyboardKind::Normal, KeyboardKind::Power, KeyboardKind::Jaalaa,
                                    KeyboardKind::Chic};
        DefinitionFault first;
        for (KeyboardKind kind :
             m_kind ? std::vector{*m_kind} : std::vector(std::begin(all), std::end(all))) {
            DefinitionFault fault = FaultOf(m_config.definitions[i], m_config, kind);
            if (fault.claim == Claim::Fine && first.claim == Claim::Once && !ExamineModes(i))
                Warn(i, "on a normal keyboard " + OnceWords + first.what);
            if (fault.claim == Claim::Fine)
                return first.claim == Claim::Once;
            if (first.claim == Claim::Fine)
                first = fault;
        }
        if (first.claim == Claim::Once && ExamineModes(i))
            return true;
        std::string what = first.claim == Claim::Refused ? "the driver refuses it: "
                           : first.claim == Claim::Once  ? OnceWords
                                                         : "it never fires: ";
        what += first.what;
        Warn(i, !m_kind && first.bOfKind ? what + "; nor does another kind of keyboard take it" : what);
        return true;
    }

    // True when an earlier definition leaves this one without effect.
    bool ExamineEarlier(size_t i)
    {
        const KeyDefinition& own = m_config.definitions[i];
        for (size_t k = 0; k < i; ++k) {
            const KeyDefinition& other = m_config.definitions[k];
            unsigned uLine = m_config.definitionLines[k];
            if (!IsTaken(k))
                continue;
            if (IsSame(other, own)) {
                Warn(i, fmt::format("the driver refuses it: it is the one of line {} again", uLine));
                return true;
            }
            if (IsSameHotkey(other, own)) {
                Warn(i, fmt::format("it never fires: it is the hotkey of line {} again, with another swallow",
                                    uLine));
                return true;
            }
            if (own.ulType == other.ulType && (own.ulType == PointOfSale || own.ulType == DiscardMode)) {
                Warn(i, fmt::format("it has no effect: the driver takes the first of its type, in line {}",
                                    uLine));
                return true;
            }
        }
        return false;
    }

    // One that the driver refuses does nothing to the others.
    bool IsTaken(size_t i) const
    {
        KeyboardKind kind = m_kind.value_or(KeyboardKind::Normal);
        return FaultOf(m_config.definitions[i], m_config, kind).claim != Claim::Refused;
    }

    // The driver looks a hotkey's swallow up by its id and takes the first.
    void ExamineSameId(size_t i)
    {
        const KeyDefinition& own = m_config.definitions[i];
        for (size_t k = 0; k < i; ++k)
            if (m_config.definitions[k].ulId == own.ulId &&
                m_config.definitions[k].ulSwallow != own.ulSwallow)
                return Warn(
                    i, fmt::format("its swallow has no effect: that of line {}, with the same id, counts",
                                   m_config.definitionLines[k]));
    }

    // Discard mode and point of sale take a report before the hotkeys see it.
    bool ExamineModes(size_t i)
    {
        for (size_t k = 0; k < m_config.definitions.size(); ++k) {
            uint32_t ulType = m_config.definitions[k].ulType;
            if ((ulType != DiscardMode && ulType != PointOfSale) || !IsTaken(k))
                continue;
            Warn(i, fmt::format("it never fires: the {} definition of line {} takes every report",
                                ulType == DiscardMode ? "discard-mode" : "point-of-sale",
                                m_config.definitionLines[k]));
            return true;
        }
        return false;
    }

    void ExaminePrefixes(size_t i)
    {
        for (const PrefixSetting& prefix : Prefixes)
            if (m_config.definitions[i].ulModifiers & prefix.ulBit &&
                !m_config.settings.count(prefix.pSetting))
                Warn(i, fmt::format("it needs {}, which is not set: [settings] has no {}, so the driver "
                                    "takes {} (0x{:X})",
                                    prefix.pModifier, prefix.pSetting, KeyNameOf(prefix.ulDefault),
                                    prefix.ulDefault));
    }

    // Only the low byte counts: 1 takes keys out, any but 0 takes out modifiers that stand alone.
    void ExamineSwallow(size_t i)
    {
        const KeyDefinition& own = m_config.definitions[i];
        uint32_t ulByte = own.ulSwallow & 0xFF;
        bool bAlone = own.ulType == Hotkey && own.usScanCount == 0;
        if (own.ulSwallow > 1)
            Warn(i,
                 fmt::format(
                     "swallow is {}, of which the driver takes the low byte, {}: it swallows{}; write 1 or 0",
                     own.ulSwallow, ulByte, ulByte == 1 || (bAlone && ulByte) ? "" : " nothing"));
    }

    const ReplayConfig& m_config;
    std::optional<KeyboardKind> m_kind;
    std::vector<Problem>& m_warnings;
};

} // namespace

void CheckDefinitions(const ReplayConfig& config, std::optional<KeyboardKind> kind,
                      std::vector<Problem>& warnings)
{
    Examiner(config, kind, warnings).Examine();
}
