// collect.cpp - plays a session and reckons up its presses and its hotkeys.
//
// A press is sent at a report and seen at that one or a later one, when the driver held the key back. It waits here for
// that until the key is pressed again or the session ends.
#include "audit.h"
#include "tools/keynames.h"
#include "tools/session/keytracker.h"
#include "tools/session/trace.h"
#include "tools/why/why.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>

namespace
{

constexpr unsigned Normal = 1; // KbdTypeOf
const char* const Overrun = "(overrun)";

// What writes text: letters, digits, space and punctuation, on the keypad too.
bool IsTextKey(const std::string& name)
{
    static const std::set<std::string> keys = [] {
        std::set<std::string> names;
        for (const auto& [ucFirst, ucLast] :
             {std::pair(0x04, 0x27), {0x2C, 0x38}, {0x54, 0x57}, {0x59, 0x64}})
            for (int iUsage = ucFirst; iUsage <= ucLast; ++iUsage)
                names.insert(ShownKeyName(static_cast<uint8_t>(iUsage)));
        return names;
    }();
    return keys.count(name) != 0;
}

// What the driver traced for one report, as far as it tells who took keys.
struct Takers {
    std::string mode;                        // that took the report
    std::map<std::string, std::string> keys; // by whom
    bool bHotkey = false;                    // one went down or stayed
};

// A press that the system has not seen yet.
struct Press {
    uint64_t ullUs;
    std::string taker; // "": nobody
    std::string why;   // it is lost, where the driver says
};

// A hotkey that went down in the middle of typing, if more text follows.
struct Suspect {
    uint64_t ullUs;
    uint32_t ulId;
    std::string before;
};

struct Watched {
    uint32_t ulDevice = 0; // the driver's index
    unsigned uType = 0;
    Takers takers;
    std::map<std::string, Press> waiting; // by key
    std::map<uint32_t, std::set<std::string>> ownKeys;
    std::set<uint32_t> down;                             // hotkeys
    std::vector<std::pair<uint64_t, std::string>> typed; // text keys of the last moments
    std::vector<Suspect> suspects;
};

class Auditor final : public ReplayPrinter
{
public:
    Auditor(Audit& audit, const FindingTaker& take, const ReplayConfig& config)
        : m_audit(audit), m_take(take), m_kinds(config.definitions)
    {
    }

    void Trace(const Traced& step)
    {
        Watched& watched = At(step.Number("keyboard"));
        Takers& takers = watched.takers;
        if (step.Is("HotkeyListEntry"))
            List(watched, step);
        else if (step.Is("ReportTaken"))
            takers.mode = step.Text("mode");
        else if (step.Is("KeyPassed"))
            m_bKeyDown = step.Number("down");
        else if (step.Is("HotkeyLookedAt"))
            Look(step);
        else if (step.Is("HotkeyState"))
            takers.bHotkey |= step.Text("state") == "down" || step.Text("state") == "stays";
        else if (step.Is("KeysTaken"))
            for (uint8_t ucKey : step.BytesOf("keys"))
                takers.keys[ShownKey(ucKey, watched.uType)] = step.Text("by");
        else if (step.Is("ModifiersTaken"))
            for (const std::string& key : ShownModifiers(static_cast<uint8_t>(step.Number("modifiers"))))
                takers.keys[key] = "a hotkey";
        else if (step.Name().size() > 4 && step.Name().rfind("Full") == step.Name().size() - 4)
            m_full.emplace_back(KeyboardOf(step.Number("keyboard")), step.Line());
    }

    void Keyboard(uint64_t, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard&) override
    {
        m_devices[uKeyboard] = ulIndex;
        Watched& watched = At(ulIndex);
        watched.ulDevice = ulIndex;
        watched.uType = uType;
        watched.takers = {};
    }
    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string& why) override
    {
        if (ulStatus)
            Find(FindingKind::Refused, ullUs, uKeyboard, DefinitionWords(ulId, ulStatus, why));
    }
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        FindFull(ullUs);
        Watched& watched = At(m_devices[uKeyboard]);
        Takers takers;
        std::swap(takers, watched.takers);
        if (sent)
            for (const std::string& key : m_below.Follow(uKeyboard, watched.uType, *sent).pressed)
                Send(ullUs, uKeyboard, watched, key, takers);
        for (const std::string& key : m_above.Follow(uKeyboard, watched.uType, seen).pressed)
            See(ullUs, uKeyboard, watched, key);
    }
    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        FindFull(ullUs);
        if (m_kinds.IsScan(record))
            return;
        Watched& watched = At(m_devices[uKeyboard]);
        if (record.ulValue == 0) {
            watched.down.erase(record.ulId);
        } else if (watched.down.insert(record.ulId).second) {
            ++m_audit.hotkeys[record.ulId].uFired;
            Suspicion(ullUs, watched, record.ulId);
        }
    }
    void Macro(uint64_t, const MacroRecord&) override {}
    void Led(uint64_t, unsigned, uint8_t) override {}
    void End(uint64_t ullUs, const ReplayTotals& totals) override
    {
        FindFull(ullUs);
        m_audit.ullEndUs = ullUs;
        m_audit.totals = totals;
        for (const auto& [uKeyboard, ulDevice] : m_devices) {
            Watched& watched = At(ulDevice);
            for (const auto& [key, press] : watched.waiting)
                Settle(uKeyboard, key, press);
        }
        const auto below = m_below.Held();
        for (const auto& held : m_above.Held())
            if (below.count(held) == 0 && held.second != Overrun)
                Find(FindingKind::Stuck, ullUs, held.first,
                     held.second + " is down at the end, and the keyboard does not hold it");
        if (totals.uUnread)
            Find(FindingKind::Unread, ullUs, 0,
                 fmt::format("{} reports of keyboards were not read: the system's reads fail",
                             totals.uUnread));
        if (totals.uLeaks)
            Find(FindingKind::LeftBehind, ullUs, 0,
                 fmt::format("the driver left {} things behind", totals.uLeaks));
    }

private:
    Watched& At(uint32_t ulDevice) { return m_watched[ulDevice]; }

    unsigned KeyboardOf(uint32_t ulDevice) const
    {
        for (const auto& [uKeyboard, ulIndex] : m_devices)
            if (ulIndex == ulDevice)
                return uKeyboard;
        return 0;
    }

    void Find(FindingKind kind, uint64_t ullUs, unsigned uKeyboard, const std::string& text)
    {
        m_take({kind, ullUs, uKeyboard, text});
    }

    // What was traced is of the moment that is told next.
    void FindFull(uint64_t ullUs)
    {
        for (const auto& [uKeyboard, text] : m_full)
            Find(FindingKind::QueueFull, ullUs, uKeyboard, text);
        m_full.clear();
    }

    // The driver's list of a keyboard's hotkeys is told anew with each change.
    void List(Watched& watched, const Traced& step)
    {
        if (step.Number("index") == 0)
            watched.ownKeys.clear();
        std::set<std::string>& own = watched.ownKeys[step.Number("id")];
        Bytes keys = step.BytesOf("keys");
        keys.resize(std::min<size_t>(keys.size(), step.Number("keyCount")));
        for (uint8_t ucKey : keys)
            own.insert(ShownKey(ucKey, watched.uType));
        m_audit.hotkeys.try_emplace(step.Number("id"));
    }

    void Look(const Traced& step)
    {
        if (!m_bKeyDown)
            return;
        HotkeyUse& use = m_audit.hotkeys[step.Number("id")];
        ++use.uKeysCame;
        use.uArmed += step.Number("armed");
    }

    // Who took the key of that report, and why it is lost otherwise.
    static Press PressOf(uint64_t ullUs, unsigned uType, const std::string& key, const Takers& takers)
    {
        if (takers.mode == "macro" || takers.mode == "discard" || takers.mode == "sale")
            return {ullUs,
                    takers.mode == "macro"     ? "the macro mode"
                    : takers.mode == "discard" ? "the discard mode"
                                               : "point of sale",
                    ""};
        const auto taken = takers.keys.find(key);
        const std::string by = taken != takers.keys.end() ? taken->second : "";
        if (by == "the release of a hotkey" || (by == "nobody" && !takers.bHotkey))
            return {ullUs, "",
                    by == "nobody" ? "held back, and no keyboard of this kind gets keys back"
                                   : "taken out by " + by};
        if (!by.empty())
            return {ullUs, by == "nobody" ? "a hotkey" : by, ""};
        // The keys of other kinds of keyboards are halves of usages, or bits.
        return {ullUs, uType != Normal && takers.bHotkey ? "a hotkey" : "", ""};
    }

    void Send(uint64_t ullUs, unsigned uKeyboard, Watched& watched, const std::string& key,
              const Takers& takers)
    {
        if (key == Overrun)
            return;
        ++m_audit.uSent;
        auto before = watched.waiting.find(key);
        if (before != watched.waiting.end())
            Settle(uKeyboard, key, before->second);
        watched.waiting[key] = PressOf(ullUs, watched.uType, key, takers);
        if (IsTextKey(key))
            Type(ullUs, uKeyboard, watched, key);
    }

    void See(uint64_t ullUs, unsigned uKeyboard, Watched& watched, const std::string& key)
    {
        auto press = watched.waiting.extract(key);
        if (press.empty()) {
            m_audit.uMade += key != Overrun;
            return;
        }
        ++m_audit.uSeen;
        const uint64_t ullWay = ullUs - press.mapped().ullUs;
        if (ullWay > m_audit.ullSlowestUs) {
            m_audit.ullSlowestUs = ullWay;
            m_audit.slowest = fmt::format("{} of keyboard {} at {}.{:06} s", key, uKeyboard,
                                          press.mapped().ullUs / 1000000, press.mapped().ullUs % 1000000);
        }
    }

    // The system never saw it.
    void Settle(unsigned uKeyboard, const std::string& key, const Press& press)
    {
        if (!press.taker.empty())
            ++m_audit.taken[press.taker];
        else
            Find(FindingKind::Lost, press.ullUs, uKeyboard,
                 key + " never reached the system" + (press.why.empty() ? "" : ": " + press.why));
    }

    // A text key: what went down shortly before, in the middle of typing, did so by accident.
    void Type(uint64_t ullUs, unsigned uKeyboard, Watched& watched, const std::string& key)
    {
        for (const Suspect& suspect : watched.suspects)
            if (suspect.ullUs < ullUs && ullUs - suspect.ullUs < TypingUs &&
                watched.ownKeys[suspect.ulId].count(key) == 0)
                Find(FindingKind::Accident, suspect.ullUs, uKeyboard,
                     fmt::format("hotkey {} fired between {} and {}, within ordinary typing", suspect.ulId,
                                 suspect.before, key));
        watched.suspects.erase(std::remove_if(watched.suspects.begin(), watched.suspects.end(),
                                              [=](const Suspect& suspect) { return suspect.ullUs < ullUs; }),
                               watched.suspects.end());
        watched.typed.emplace_back(ullUs, key);
        if (watched.typed.size() > 16)
            watched.typed.erase(watched.typed.begin());
    }

    void Suspicion(uint64_t ullUs, Watched& watched, uint32_t ulId)
    {
        for (auto typed = watched.typed.rbegin(); typed != watched.typed.rend(); ++typed)
            if (typed->first < ullUs && ullUs - typed->first < TypingUs &&
                watched.ownKeys[ulId].count(typed->second) == 0) {
                watched.suspects.push_back({ullUs, ulId, typed->second});
                return;
            }
    }

    Audit& m_audit;
    const FindingTaker& m_take;
    const EventKinds m_kinds;
    KeyTracker m_below, m_above;
    std::map<unsigned, uint32_t> m_devices;               // the driver's index, by keyboard
    std::map<uint32_t, Watched> m_watched;                // by that index
    std::vector<std::pair<unsigned, std::string>> m_full; // keyboard and what was full, of this moment
    bool m_bKeyDown = true;                               // the key that the hotkeys are compared with
};

} // namespace

const char* NameOf(FindingKind kind)
{
    static const char* const names[] = {"lost",   "stuck",   "accident",    "queue_full",
                                        "unread", "refused", "left_behind", "difference"};
    return names[static_cast<size_t>(kind)];
}

Audit AuditOf(const std::string& input, const Script& script, const ReplaySetup& setup,
              const FindingTaker& take)
{
    Audit audit;
    audit.input = input;
    Auditor auditor(audit, take, setup.config);
    ReplaySetup traced = setup;
    traced.BeforeLoad = [&] {
        ListenToDriver(TraceEverything, TraceReports | TraceHotkeys | TraceQueues,
                       [&](const Traced& step) { auditor.Trace(step); });
    };
    RunReplay(script, traced, auditor);
    return audit;
}
