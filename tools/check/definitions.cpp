// definitions.cpp - all definitions of a configuration: each for itself, and what they do to each other.
#include "check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr size_t MostDefinitions = 511; // that a keyboard holds
constexpr uint32_t Hotkey = 1, PointOfSale = 5, DiscardMode = 11;

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
            if (!ExamineFault(i) && !ExamineEarlier(i) && definitions[i].ulType == Hotkey) {
                ExamineModes(i);
                ExaminePrefixes(i);
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
            if (fault.what.empty())
                return false;
            if (first.what.empty())
                first = fault;
        }
        std::string what = (first.bRefused ? "the driver refuses it: " : "it never fires: ") + first.what;
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
            if (own.ulType == Hotkey && other.ulId == own.ulId && other.ulSwallow != own.ulSwallow) {
                Warn(i, fmt::format("its swallow has no effect: that of line {}, with the same id, counts",
                                    uLine));
                return false;
            }
        }
        return false;
    }

    // Discard mode and point of sale take a report before the hotkeys see it.
    void ExamineModes(size_t i)
    {
        for (size_t k = 0; k < m_config.definitions.size(); ++k) {
            uint32_t ulType = m_config.definitions[k].ulType;
            if (ulType != DiscardMode && ulType != PointOfSale)
                continue;
            Warn(i, fmt::format("it never fires: the {} definition of line {} takes every report",
                                ulType == DiscardMode ? "discard-mode" : "point-of-sale",
                                m_config.definitionLines[k]));
            return;
        }
    }

    void ExaminePrefixes(size_t i)
    {
        const struct {
            uint32_t ulBit;
            const char *pModifier, *pSetting, *pKey;
        } prefixes[] = {{0x10000000, "prefix1", "Prefix1", "International 3 (0x7D)"},
                        {0x20000000, "prefix2", "Prefix2", "International 5 (0x7B)"},
                        {0x08000000, "pos", "PosKeyPrefix", "International 4 (0x79)"}};
        for (const auto& prefix : prefixes)
            if (m_config.definitions[i].ulModifiers & prefix.ulBit &&
                !m_config.settings.count(prefix.pSetting))
                Warn(i, fmt::format(
                            "it needs {}, which is not set: [settings] has no {}, so the driver takes {}",
                            prefix.pModifier, prefix.pSetting, prefix.pKey));
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
