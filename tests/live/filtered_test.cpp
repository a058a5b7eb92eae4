// filtered_test.cpp - a real keyboard at the driver, with everything that its bus and what is above may do to it.
#include <gtest/gtest.h>

#include <csignal>
#include <linux/uhid.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/live/fakebus.h"
#include "tests/live/importer.h"
#include "tools/live/filtered.h"
#include "tools/live/usbip/server.h"
#include "tools/replay/configuration.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
constexpr unsigned Media = 0, Keys = 1; // the interfaces
const Bytes A = {0, 0, 4, 0, 0, 0, 0, 0}, None(8);

template <class Condition> bool Until(Condition condition)
{
    for (int i = 0; i < 500 && !condition(); i++)
        usleep(10000);
    return condition();
}

class Filtered : public testing::Test
{
protected:
    Filtered() : m_Machine({DriverEntry, {}, nullptr})
    {
        signal(SIGPIPE, SIG_IGN); // of what stands for /dev/uhid
        m_Told.Panic = [this] { m_bPanic = true; };
        m_Told.Beat = [this] { ++m_uBeats; };
        m_Told.Over = [this](const std::string& why) {
            std::lock_guard<std::mutex> lock(m_Lock);
            m_Over.push_back(why);
        };
    }
    ~Filtered() override
    {
        const auto begin = std::chrono::steady_clock::now();
        m_Keyboard.reset();
        EXPECT_EQ(0u, m_Machine.End());
        EXPECT_GT(std::chrono::seconds(5), std::chrono::steady_clock::now() - begin);
        CloseAbove();
    }

    // Fails (std::runtime_error) as the keyboard does.
    void Make(FakeBus::Plan plan = {}, usbip::Exports* pExports = nullptr)
    {
        OpenAbove();
        m_pBus = new FakeBus(std::move(plan));
        UsbFound found;
        found.name = "1-1";
        found.product = "Fake";
        m_Keyboard = std::make_unique<FilteredKeyboard>(m_Machine, found, std::unique_ptr<UsbBus>(m_pBus),
                                                        FilteredAbove{&m_Uhids, pExports}, m_Panic, m_Told);
    }

    // The next report that the system reads; empty when there is none within that time.
    Bytes Read(unsigned uInterface, int iWithinMs = 3000)
    {
        uhid_event event;
        pollfd wait = {m_aiAbove[uInterface], POLLIN, 0};
        while (poll(&wait, 1, iWithinMs) > 0 && recv(m_aiAbove[uInterface], &event, sizeof(event), 0) > 0)
            if (event.type == UHID_INPUT2)
                return {event.u.input2.data, event.u.input2.data + event.u.input2.size};
        return {};
    }

    // The system lights LEDs.
    void Light(uint8_t ucLeds)
    {
        uhid_event event = {};
        event.type = UHID_OUTPUT;
        event.u.output.data[0] = ucLeds;
        event.u.output.size = 1;
        event.u.output.rtype = UHID_OUTPUT_REPORT;
        EXPECT_EQ(ssize_t(sizeof(event)), send(m_aiAbove[Keys], &event, sizeof(event), 0));
    }

    bool IsOver(const std::string& why)
    {
        return Until([&] {
            std::lock_guard<std::mutex> lock(m_Lock);
            return std::find(m_Over.begin(), m_Over.end(), why) != m_Over.end();
        });
    }

    // What stands for /dev/uhid.
    void OpenAbove()
    {
        CloseAbove();
        for (int& iAbove : m_aiAbove) {
            int aiEnds[2];
            EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, aiEnds));
            m_Uhids.push_back(aiEnds[0]);
            iAbove = aiEnds[1];
        }
    }
    void CloseAbove()
    {
        for (int iUhid : std::exchange(m_Uhids, {}))
            if (iUhid >= 0)
                close(iUhid);
        for (int& iAbove : m_aiAbove)
            if (int iOpen = std::exchange(iAbove, -1); iOpen >= 0)
                close(iOpen);
    }

    void ExpectTyping()
    {
        m_pBus->Report(Keys, A);
        EXPECT_EQ(A, Read(Keys));
        m_pBus->Report(Keys, None);
        EXPECT_EQ(None, Read(Keys));
    }

    LiveMachine m_Machine;
    const PanicChord m_Panic{"Backspace+Escape+Enter"};
    std::vector<int> m_Uhids;
    int m_aiAbove[2] = {-1, -1};
    FilteredTold m_Told;
    std::atomic<bool> m_bPanic{false};
    std::atomic<unsigned> m_uBeats{0};
    std::mutex m_Lock; // guards what follows
    std::vector<std::string> m_Over;
    FakeBus* m_pBus = nullptr; // the keyboard's
    std::unique_ptr<FilteredKeyboard> m_Keyboard;
};

bool IsLed(const uint8_t* pSetup)
{
    return pSetup[0] == 0x21 && pSetup[1] == 9;
}

TEST_F(Filtered, TypesLightsAndBeats)
{
    Make();
    ExpectTyping();
    m_pBus->Report(Media, {1, 0xE9, 0});
    EXPECT_EQ((Bytes{1, 0xE9, 0}), Read(Media));
    Light(2);
    EXPECT_TRUE(Until([&] { return m_pBus->LastSetup() == Bytes{0x21, 9, 0, 2, 1, 0, 1, 0}; }));
    EXPECT_TRUE(Until([&] { return m_uBeats >= 3; }));
    EXPECT_FALSE(m_bPanic);
}

// Asked what it is, the keyboard has its moods: either it types then, or it is refused, and nothing hangs or stays behind.
TEST_F(Filtered, WhateverItAnswersWhenItIsAsked)
{
    const struct {
        const char* pName;
        Fate fate;
        unsigned uFrom, uTo; // which requests
        bool bTypes;
    } rows[] = {
        {"late", Fate::Late, 1, 99, true},
        {"short, the first", Fate::Short, 1, 1, false},
        {"short, all", Fate::Short, 1, 99, false},
        {"stalled, the first", Fate::Stalled, 1, 1, false},
        {"stalled, the second: its name", Fate::Stalled, 2, 2, true},
        {"failed, all", Fate::Failed, 1, 99, false},
        {"gone at the 1st", Fate::Gone, 1, 1, false},
        {"gone at the 2nd", Fate::Gone, 2, 2, false},
        {"gone at the 3rd", Fate::Gone, 3, 3, false},
        {"gone at the 4th", Fate::Gone, 4, 4, false},
        {"gone at the 5th", Fate::Gone, 5, 5, false},
        {"gone at the 6th", Fate::Gone, 6, 6, false},
        {"gone at the 8th", Fate::Gone, 8, 8, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pName);
        bool bMade = true;
        try {
            Make([row](unsigned uNth, const uint8_t*) {
                return uNth >= row.uFrom && uNth <= row.uTo ? row.fate : Fate::Answered;
            });
        } catch (const std::runtime_error&) {
            bMade = false;
        }
        EXPECT_EQ(row.bTypes, bMade);
        if (row.fate == Fate::Gone)
            EXPECT_TRUE(IsOver(""));
        m_Keyboard.reset();
    }
}

// Whatever is under way, a keyboard that is pulled out is told of, and what waits for it ends.
TEST_F(Filtered, IsPulledOutInAnyState)
{
    bool bSilent = false;
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"nothing is under way", [] {}},
        {"a key is held",
         [&] {
             m_pBus->Report(Keys, A);
             EXPECT_EQ(A, Read(Keys));
         }},
        {"LEDs are not answered",
         [&] {
             bSilent = true;
             Light(2);
             EXPECT_TRUE(Until([&] { return IsLed(m_pBus->LastSetup().data()); }));
         }},
        {"reports come",
         [&] {
             for (int i = 0; i < 100; i++)
                 m_pBus->Report(Keys, i % 2 ? A : None);
         }},
        {"the endpoint has failed", [&] { m_pBus->FailRead(Keys); }},
    };
    for (const auto& [name, state] : rows) {
        SCOPED_TRACE(name);
        bSilent = false;
        m_Over.clear();
        Make([&](unsigned, const uint8_t* pSetup) {
            return bSilent && IsLed(pSetup) ? Fate::Never : Fate::Answered;
        });
        state();
        m_pBus->Lose();
        EXPECT_TRUE(IsOver(""));
        m_Keyboard.reset();
    }
    Make();
    ExpectTyping(); // plugged in again
}

// LEDs that are never answered hold no key up, and neither the end.
TEST_F(Filtered, ASilentKeyboardTypesAndEnds)
{
    Make([](unsigned, const uint8_t* pSetup) { return IsLed(pSetup) ? Fate::Never : Fate::Answered; });
    Light(2);
    EXPECT_TRUE(Until([&] { return IsLed(m_pBus->LastSetup().data()); }));
    ExpectTyping();
}

TEST_F(Filtered, AnEndpointThatFailsIsReadAgainButNotForEver)
{
    Make();
    for (int i = 0; i < 10; i++)
        m_pBus->FailRead(Keys);
    EXPECT_TRUE(Until([&] { return m_pBus->uRecovered == 10; }));
    ExpectTyping(); // and counts from 0 again
    for (int i = 0; i < 11; i++)
        m_pBus->FailRead(Keys);
    EXPECT_TRUE(IsOver("the keyboard's bus fails again and again"));
}

// The delivery hangs, as what is above takes nothing: the heart stops, and the panic chord is seen all the same.
TEST_F(Filtered, ThePanicChordIsSeenWhileTheDeliveryHangs)
{
    Make();
    for (int i = 0; i < 2000; i++)
        m_pBus->Report(Keys, i % 2 ? A : None);
    usleep(300000); // what stands for /dev/uhid is full
    const unsigned uBeats = m_uBeats;
    m_pBus->Report(Keys, {0, 0, 0x2A, 0x29, 0x28, 0, 0, 0});
    EXPECT_TRUE(Until([&] { return m_bPanic.load(); }));
    usleep(300000);
    EXPECT_EQ(uBeats, m_uBeats);
    for (int i = 0; i < 2001; i++) // nothing is lost, and the order is the bus's
        ASSERT_EQ(i == 2000 ? (Bytes{0, 0, 0x2A, 0x29, 0x28, 0, 0, 0}) : i % 2 ? A : None, Read(Keys)) << i;
    EXPECT_TRUE(Until([&] { return m_uBeats > uBeats; }));
}

TEST_F(Filtered, ALostHidDeviceIsTold)
{
    Make();
    close(std::exchange(m_aiAbove[Keys], -1));
    m_pBus->Report(Keys, A);
    EXPECT_TRUE(IsOver("the HID device above takes no more reports"));
}

// As it is, with both interfaces: what is asked of one goes to that one, through the driver.
TEST_F(Filtered, AnotherMachineHasItWholeOverUsbip)
{
    usbip::Server server("127.0.0.1:0");
    Make({}, &server.Offered());
    {
        Machine machine(server.Port());
        ASSERT_EQ(0, machine.Import("1-1"));
        EXPECT_EQ(FakeDevice, machine.Control(1, {0x80, 6, 0, 1, 0, 0, 18, 0}).Data);
        EXPECT_EQ(FakeConfiguration, machine.Control(2, {0x80, 6, 0, 2, 0, 0, 255, 0}).Data);
        EXPECT_EQ((EmuBytes{10, 3, 'F', 0, 'a', 0, 'k', 0, 'e', 0}),
                  machine.Control(3, {0x80, 6, 2, 3, 9, 4, 255, 0}).Data);
        EXPECT_EQ(FakeMediaReport, machine.Control(4, {0x81, 6, 0, 0x22, 0, 0, 200, 0}).Data);
        EXPECT_EQ(63u, machine.Control(5, {0x81, 6, 0, 0x22, 1, 0, 200, 0}).Data.size());
        EXPECT_EQ(-32, machine.Control(6, {0x81, 6, 0, 0x22, 2, 0, 200, 0}).iStatus) << "no such interface";
        EXPECT_EQ(0, machine.Control(7, {0x21, 9, 0, 2, 1, 0, 1, 0}, {2}).iStatus);
        EXPECT_EQ((Bytes{0x21, 9, 0, 2, 1, 0, 1, 0}), m_pBus->LastSetup());
        EXPECT_EQ(Bytes{2}, m_pBus->LastOutput());
        machine.Put(Machine::Head(1, 8, true, 1, 8));
        machine.Put(Machine::Head(1, 9, true, 2, 8));
        m_pBus->Report(Media, {1, 0xE9, 0});
        EXPECT_EQ((EmuBytes{1, 0xE9, 0}), machine.TakeAnswer(true).Data);
        m_pBus->Report(Keys, A);
        EXPECT_EQ(A, machine.TakeAnswer(true).Data);
        machine.Put(Machine::Head(1, 10, true, 1, 8));
        machine.Put(Machine::Head(2, 11, false, 0, 10));
        EXPECT_EQ(-104, machine.TakeAnswer(false).iStatus) << "a read is taken back";
        m_pBus->Lose();
        EXPECT_TRUE(IsOver(""));
        m_Keyboard.reset();
        EXPECT_TRUE(machine.IsClosed()) << "whoever has it sees it pulled out";
        EXPECT_EQ(1, Machine(server.Port()).Import("1-1"));
    }
    Make({}, &server.Offered());
    Machine again(server.Port());
    ASSERT_EQ(0, again.Import("1-1"));
    again.Put(Machine::Head(1, 1, true, 1, 8));
    m_pBus->Report(Keys, A);
    EXPECT_EQ(A, again.TakeAnswer(true).Data);
    m_Keyboard.reset(); // before the server
}

// A machine that waits for an answer which never comes holds the end of the keyboard no more up than its own.
TEST_F(Filtered, AMachineThatWaitsDoesNotHoldItsKeyboardUp)
{
    usbip::Server server("127.0.0.1:0");
    Make([](unsigned, const uint8_t* pSetup) { return IsLed(pSetup) ? Fate::Never : Fate::Answered; },
         &server.Offered());
    Machine machine(server.Port());
    ASSERT_EQ(0, machine.Import("1-1"));
    EmuBytes request = Machine::Head(1, 1, false, 0, 1, {0x21, 9, 0, 2, 1, 0, 1, 0});
    request.push_back(2);
    machine.Put(request);
    EXPECT_TRUE(Until([&] { return IsLed(m_pBus->LastSetup().data()); }));
    m_Keyboard.reset();
    EXPECT_TRUE(machine.IsClosed());
}

TEST_F(Filtered, OnlyTheInterfacesThatWereTakenAreOffered)
{
    EXPECT_EQ(FakeConfiguration, ConfigurationOf(FakeConfiguration, {0, 1}));
    const Bytes own = ConfigurationOf(FakeConfiguration, {1});
    EXPECT_EQ(OwnConfiguration(FakeConfiguration, 1), own);
}
} // namespace
