// scenes.cpp - the scenes by name: WHAT-WHO[-HOTKEYS], as "typing-engine-511" or "press-trip-0".
//
//   engine      DiagUSBPacket on a buffer           reference   the plain walk of tests/reference
//   trip        from the keyboard to the HID stack  oldest, only   the trip at 127 keyboards or one
//   adds-...    one definition after the other      log-...        with the log on
//   request-... requests.cpp                        replay-json    replay.cpp
#include "scenes.h"

#include <cstring>
#include <ctime>
#include <malloc.h>
#include <map>
#include <vector>

#include "hotkeys/hotkeys.h"
#include "machine.h"
#include "report/report.h"

namespace
{
using Reports = std::vector<EmuBytes>;

// What is done at a keyboard: its reports one after the other, again and again, and how many events a round tells.
struct Deed {
    Hotkeys List; // Count is the scene's
    Reports Round;
    size_t Events;
};

const EmuBytes None(8);
const Deed* FindDeed(const std::string& name)
{
    const uint32_t ctrl = MODIFIER_ANY_CONTROL;
    const EmuBytes a = {0, 0, 0x04, 0, 0, 0, 0, 0}, six = {0, 0, 4, 5, 6, 7, 8, 9},
                   five = {0, 0, 4, 5, 6, 7, 8, 0};
    const EmuBytes held = {1, 0, 0, 0, 0, 0, 0, 0}, press = {1, 0, 0x45, 0, 0, 0, 0, 0};
    const EmuBytes two = {1, 0, 0x10, 0x11, 0, 0, 0, 0}, three = {1, 0, 0x10, 0x11, 0x12, 0, 0, 0};
    const EmuBytes one = {1, 0, 0x10, 0, 0, 0, 0, 0};
    const Scans f12 = {0x58}, chord = {0x32, 0x31, 0x18};
    static const std::map<std::string, Deed> Deeds = {
        {"typing", {{&EmuBootKeyboard, 0, 1, ctrl, {}}, {a, None}, 0}},
        {"typing3", {{&EmuBootKeyboard, 0, 3, ctrl, {}}, {a, None}, 0}},
        {"typing32", {{&EmuBootKeyboard, 0, 32, ctrl, {}}, {a, None}, 0}},
        {"six", {{&EmuBootKeyboard, 0, 1, ctrl, {}}, {six, five}, 0}},
        {"press", {{&EmuBootKeyboard, 0, 1, ctrl, f12}, {press, held}, 2}},
        {"chord", {{&EmuBootKeyboard, 0, 3, ctrl, chord}, {one, two, three, held}, 2}},
        {"media", {{&EmuPowerKeyboard, 0, 1, 0, {0xE0, 0x30}}, {{0xE9, 0}, {0, 0}}, 2}},
        {"worst", {{&EmuBootKeyboard, 0, 2, 0, {0x1E}, true}, {a, None}, 0}},
        {"jaalaa", {{&EmuJaalaaKeyboard, 0, 1, 0, {0xE0, 0x19}}, {{2, 1, 0, 0, 0}, {2, 0, 0, 0, 0}}, 2}},
        {"chic", {{&EmuChicKeyboard, 0, 1, 0, {0xE0, 0x32}}, {{3, 0, 0, 4}, {3, 0, 0, 0}}, 2}},
    };
    const auto found = Deeds.find(name);
    return found == Deeds.end() ? nullptr : &found->second;
}

double Now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

enum : unsigned { REPORTS_A_BLOCK = 4096, REPORTS_A_DROP = 256 };

// A report as the engine gets it. A copy of it costs next to nothing, so that the engine is measured and not the copy.
struct RawReport {
    uint8_t Bytes[8];
    uint32_t Length;
};

std::vector<RawReport> RawReports(const Reports& round)
{
    std::vector<RawReport> raw(round.size());
    for (size_t i = 0; i < round.size(); i++) {
        raw[i].Length = static_cast<uint32_t>(round[i].size());
        memcpy(raw[i].Bytes, round[i].data(), round[i].size());
    }
    return raw;
}

// The reports of the deed by `send`, the events dropped in between.
template <typename Report, typename Send, typename Drop>
double TimeReports(const std::vector<Report>& round, unsigned reports, Send send, Drop drop)
{
    const double start = Now();
    auto next = round.begin();
    for (unsigned i = 0; i < reports;) {
        for (unsigned end = i + REPORTS_A_DROP; i < end; i++) {
            send(*next);
            next = next + 1 == round.end() ? round.begin() : next + 1;
        }
        drop();
    }
    return (Now() - start) / reports;
}

Block Engine(const Deed& deed, const std::shared_ptr<Stage>& stage)
{
    return [=, round = RawReports(deed.Round)] {
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        PDEVICE_OBJECT device = stage->Keyboard()->Filter();
        const auto send = [&](RawReport report) { (void)DiagUSBPacket(device, report.Length, report.Bytes); };
        const double ns = TimeReports(round, REPORTS_A_BLOCK, send, [&] { stage->DropEvents(); });
        KeLowerIrql(oldIrql);
        return ns;
    };
}

Block Trip(const Deed& deed, const std::shared_ptr<Stage>& stage)
{
    return [=] {
        const auto send = [&](const EmuBytes& report) { stage->Keyboard()->Report(report); };
        return TimeReports(deed.Round, REPORTS_A_BLOCK, send, [&] { stage->DropEvents(); });
    };
}

Block Reference(const Deed& deed, const Hotkeys& list)
{
    static reference::World world;
    const std::map<const EmuDescriptors*, reference::Kind> kinds = {{&EmuBootKeyboard, reference::Normal},
                                                                    {&EmuPowerKeyboard, reference::Power},
                                                                    {&EmuJaalaaKeyboard, reference::Jaalaa},
                                                                    {&EmuChicKeyboard, reference::Chic}};
    auto keyboard = std::make_shared<reference::Keyboard>(world, kinds.at(list.Kind));
    for (const KeyDefinition& definition : DefinitionsOf(list)) {
        Require(keyboard->Add(definition), "the reference refused a definition");
    }
    return [=, round = RawReports(deed.Round)] {
        const auto send = [&](RawReport report) { (void)keyboard->Report(report.Length, report.Bytes); };
        return TimeReports(round, REPORTS_A_BLOCK / 4, send, [&] { keyboard->Events.clear(); });
    };
}

// A round once: it tells as many events as the deed says.
void Try(const Deed& deed, Stage& stage, const Block& block)
{
    (void)block();
    stage.DropEvents();
    for (const EmuBytes& report : deed.Round) {
        UCHAR ucReport[8];
        memcpy(ucReport, report.data(), report.size());
        (void)DiagUSBPacket(stage.Keyboard()->Filter(), static_cast<ULONG>(report.size()), ucReport);
    }
    Require(stage.Context()->ulNotifyCount == deed.Events, "not the events of this scene");
    stage.DropEvents();
}

// All of a list one by one, nanoseconds for the whole.
Block Adds(unsigned keys)
{
    const Hotkeys list = {&EmuBootKeyboard, 511, keys, MODIFIER_ANY_CONTROL, {}};
    auto stage = std::make_shared<Stage>(Hotkeys{&EmuBootKeyboard, 0, 1, 0, {}});
    const std::vector<KeyDefinition> definitions = DefinitionsOf(list);
    return [=] {
        const double start = Now();
        for (const KeyDefinition& definition : definitions) {
            stage->Define(definition);
        }
        const double ns = Now() - start;
        FreeKeyDefinitions(stage->Keyboard()->Filter());
        return ns;
    };
}

// The last of so many hotkeys, added again and again.
Block LastAdd(unsigned count)
{
    const Hotkeys list = {&EmuBootKeyboard, count, 1, MODIFIER_ANY_CONTROL, {}};
    auto stage = std::make_shared<Stage>(list);
    const KeyDefinition last = DefinitionsOf(list).back();
    return [=] {
        double ns = 0;
        for (int i = 0; i < 64; i++) {
            Require(RemoveKeyDefinition(stage->Keyboard()->Filter(), last.ulId) == STATUS_SUCCESS,
                    "no removal");
            const double start = Now();
            stage->Define(last);
            ns += Now() - start;
        }
        return ns / 64;
    };
}

// With the log on: typing whose text goes to the file report by report; or presses, of which each tells more than the
// buffer holds, the slowest of them.
Block Logged(bool bDrained)
{
    const Deed& deed = *FindDeed(bDrained ? "typing" : "press");
    Hotkeys list = deed.List;
    list.Count = 511;
    auto stage = std::make_shared<Stage>(list, 1, 3);
    return [=] {
        PDEVICE_OBJECT device = stage->Keyboard()->Filter();
        double worst = 0, all = 0;
        for (unsigned i = 0; i < 32; i++) {
            UCHAR ucReport[8];
            memcpy(ucReport, deed.Round[i % 2].data(), 8);
            const double start = Now();
            (void)DiagUSBPacket(device, 8, ucReport);
            if (bDrained) {
                HostSettle();
            }
            const double ns = Now() - start;
            worst = ns > worst ? ns : worst;
            all += ns;
        }
        stage->DropEvents();
        HostSettle();
        return bDrained ? all / 32 : worst;
    };
}

// No time: bytes.
Block Memory(unsigned hotkeys)
{
    return [=] {
        Stage stage({&EmuBootKeyboard, 0, 1, 0, {}});
        const size_t before = mallinfo2().uordblks;
        for (const KeyDefinition& definition :
             DefinitionsOf({&EmuBootKeyboard, hotkeys, 1, MODIFIER_ANY_CONTROL, {}})) {
            stage.Define(definition);
        }
        return static_cast<double>(sizeof(DeviceContext) + mallinfo2().uordblks - before);
    };
}

Block MakeReports(const Deed& deed, const std::string& who, unsigned hotkeys)
{
    Hotkeys list = deed.List;
    list.Count = hotkeys;
    if (who == "reference") {
        return Reference(deed, list);
    }
    auto stage = std::make_shared<Stage>(list, who == "oldest" ? 127 : 1);
    const bool bEngine = who.compare(0, 6, "engine") == 0;
    if (hotkeys != 0) {
        Try(deed, *stage, Engine(deed, stage));
        stage->Process();
    }
    return bEngine ? Engine(deed, stage) : Trip(deed, stage);
}
} // namespace

Block MakeScene(const std::string& name)
{
    const std::string what = name.substr(0, name.find('-'));
    const std::string rest = name.substr(what.size() + 1);
    const std::string who = rest.substr(0, rest.find('-'));
    const size_t dash = rest.rfind('-');
    const unsigned number =
        dash == std::string::npos ? 0 : static_cast<unsigned>(atoi(rest.c_str() + dash + 1));
    if (what == "adds") {
        return Adds(static_cast<unsigned>(atoi(who.c_str())));
    }
    if (what == "add") {
        return LastAdd(static_cast<unsigned>(atoi(who.c_str())));
    }
    if (what == "log") {
        return Logged(who == "drained");
    }
    if (what == "memory") {
        return Memory(static_cast<unsigned>(atoi(who.c_str())));
    }
    if (what == "request") {
        return MakeRequestScene(who);
    }
    if (what == "replay") {
        return MakeReplayScene();
    }
    const Deed* deed = FindDeed(what);
    return deed == nullptr ? Block() : MakeReports(*deed, who, number);
}
