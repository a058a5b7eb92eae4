// differential_test.cpp - the driver's engine against the reference, report by report.
//
//   seed ──► hotkeys, changes of them, reports ──┬─► driver     ─┬─► equal after each report
//                                                └─► reference ──┘
//
// TV64USB_REPORTS says how many reports in all (200,000 unless told), TV64USB_SEED runs one seed alone.
#include <gtest/gtest.h>

#include <cstdlib>

#include "driver.h"
#include "scene.h"

namespace
{
uint64_t FromEnvironment(const char* name, uint64_t otherwise)
{
    const char* text = getenv(name);
    return text == nullptr || *text == '\0' ? otherwise : strtoull(text, nullptr, 10);
}

std::string Hex(const std::vector<uint8_t>& bytes)
{
    std::string text;
    char digits[4];
    for (uint8_t byte : bytes) {
        snprintf(digits, sizeof(digits), "%02x ", byte);
        text += digits;
    }
    return text;
}

// A step of a run, for the message of a run that fails.
struct Step {
    int Keyboard;
    std::vector<uint8_t> Report;
    std::string Change;
};

std::string Tell(const std::vector<Step>& steps)
{
    std::string text;
    for (const Step& step : steps) {
        text += "keyboard " + std::to_string(step.Keyboard) + " " +
                (step.Change.empty() ? Hex(step.Report) : step.Change) + "\n";
    }
    return text;
}

std::string Tell(const KeyDefinition& definition)
{
    char text[64];
    snprintf(text, sizeof(text), "add id %u type %u swallow %x modifiers %x scans ", definition.ulId,
             definition.ulType, definition.ulSwallow, definition.ulModifiers);
    return text + Hex({definition.ucScans, definition.ucScans + definition.usScanCount});
}

bool Equal(const Outcome& driver, const Outcome& reference, std::string* difference)
{
    const auto differ = [difference](const char* what, const std::string& ours, const std::string& theirs) {
        *difference = std::string(what) + "\n  driver    " + ours + "\n  reference " + theirs;
        return false;
    };
    const auto flags = [](const Outcome& side) {
        std::string text;
        for (uint32_t flag : side.Flags) {
            char number[16];
            snprintf(number, sizeof(number), "%x ", flag);
            text += number;
        }
        return text;
    };
    const auto events = [](const Outcome& side) {
        const uint8_t* first = reinterpret_cast<const uint8_t*>(side.Events.data());
        return Hex({first, first + side.Events.size() * sizeof(NotifyRecord)});
    };
    const struct {
        const char* what;
        const std::vector<uint8_t>& ours;
        const std::vector<uint8_t>& theirs;
    } bytes[] = {{"report", driver.Report, reference.Report},
                 {"keys held back", driver.Swallowed, reference.Swallowed},
                 {"keys to insert", driver.Inserted, reference.Inserted},
                 {"previous report", driver.OldPacket, reference.OldPacket},
                 {"previous power report", driver.OldPowerPacket, reference.OldPowerPacket}};
    for (const auto& each : bytes) {
        if (each.ours != each.theirs) {
            return differ(each.what, Hex(each.ours), Hex(each.theirs));
        }
    }
    if (driver.Taken != reference.Taken) {
        return differ("taken", driver.Taken ? "yes" : "no", reference.Taken ? "yes" : "no");
    }
    if (driver.Flags != reference.Flags) {
        return differ("flags", flags(driver), flags(reference));
    }
    if (driver.Events.size() != reference.Events.size() || events(driver) != events(reference)) {
        return differ("events", events(driver), events(reference));
    }
    return driver.Log == reference.Log || differ("log", "\n" + driver.Log, "\n" + reference.Log);
}

class Comparison
{
public:
    Comparison(Driver& driver, uint64_t seed, bool bLog, uint32_t ulLevel)
        : m_Driver(driver), m_Dice(seed), m_Keys(m_Dice)
    {
        m_Driver.Reset();
        m_Driver.SetLog(bLog, ulLevel);
        m_World.LogOn = bLog;
        m_World.LogLevel = ulLevel;
        m_World.Now = Driver::Now();
        m_World.LogHead = Driver::LogHead();
        for (int i = 0; i < Driver::KEYBOARDS; i++) {
            m_Keyboards.push_back(std::make_unique<reference::Keyboard>(m_World, Driver::Kinds[i]));
            m_Keyboards[i]->UpAtOnce = m_Dice.In(4);
            m_Keyboards[i]->Simple = m_Dice.In(4);
            m_Driver.SetSettings(i, m_Keyboards[i]->UpAtOnce, m_Keyboards[i]->Simple);
            if (m_Dice.In(20)) {
                SetKind(i, reference::Unknown);
            }
        }
    }

    // So many reports with changes of the definitions between them; false at the first difference.
    bool Go(unsigned reports)
    {
        const int favourite = static_cast<int>(m_Dice.Below(Driver::KEYBOARDS));
        const uint32_t many = m_Dice.In(150) ? 511 : m_Dice.In(10) ? 90 : 12;
        for (uint32_t i = m_Dice.Below(many + 1); i > 0; i--) {
            Add(favourite);
        }
        for (unsigned i = 0; i < reports; i++) {
            const int keyboard = m_Dice.In(6) ? static_cast<int>(m_Dice.Below(Driver::KEYBOARDS)) : favourite;
            if (m_Dice.In(12)) {
                Change(keyboard);
            }
            if (!Report(keyboard) || !m_Difference.empty()) {
                return false;
            }
        }
        return true;
    }

    std::string Story() const { return m_Difference + "\nafter\n" + Tell(m_Steps); }

private:
    void SetKind(int keyboard, reference::Kind kind)
    {
        m_Keyboards[keyboard]->Type = kind;
        m_Driver.SetKind(keyboard, kind);
    }

    void Expect(bool bDriver, bool bReference)
    {
        if (bDriver != bReference) {
            m_Difference = std::string("the driver says ") + (bDriver ? "yes" : "no");
        }
    }

    void Add(int keyboard)
    {
        const KeyDefinition definition = m_Keys.Definition();
        m_Steps.push_back({keyboard, {}, Tell(definition)});
        Expect(m_Driver.Add(keyboard, definition), m_Keyboards[keyboard]->Add(definition));
    }

    void Change(int keyboard)
    {
        if (m_Dice.In(2)) {
            Add(keyboard);
        } else if (m_Dice.In(10)) {
            m_Steps.push_back({keyboard, {}, "remove all"});
            m_Driver.RemoveAll(keyboard);
            m_Keyboards[keyboard]->RemoveAll();
        } else if (m_Dice.In(10)) {
            m_Steps.push_back({keyboard, {}, "its kind is known"});
            SetKind(keyboard, Driver::Kinds[keyboard]);
        } else {
            const uint32_t id = m_Dice.Below(m_Dice.In(2) ? 5 : 1001);
            m_Steps.push_back({keyboard, {}, "remove id " + std::to_string(id)});
            Expect(m_Driver.Remove(keyboard, id), m_Keyboards[keyboard]->Remove(id));
        }
    }

    bool Report(int keyboard)
    {
        reference::Keyboard& model = *m_Keyboards[keyboard];
        std::vector<uint8_t> report = m_Keys.Report(model.Type);
        m_Steps.push_back({keyboard, report, ""});
        const bool bModifiersFirst = m_Dice.In(2); // as the road does with a report of 8 bytes
        // A change of definitions writes to the log as well.
        const Outcome driver = m_Driver.Report(keyboard, report, bModifiersFirst);
        if (bModifiersFirst) {
            model.UpdateModifierFlags(report.data(), static_cast<uint32_t>(report.size()), true);
        }
        Outcome wanted;
        wanted.Taken = model.Report(static_cast<uint32_t>(report.size()), report.data());
        wanted.Report = std::move(report);
        wanted.Events = std::move(model.Events);
        model.Events.clear();
        wanted.Swallowed.assign(model.Swallowed.Bytes, model.Swallowed.Bytes + model.Swallowed.Count);
        wanted.Inserted.assign(model.Inserted.Bytes, model.Inserted.Bytes + model.Inserted.Count);
        wanted.OldPacket.assign(model.OldPacket, model.OldPacket + sizeof(model.OldPacket));
        wanted.OldPowerPacket.assign(model.OldPowerPacket,
                                     model.OldPowerPacket + sizeof(model.OldPowerPacket));
        wanted.Flags = {m_World.Word,           m_World.PrefixReleased, m_World.PrefixUnmatched,
                        m_World.HotkeyComplete, m_World.EscAbort,       m_World.SwallowPending,
                        model.HotkeyActive,     model.ActiveHotkeyId,   1};
        wanted.Log = std::move(m_World.LogText);
        m_World.LogText.clear();
        return Equal(driver, wanted, &m_Difference);
    }

    Driver& m_Driver;
    Dice m_Dice;
    Keys m_Keys;
    reference::World m_World;
    std::vector<std::unique_ptr<reference::Keyboard>> m_Keyboards;
    std::vector<Step> m_Steps;
    std::string m_Difference;
};

struct Log {
    const char* Name;
    bool bOn;
    uint32_t ulLevel;
    unsigned Share; // of the reports, in percent
};

class Differential : public testing::TestWithParam<Log>
{
};

TEST_P(Differential, TheDriverEqualsTheReferenceAfterEachReport)
{
    enum : unsigned { REPORTS_A_RUN = 200 };
    Driver driver;
    const uint64_t alone = FromEnvironment("TV64USB_SEED", 0);
    const uint64_t runs = FromEnvironment("TV64USB_REPORTS", 200000) * GetParam().Share / 100 / REPORTS_A_RUN;
    const uint64_t first = alone != 0 ? alone : 1;
    const uint64_t last = alone != 0 ? alone : runs;
    for (uint64_t seed = first; seed <= last; seed++) {
        Comparison run(driver, seed, GetParam().bOn, GetParam().ulLevel);
        ASSERT_TRUE(run.Go(REPORTS_A_RUN)) << "seed " << seed << ": " << run.Story();
    }
}

const Log Logs[] = {{"Off", false, 3, 70},
                    {"Level3", true, 3, 13},
                    {"Level1", true, 1, 10},
                    {"Level0", true, 0, 4},
                    {"Level10", true, 10, 3}};
INSTANTIATE_TEST_SUITE_P(Log, Differential, testing::ValuesIn(Logs),
                         [](const testing::TestParamInfo<Log>& info) {
                             return std::string(info.param.Name);
                         });
} // namespace
