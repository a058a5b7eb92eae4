// ledger.h - the presses of a session that is played: which of them the system has seen.
#pragma once

#include "tools/replay/output.h"
#include "tools/session/keytracker.h"

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct SentPress {
    uint64_t ullUs;
    unsigned uKeyboard;
    std::string key;
    bool bSeen;
};

// A press is seen at its report or at a later one before the key is pressed again.
class Ledger final : public ReplayPrinter
{
public:
    const std::vector<SentPress>& Presses() const { return m_presses; }
    size_t FirstWaiting() const; // the oldest press that may still be seen
    // Keys that the system has down and the keyboard has not, as "A of keyboard 0".
    std::set<std::string> Stuck(const std::set<unsigned>& without) const;
    unsigned Reports() const { return m_uReports; }
    unsigned Events() const { return m_uEvents; }
    uint64_t NowUs() const { return m_ullUs; }
    unsigned LatestKeyboard() const { return m_uKeyboard; }

    void Keyboard(uint64_t, unsigned uKeyboard, uint32_t, unsigned uType, const ScriptKeyboard&) override;
    void Definition(uint64_t, unsigned, uint32_t, uint32_t, const std::string&) override {}
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override;
    void Event(uint64_t ullUs, unsigned, const NotifyRecord&) override;
    void Macro(uint64_t ullUs, const MacroRecord&) override;
    void Led(uint64_t, unsigned, uint8_t) override {}
    void End(uint64_t, const ReplayTotals&) override {}

private:
    std::vector<SentPress> m_presses;
    std::map<std::pair<unsigned, std::string>, size_t> m_waiting; // places in the presses
    KeyTracker m_below, m_above;
    std::map<unsigned, unsigned> m_types;
    unsigned m_uReports = 0, m_uEvents = 0, m_uKeyboard = 0;
    uint64_t m_ullUs = 0;
};
