// trace_test.cpp - the driver as a provider of the system's event tracing: who is told what, and when.
#include "registry.h"
#include "machine.h"
#include "urbs.h"
#include "control/control.h"
#include "control/notification.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "report/report.h"
#include "trace_decoder.h"
#include "usb/pending.h"
#include "usb/usb.h"

namespace
{
using Lines = std::vector<std::string>;

// --- the provider

// Ctrl+F1 pressed and released at a keyboard with a hotkey on it, while a session listens from before the driver
// is loaded. Prepare runs right before that, when the host runs.
struct Scene {
    explicit Scene(const std::function<void()>& prepare, UCHAR ucLevel = 0, ULONGLONG ullKeywords = 0)
    {
        EmuMachineOptions options = DriverOptions();
        options.BeforeLoad = [&] {
            Listener.Begin(ucLevel, ullKeywords);
            prepare();
        };
        EmuMachine machine(options);
        HostFailNth(nullptr, 0);
        EXPECT_EQ(STATUS_SUCCESS, machine.LoadStatus());
        EmuKeyboard* pKeyboard = machine.Plug(EmuBootKeyboard, {});
        const KeyDefinition definition = Hotkey(7);
        EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(pKeyboard->Filter(), &definition));
        EXPECT_EQ(STATUS_SUCCESS, StartReportProcessing(pKeyboard->Index()));
        pKeyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        EXPECT_EQ(2u, pKeyboard->Received().size()) << "served, with or without tracing";
        EXPECT_EQ(0u, machine.Unload()) << "things left over, a registration among them";
    }
    TraceListener Listener;
};

TEST(Trace, EventsAreReadWithoutTheDriversSources)
{
    Scene scene([] {});
    std::map<USHORT, std::string> names;
    std::map<std::string, USHORT> ids;
    for (const HostTraceEvent& event : scene.Listener.Events) {
        const std::string line = TraceListener::Decode(event);
        const std::string name = line.substr(0, line.find(' '));
        EXPECT_EQ(names.emplace(event.Descriptor.Id, name).first->second, name);
        EXPECT_EQ(ids.emplace(name, event.Descriptor.Id).first->second, event.Descriptor.Id) << name;
        EXPECT_FALSE(event.Traits.empty() || event.Metadata.empty()) << "the system tells the parts apart";
        EXPECT_TRUE(event.Descriptor.Level >= 3 && event.Descriptor.Level <= 5) << line;
        EXPECT_NE(0u, event.Descriptor.Keyword) << line;
    }
    EXPECT_GE(names.size(), 12u);
    const Lines lines = scene.Listener.Take({"DriverLoaded", "DriverUnloads", "ModifierChanged"});
    const std::string path = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tv64USB";
    EXPECT_EQ((Lines{"DriverLoaded registryPath=" + path,
                     "ModifierChanged keyboard=0 modifier=0x2 down=1 modifiers=0x402",
                     "ModifierChanged keyboard=0 modifier=0x2 down=0 modifiers=0x0",
                     "DriverUnloads registryPath=" + path}),
              lines);
}

TEST(Trace, SessionsChooseByLevelAndKeyword)
{
    const auto names = [](UCHAR ucLevel, ULONGLONG ullKeywords) {
        Scene scene([] {}, ucLevel, ullKeywords);
        std::set<std::string> found;
        for (const std::string& line : scene.Listener.Take()) {
            found.insert(line.substr(0, line.find(' ')));
        }
        return found;
    };
    EXPECT_EQ(names(TRACE_WARNING, 0), std::set<std::string>{});
    EXPECT_EQ(names(TRACE_INFO, TRACE_LIFE), (std::set<std::string>{"DriverLoaded", "DriverUnloads"}));
    EXPECT_EQ(names(TRACE_INFO, TRACE_REPORTS | TRACE_USB),
              (std::set<std::string>{"ConfigurationSelected", "Interface"}));
    EXPECT_EQ(names(TRACE_VERBOSE, TRACE_REPORTS | TRACE_HOTKEYS),
              (std::set<std::string>{"HotkeyListEntry", "HotkeyLookedAt", "HotkeyState", "HotkeysArmed",
                                     "KeyPassed", "ModifierChanged", "ReportTaken"}));
}

// Each look-up, the registration and the provider's name fail in turn, then all look-ups: the driver serves all
// the same. Without the last two of them events come, but nothing tells the system which bytes are what.
TEST(Trace, ASystemWithoutItIsServed)
{
    const struct {
        const char* pszKind;
        unsigned uNth;
        bool bFromThenOn;
        bool bEvents;
    } cases[] = {
        {"routine", 1, true, false},  {"routine", 1, false, false}, {"routine", 2, false, false},
        {"routine", 3, false, false}, {"routine", 4, false, true},  {"trace", 1, false, false},
        {"trace", 2, false, true},
    };
    Scene whole([] {});
    const Lines lines = whole.Listener.Take({"DriverLoaded", "ModifierChanged", "HotkeyListEntry"});
    EXPECT_EQ(4u, lines.size());
    for (const auto& row : cases) {
        SCOPED_TRACE(testing::Message() << row.pszKind << " " << row.uNth << " " << row.bFromThenOn);
        Scene scene([&] { HostFailNth(row.pszKind, row.uNth, row.bFromThenOn); });
        EXPECT_EQ(scene.Listener.Events.empty(), !row.bEvents);
        for (const HostTraceEvent& event : scene.Listener.Events) {
            EXPECT_TRUE(event.Traits.empty() && event.Metadata.empty());
        }
        EXPECT_EQ(row.bEvents ? lines : Lines{},
                  scene.Listener.Take({"DriverLoaded", "ModifierChanged", "HotkeyListEntry"}));
    }
}

class TraceTest : public KeyboardTest
{
protected:
    // Begins at level 5 and forgets what the start traced.
    void Listen()
    {
        Listener.Begin(TRACE_VERBOSE);
        Listener.Take();
    }
    // What a request at the keyboard is called in the events.
    static std::string NameOf(PIRP pIrp)
    {
        char text[24];
        snprintf(text, sizeof(text), "0x%llx", static_cast<ULONGLONG>(reinterpret_cast<ULONG_PTR>(pIrp)));
        return text;
    }
    static KeyDefinition Sale(uint32_t ulId)
    {
        KeyDefinition definition = {};
        definition.ulId = ulId;
        definition.ulType = 5;
        return definition;
    }
    TraceListener Listener;
};

TEST_F(TraceTest, TheFlagFollowsTheSessions)
{
    EXPECT_EQ(0, ucTraceLevel);
    TraceListener other;
    Listener.Begin(TRACE_WARNING);
    EXPECT_EQ(TRACE_WARNING, ucTraceLevel);
    other.Begin();
    EXPECT_EQ(0xFF, ucTraceLevel) << "level 0 asks for every level";
    other.End();
    EXPECT_EQ(TRACE_WARNING, ucTraceLevel);
    Keyboard->Report({2, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(Lines{}, Listener.Take()) << "of a lower level alone";
    Listener.End();
    EXPECT_EQ(0, ucTraceLevel);
}

// A report that means nothing to anybody is traced as every other one.
TEST_F(TraceTest, ACalmReportIsTold)
{
    const KeyDefinition definition = Hotkey(7);
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    EXPECT_EQ(STATUS_SUCCESS, StartReportProcessing(Keyboard->Index()));
    Listen();
    Keyboard->Report({2, 0, 4, 0, 0, 0, 0, 0});
    EXPECT_EQ(Lines{"ModifierChanged keyboard=0 modifier=0x8 down=1 modifiers=0x808"},
              Listener.Take({"ModifierChanged"}));
}

TEST_F(TraceTest, TheLogStaysAsItIs)
{
    const auto logged = [&] {
        KeptLog log(LOG_DETAIL);
        const KeyDefinition definition = Hotkey(7, MODIFIER_ANY_CONTROL, {0x3B});
        EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
        Keyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
        Keyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        EXPECT_EQ(STATUS_SUCCESS, RemoveKeyDefinition(Filter(), 7));
        return log.Take();
    };
    EXPECT_EQ(STATUS_SUCCESS, StartReportProcessing(Keyboard->Index()));
    const std::string alone = logged();
    Listen();
    EXPECT_EQ(logged(), alone);
    EXPECT_GT(alone.size(), 1000u);
    EXPECT_GT(Listener.Take().size(), 5u);
}

// --- each trace point in its situation

TEST_F(TraceTest, WhatTheKeyboardSaysOfItself)
{
    Listen();
    Machine->Plug(EmuBootKeyboard, {});
    EXPECT_EQ((Lines{"ConfigurationSelected keyboard=1 completed=0 interface=0 alternate=0 class=0x0 "
                     "subClass=0x0 protocol=None pipes=1",
                     "ConfigurationSelected keyboard=1 completed=1 interface=0 alternate=0 class=0x3 "
                     "subClass=0x1 protocol=Keyboard pipes=1"}),
              Listener.Take({"ConfigurationSelected"}));
    Machine->Plug(EmuBootKeyboard, {});
    EXPECT_EQ((Lines{"Interface keyboard=2 class=0x3 subClass=0x1 protocol=Keyboard",
                     "TakesPart keyboard=2 on=1", "HidDescriptor version=0x110 country=0 descriptors=1",
                     "HidClassDescriptor type=Report descriptor (class) length=63"}),
              Listener.Take({"Interface", "HidDescriptor", "HidClassDescriptor", "TakesPart"}));
    URB urb = {};
    urb.UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    for (const size_t length : {sizeof(urb.UrbHeader), offsetof(struct _URB_SELECT_CONFIGURATION, Interface),
                                offsetof(struct _URB_SELECT_CONFIGURATION, Interface.Pipes)}) {
        urb.UrbHeader.Length = static_cast<USHORT>(length);
        FilterIrp request(Filter(), &urb);
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 1));
    }
    urb.UrbSelectConfiguration.ConfigurationDescriptor =
        reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(&urb);
    urb.UrbSelectConfiguration.Interface.Protocol = 2;
    for (const size_t length : {offsetof(struct _URB_SELECT_CONFIGURATION, Interface),
                                offsetof(struct _URB_SELECT_CONFIGURATION, Interface.Pipes)}) {
        urb.UrbHeader.Length = static_cast<USHORT>(length);
        FilterIrp request(Filter(), &urb);
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
    }
    urb.UrbSelectConfiguration.Interface.Protocol = 3;
    FilterIrp request(Filter(), &urb);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
    EXPECT_EQ((Lines{"Deconfigured keyboard=0 completed=1", "Deconfigured keyboard=0 completed=1",
                     "ConfigurationSelected keyboard=0 completed=0 interface=0 alternate=0 class=0x0 "
                     "subClass=0x0 protocol=Mouse pipes=0",
                     "ConfigurationSelected keyboard=0 completed=0 interface=0 alternate=0 class=0x0 "
                     "subClass=0x0 protocol=Reserved pipes=0"}),
              Listener.Take({"Deconfigured", "ConfigurationSelected"}))
        << "as far as the URB reaches";
}

TEST_F(TraceTest, RequestsAndTheirFailures)
{
    Listen();
    EmuBytes data(18);
    const UCHAR ucSetup[8] = {0x80, 6, 0, 1, 0, 0, 18, 0};
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->Control(ucSetup, data, EmuHidRouteControl));
    const std::string packet = "SetupPacket direction=Device-to-host type=Standard recipient=Device "
                               "request=GET_DESCRIPTOR value=0x100 index=0x0 length=18";
    EXPECT_EQ((Lines{"UrbSeen keyboard=0 completed=0 function=URB_FUNCTION_CONTROL_TRANSFER", packet,
                     "Descriptor keyboard=0 type=INVALID descriptor", // nothing is there yet
                     "UrbSeen keyboard=0 completed=1 function=URB_FUNCTION_CONTROL_TRANSFER", packet,
                     "Descriptor keyboard=0 type=Device descriptor"}),
              Listener.Take());
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->Control(ucSetup, data, EmuHidRouteDescriptor));
    EXPECT_EQ((Lines{"DescriptorRequest keyboard=0 completed=0 type=Device descriptor index=0",
                     "DescriptorRequest keyboard=0 completed=1 type=Device descriptor index=0"}),
              Listener.Take({"DescriptorRequest"}));
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->FailRead(STATUS_DEVICE_NOT_CONNECTED));
    EXPECT_EQ((Lines{"RequestFailed keyboard=0 status=0xc000009d"}), Listener.Take({"RequestFailed"}));
    EXPECT_EQ(STATUS_SUCCESS, SendLedReport(Filter(), 1));
    EXPECT_EQ(
        (Lines{"RequestSent keyboard=0 function=URB_FUNCTION_CLASS_INTERFACE status=0x0 urbStatus=0x0"}),
        Listener.Take({"RequestSent"}));
}

TEST_F(TraceTest, TheListOfPendingReads)
{
    EmuPlugOptions options;
    options.Manual = true;
    options.Reads = 101;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    Listen();
    Lines expected;
    for (ULONG ulReads = 1; ulReads <= 3; ulReads++) {
        Keyboard->Read();
        for (ULONG i = 0; i < ulReads; i++) {
            expected.push_back("PendingRead keyboard=1 index=" + std::to_string(i) + " count=" +
                               std::to_string(ulReads) + " request=" + NameOf(Context()->PendingIrps[i]));
        }
    }
    EXPECT_EQ(expected, Listener.Take({"PendingRead", "PendingListFull"}));
    for (ULONG i = 3; i <= 100; i++) {
        Keyboard->Read();
    }
    const Lines full = Listener.Take({"PendingListFull"});
    ASSERT_EQ(1u, full.size()) << "the 101st";
    EXPECT_EQ(0u, full[0].find("PendingListFull keyboard=1 request=0x"));
}

TEST_F(TraceTest, ReportsAndModifiers)
{
    Listen();
    Keyboard->Report({0, 0, 1, 1, 1, 1, 1, 1});
    UCHAR ucRollover[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(STATUS_UNSUCCESSFUL, DiagUSBPacket(Filter(), 8, ucRollover));
    EXPECT_EQ(
        (Lines{"Rollover keyboard=0 report=0000010101010101", "Rollover keyboard=0 report=0101010101010101"}),
        Listener.Take({"Rollover"}));
    Keyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
    Listener.Take();
    Keyboard->Report({0x42, 0, 0, 0, 0, 0, 0, 0}); // left Shift, right Alt
    Keyboard->Report({0x40, 0, 0, 0, 0, 0, 0, 0});
    Keyboard->Report({0x40, 0, 4, 0, 0, 0, 0, 0}); // no change
    EXPECT_EQ((Lines{"ModifierChanged keyboard=0 modifier=0x8 down=1 modifiers=0x1848",
                     "ModifierChanged keyboard=0 modifier=0x40 down=1 modifiers=0x1848",
                     "ModifierChanged keyboard=0 modifier=0x8 down=0 modifiers=0x1040"}),
              Listener.Take({"ModifierChanged"}))
        << "the word has Any Shift and Any Alt too";
}

TEST_F(TraceTest, HotkeyListsAfterEachChange)
{
    Machine->Plug(EmuBootKeyboard, {});
    Listen();
    const std::set<std::string> names = {"HotkeyListEntry", "KeyDropped", "ScanCodeUnknown"};
    const std::string first = "HotkeyListEntry keyboard=0 index=0 id=7 modifiers=0x400 keyCount=1 "
                              "keys=3A00000000000000";
    const std::string second = "HotkeyListEntry keyboard=1 index=0 id=8 modifiers=0x0 keyCount=1 "
                               "keys=0400000000000000";
    const KeyDefinition control = Hotkey(7, MODIFIER_ANY_CONTROL, {0x3B});
    const KeyDefinition prefix = Hotkey(8, 0, {0x7D, 0x1E}); // the first is the prefix key
    const KeyDefinition unknown = Hotkey(9, 0, {0x7F});
    const KeyDefinition sale = Sale(10);
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinitionByIndex(0, &control));
    EXPECT_EQ((Lines{first}), Listener.Take(names));
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinitionByIndex(1, &prefix));
    EXPECT_EQ((Lines{"KeyDropped keyboard=1 key=0x89", second, first}), Listener.Take(names))
        << "of all keyboards, the newest first";
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinitionByIndex(1, &unknown));
    EXPECT_EQ((Lines{"KeyDropped keyboard=1 key=0x89", "ScanCodeUnknown scanCode=0x7f", second, first}),
              Listener.Take(names));
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinitionByIndex(0, &sale));
    EXPECT_EQ((Lines{second, first}), Listener.Take(names));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, RemoveKeyDefinitionByIndex(0, 99));
    EXPECT_EQ((Lines{second, first}), Listener.Take(names)) << "also when nothing was removed";
    EXPECT_EQ(STATUS_SUCCESS, RemoveKeyDefinitionByIndex(0, 7));
    EXPECT_EQ((Lines{second}), Listener.Take(names));
    FreeKeyDefinitions(Filter());
    EXPECT_EQ((Lines{second}), Listener.Take(names));
}

TEST_F(TraceTest, FullAndEmptyQueues)
{
    Listen();
    for (ULONG i = 0; i < KEY_BUFFER_SIZE; i++) {
        UCHAR ucReport[3] = {0, 4, 0}, ucUsage = 5;
        EXPECT_EQ(2u, SwallowScan(Filter(), ucReport, 3, 1));
        EXPECT_TRUE(AddDataToInsertBuffer(Filter(), &ucUsage));
    }
    const FifoEntry entry = {0, 3, {1, 2, 3}};
    for (ULONG i = 0; i < FIFO_SIZE; i++) {
        EXPECT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
    }
    const UCHAR ucLock = USAGE_NUM_LOCK;
    for (ULONG i = 0; i < DISCARD_RING_SIZE; i++) {
        EXPECT_EQ(STATUS_SUCCESS, AddDiscardedPacket(Filter(), &ucLock, 0));
    }
    for (ULONG i = 0; i < NOTIFY_QUEUE_SIZE; i++) {
        EXPECT_EQ(STATUS_SUCCESS, QueueEvent(Filter(), 7, 1, 0, NOTIFY_SOURCE_HOTKEY));
    }
    const MacroRecord record = {MACRO_RECORD_MODE, 0, 1, 0, {}};
    for (ULONG i = 0; i < MACRO_QUEUE_SIZE; i++) {
        EXPECT_EQ(STATUS_SUCCESS, QueueMacroRecord(&record));
    }
    const std::vector<std::string> kept = Listener.Take();
    EXPECT_EQ(2u * KEY_BUFFER_SIZE, kept.size());
    EXPECT_EQ(std::set<std::string>(kept.begin(), kept.end()),
              (std::set<std::string>{"KeyHeldBack keyboard=0 key=0x4", "KeyGiven keyboard=0 key=0x5"}));
    UCHAR ucReport[3] = {0, 6, 0}, ucUsage = 7;
    EXPECT_EQ(3u, SwallowScan(Filter(), ucReport, 3, 1));
    EXPECT_FALSE(AddDataToInsertBuffer(Filter(), &ucUsage));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertUSBPacketFifin(Filter(), &entry));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddDiscardedPacket(Filter(), &ucLock, 0));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, QueueEvent(Filter(), 7, 0xE0, 0, NOTIFY_SOURCE_HOTKEY));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, QueueMacroRecord(&record));
    FifoEntry taken;
    while (NT_SUCCESS(GetUSBPacketFifo(Keyboard->Index(), &taken))) {
    }
    EXPECT_EQ((Lines{"SwallowBufferFull keyboard=0 key=0x6", "InsertBufferFull keyboard=0 key=0x7",
                     "FifoFull keyboard=0 report=010203", "DiscardRingFull keyboard=0 value=0x53",
                     "NotifyQueueFull keyboard=0 id=7 value=0xe0", "MacroQueueFull type=1",
                     "FifoEmpty keyboard=0"}),
              Listener.Take());
    DiscardSwallowBuffer(Filter());
    while (GetDataFromInsertBuffer(Filter(), &ucUsage)) {
    }
}

// What became of each key and of each hotkey that it can mean, in the driver's order.
TEST_F(TraceTest, KeysAtTheHotkeys)
{
    KeyDefinition swallowing = Hotkey(7), pair = Hotkey(8, MODIFIER_ANY_CONTROL, {0x1E, 0x30}),
                  modifiers = Hotkey(9, MODIFIER_LEFT_SHIFT | MODIFIER_LEFT_ALT, {});
    swallowing.ulSwallow = modifiers.ulSwallow = 1;
    for (const KeyDefinition* p : {&swallowing, &pair, &modifiers}) {
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), p));
    }
    EXPECT_EQ(STATUS_SUCCESS, StartReportProcessing(Keyboard->Index()));
    Listen();
    const struct {
        EmuBytes report;
        bool bSimple;
        Lines lines;
    } rows[] = {
        {{1, 0, 0x3A, 0, 0, 0, 0, 0}, // taken from the system
         false,
         {"ReportTaken mode=hotkeys report=01003A0000000000", "HotkeysArmed modifiers=0x402",
          "KeyPassed key=0x3a down=1", "HotkeyLookedAt index=0 id=7 modifiers=0x402 armed=1",
          "KeyHeldBack key=0x3a", "HotkeyState index=0 id=7 held=01 state=down",
          "KeysTaken keys=3A by=a hotkey", "ModifiersTaken modifiers=0x1"}},
        {{1, 0, 4, 0x3A, 0, 0, 0, 0}, // a key of another hotkey, which waits for the second one; F1 goes on
         false,
         {"ReportTaken mode=hotkeys report=0100043A00000000", "HotkeysArmed modifiers=0x402",
          "KeyPassed key=0x4 down=1", "HotkeyLookedAt index=1 id=8 modifiers=0x402 armed=1",
          "KeyHeldBack key=0x4", "HotkeyState index=0 id=7 held=01 state=stays",
          "HotkeyState index=1 id=8 held=0100 state=incomplete", "KeysTaken keys=04 by=a hotkey",
          "ModifiersTaken modifiers=0x1", "KeyPassed key=0x3a down=1",
          "HotkeyLookedAt index=0 id=7 modifiers=0x402 armed=1", "KeyHeldBack key=0x3a",
          "HotkeyState index=0 id=7 held=01 state=stays",
          "HotkeyState index=1 id=8 held=0100 state=incomplete", "KeysTaken keys=3A by=a hotkey",
          "ModifiersTaken modifiers=0x0"}},
        {{1, 0, 9, 0, 0, 0, 0, 0}, // both go up, which empties the report
         false,
         {"ReportTaken mode=hotkeys report=0100090000000000", "HotkeysArmed modifiers=0x402",
          "KeyPassed key=0x4 down=0", "HotkeyLookedAt index=1 id=8 modifiers=0x402 armed=1",
          "HotkeyState index=0 id=7 held=01 state=stays", "HotkeyState index=0 id=7 held=01 state=stays",
          "ModifiersTaken modifiers=0x1", "KeyPassed key=0x3a down=0",
          "HotkeyLookedAt index=0 id=7 modifiers=0x402 armed=1", "HotkeyState index=0 id=7 held=00 state=up",
          "KeysTaken keys=09 by=the release of a hotkey"}},
        {{6, 0, 0, 0, 0, 0, 0, 0}, // modifiers only
         false,
         {"ReportTaken mode=hotkeys report=0600000000000000", "HotkeyState index=2 id=9 held= state=down",
          "ModifiersTaken modifiers=0x6", "HotkeysArmed modifiers=0x0", "KeyPassed key=0x9 down=0"}},
        {{1, 0, 0x3A, 0, 0, 0, 0, 0}, // held until another key comes
         false,
         {"ReportTaken mode=hotkeys report=01003A0000000000", "HotkeyState index=2 id=9 held= state=up",
          "HotkeysArmed modifiers=0x402", "KeyPassed key=0x3a down=1",
          "HotkeyLookedAt index=0 id=7 modifiers=0x402 armed=1", "KeyHeldBack key=0x3a",
          "HotkeyState index=0 id=7 held=01 state=down", "KeysTaken keys=3A by=a hotkey",
          "ModifiersTaken modifiers=0x1"}},
        {{1, 0, 0x3A, 9, 0, 0, 0, 0},
         false,
         {"ReportTaken mode=hotkeys report=01003A0900000000", "HotkeysArmed modifiers=0x402",
          "KeyPassed key=0x3a down=1", "HotkeyLookedAt index=0 id=7 modifiers=0x402 armed=1",
          "KeyHeldBack key=0x3a", "HotkeyState index=0 id=7 held=01 state=stays",
          "KeysTaken keys=3A by=a hotkey", "ModifiersTaken modifiers=0x1", "KeyPassed key=0x9 down=1",
          "KeyHeldBack key=0x9", "KeyGiven key=0x9", "HotkeyState index=0 id=7 held=01 state=ended"}},
        {{1, 0, 0x3A, 0, 0, 0, 0, 0}, // at simple matching
         true,
         {"ReportTaken mode=hotkeys report=01003A0000000000", "HotkeysArmed modifiers=0x402",
          "HotkeyLookedAt index=0 id=7 modifiers=0x402 armed=1", "KeysTaken keys=3A by=a hotkey",
          "HotkeyState index=0 id=7 held=01 state=down"}},
        {{0, 0, 0, 0, 0, 0, 0, 0},
         true,
         {"ReportTaken mode=hotkeys report=0000000000000000", "HotkeysArmed modifiers=0x0",
          "HotkeyLookedAt index=0 id=7 modifiers=0x0 armed=0", "HotkeyState index=0 id=7 held=01 state=up"}},
    };
    static char buffer[0xA000];
    static WCHAR name[] = L"n";
    const UNICODE_STRING file = Settings.LogFileName;
    for (bool bLogged : {false, true}) { // with the log a walk meets every hotkey, and tells of the same ones
        Settings.LogFileName = {2, 4, name};
        Settings.ulLogLevel = LOG_TRAFFIC;
        Globals.pLogBuffer = bLogged ? buffer : nullptr;
        for (const auto& row : rows) {
            Context()->ucRunDiagNormalPacket02 = row.bSimple;
            Keyboard->Report(row.report);
            Lines lines =
                Listener.Take({"ReportTaken", "HotkeysArmed", "KeyPassed", "HotkeyLookedAt", "HotkeyState",
                               "KeysTaken", "KeyHeldBack", "KeyGiven", "ModifiersTaken", "ReadAnswered"});
            for (std::string& line : lines) {
                line.erase(line.find(" keyboard=0"), sizeof("keyboard=0"));
            }
            EXPECT_EQ(row.lines, lines) << (bLogged ? "with the log" : "without");
        }
        Context()->ucRunDiagNormalPacket02 = 0;
        Keyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        Listener.Take();
    }
    Settings.LogFileName = file;
    Settings.ulLogLevel = 0;
    Globals.pLogBuffer = nullptr;
    const FifoEntry entry = {0, 8, {0, 0, 5}};
    EXPECT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
    Keyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ((Lines{"ReadAnswered keyboard=0 with=a whole report report=0000050000000000"}),
              Listener.Take({"ReadAnswered"}));
}

TEST_F(TraceTest, PointOfSaleKeys)
{
    const KeyDefinition sale = Sale(5);
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &sale));
    EXPECT_EQ(STATUS_SUCCESS, StartReportProcessing(Keyboard->Index()));
    Listen();
    Keyboard->Report({2, 0, 4, 0, 0, 0, 0, 0});
    Keyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ((Lines{"SaleModifier keyboard=0 modifier=Shift Left down=1",
                     "SaleScanCode keyboard=0 scanCode=0x2a break=0 repeats=1",
                     "SaleScanCode keyboard=0 scanCode=0x1e break=0 repeats=1",
                     "SaleModifier keyboard=0 modifier=Shift Left down=0",
                     "SaleScanCode keyboard=0 scanCode=0x2a break=1 repeats=1",
                     "SaleScanCode keyboard=0 scanCode=0x1e break=1 repeats=1"}),
              Listener.Take({"SaleModifier", "SaleScanCode"}));
}
} // namespace
