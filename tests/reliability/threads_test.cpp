// threads_test.cpp - eight threads at four keyboards for a while, for the thread sanitizer and the driver's own
// rules: four people type, two applications work, one thread plugs and pulls, one sets LEDs and pulls reports back.
//
// TV64USB_SECONDS tells how long, 3 when it is not set.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "client/driver.h"
#include "client/host_transport.h"
#include "control/call.h"
#include "world.h"

namespace
{
using Clock = std::chrono::steady_clock;

struct Crowd {
    explicit Crowd(unsigned uSeconds) : End(Clock::now() + std::chrono::seconds(uSeconds)) {}
    bool Working() const { return Clock::now() < End; }

    Clock::time_point End;
    World System;
    std::atomic<unsigned> Received{0}, Typed{0}, Requests{0}, Found{0}, Pulled{0};
    std::atomic<ULONG> ulNewest{3}; // index of the keyboard that comes and goes
};

// Volume up and down, and now and then the mode hotkey, twice: while the mode is on, everybody is in it.
void TypePower(Crowd& crowd, EmuKeyboard* pKeyboard)
{
    for (unsigned i = 0; crowd.Working(); i++) {
        const EmuBytes key =
            i % 64 < 2 ? EmuBytes{0x23, 0x02} : EmuBytes{static_cast<UCHAR>(0xE9 + i % 2), 0};
        crowd.Typed += pKeyboard->Report(key) ? 1 : 0;
        crowd.Typed += pKeyboard->Report({0, 0}) ? 1 : 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Plain keys, two macro keys, a hotkey with its modifier, Esc, Caps Lock.
void Type(Crowd& crowd, EmuKeyboard* pKeyboard)
{
    static const UCHAR ucKeys[] = {0x04, 0x39, 0x3A, 0x3B, 0x29, 0x05, 0x1E};
    for (unsigned i = 0; crowd.Working(); i++) {
        const UCHAR ucModifiers = i % 3 == 0 ? 0x01 : 0;
        crowd.Typed += pKeyboard->Report({ucModifiers, 0, ucKeys[i % sizeof ucKeys], 0, 0, 0, 0, 0}) ? 1 : 0;
        crowd.Typed += pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0}) ? 1 : 0;
        if (i % 64 == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

// Asks for the keyboards and looks each up again by its index and its name, and one by a name that none has: the
// interfaces' names of all are compared while some of them go.
void Find(Crowd& crowd, bool b32)
{
    tvusb::Driver driver(tvusb::HostTransport(b32 ? tvusb::ProcessSize::Bits32 : tvusb::ProcessSize::Bits64));
    if (!driver.Open().Ok()) {
        return;
    }
    const auto keyboards = driver.GetKeyboards();
    for (const KeyboardInfo& info : *keyboards) {
        crowd.Found += driver.FindByIndex(info.ulDeviceIndex) ? 1 : 0;
    }
    EXPECT_FALSE(driver.FindByName(u"nobody"));
}

// Definitions of every routing type come and go, events are taken, keys and reports inserted, and each request
// is sent now and then.
void Apply(Crowd& crowd, bool b32)
{
    static const uint32_t ulTypes[] = {1, 1, 1, 5, 11};
    RequestPayload payload = {};
    payload.Memory.usLength = 8;
    ULONG ulCode = 0x222000;
    for (unsigned i = 0; crowd.Working(); i++) {
        EmuApplication application(b32);
        const ULONG ulIndex = i % 4 == 3 ? crowd.ulNewest.load() : i % 4;
        (void)application.RegisterNotifyEvent(ulIndex);
        (void)application.StartReportProcessing(ulIndex);
        KeyDefinition definition = {};
        definition.ulId = 1 + i % 9 + (b32 ? 100 : 0);
        definition.ulType = ulTypes[i % 5];
        definition.ulModifiers = definition.ulType == 1 ? 0x400 : 0;
        definition.ulSwallow = i % 2;
        definition.usScanCount = definition.ulType == 1 ? 1 : 0;
        definition.ucScans[0] = 0x3B;
        (void)application.AddDefinition(ulIndex, definition);
        (void)application.InsertScans(ulIndex, {0x2A, 0x1E, 0x9E, 0xAA});
        (void)application.InsertUSBPackets(ulIndex, {FifoEntry{0, 8, {0, 0, 6}}, FifoEntry{0, 8, {}}});
        (void)application.TakeRecords(ulIndex);
        (void)application.TakeMacroRecords();
        (void)application.RemoveDefinition(ulIndex, definition.ulId);
        do {
            ulCode = ulCode < 0x222200 ? ulCode + 4 : 0x222000;
        } while (FindRequestRow(ulCode) == nullptr || ulCode == IOCTL_TVUSB_INSERT_SCANS);
        std::vector<UCHAR> out;
        (void)application.RequestRecord(ulCode, ulIndex, &payload, sizeof payload, 2052, &out);
        if (i % 16 == 0) {
            Find(crowd, b32);
        }
        crowd.Requests += 10;
    }
}

// Two of three keyboards owe an answer when they are pulled: it comes late, or not as long as they are there.
void PlugAndPull(Crowd& crowd, const EmuPlugOptions& plug)
{
    const EmuAnswerRule never = {EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerNever, 0, 0, 0, 0};
    const EmuAnswerRule late = {EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerLate, 1, 0, 0, 0};
    for (unsigned i = 0; crowd.Working(); i++) {
        EmuKeyboard* pKeyboard = crowd.System.Machine->Plug(EmuBootKeyboard, plug);
        if (i % 3 != 0) {
            (void)pKeyboard->SetRules({i % 3 == 1 ? never : late});
        }
        crowd.ulNewest = pKeyboard->Index();
        // Not World::Press: it would settle, and wait for a work item that waits for an answer.
        pKeyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 4));
        pKeyboard->Unplug(i % 2 == 0);
        crowd.System.Machine->Forget(pKeyboard);
        crowd.Pulled++;
    }
}

void SetLeds(Crowd& crowd)
{
    for (unsigned i = 0; crowd.Working(); i++) {
        EmuKeyboard* pKeyboard = crowd.System.Keyboards[i % crowd.System.Keyboards.size()];
        (void)pKeyboard->SendLed(static_cast<UCHAR>(i % 8), i % 2 ? EmuHidRouteClass : EmuHidRouteControl);
        (void)pKeyboard->FailRead(STATUS_CANCELLED);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST(Threaded, ACrowdAtFourKeyboards)
{
    const char* pSeconds = getenv("TV64USB_SECONDS");
    Crowd crowd(pSeconds != nullptr ? static_cast<unsigned>(atoi(pSeconds)) : 3);
    crowd.System.Macros = MacroModeOnPowerKeys;
    crowd.System.Mode = HostThreaded;
    crowd.System.Load();
    ASSERT_EQ(STATUS_SUCCESS, crowd.System.Machine->LoadStatus());
    EmuPlugOptions plug;
    plug.Record = false;
    plug.OnReceived = [&](const EmuReceived& report) { crowd.Received += NT_SUCCESS(report.Status) ? 1 : 0; };
    for (int i = 0; i < 3; i++) {
        crowd.System.Keyboards.push_back(crowd.System.Machine->Plug(EmuBootKeyboard, plug));
        ASSERT_EQ(STATUS_SUCCESS, crowd.System.Keyboards.back()->StartStatus());
    }
    std::vector<HostThread> threads;
    for (EmuKeyboard* pKeyboard : crowd.System.Keyboards) {
        threads.push_back(HostStartThread([&crowd, pKeyboard] { Type(crowd, pKeyboard); }));
    }
    EmuKeyboard* pPower = crowd.System.Machine->Plug(EmuPowerKeyboard, plug);
    threads.push_back(HostStartThread([&crowd, pPower] { TypePower(crowd, pPower); }));
    threads.push_back(HostStartThread([&crowd] { Apply(crowd, false); }));
    threads.push_back(HostStartThread([&crowd] { Apply(crowd, true); }));
    threads.push_back(HostStartThread([&crowd, &plug] { PlugAndPull(crowd, plug); }));
    threads.push_back(HostStartThread([&crowd] { SetLeds(crowd); }));
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    printf("%u reports typed, %u received, about %u requests, %u keyboards found, %u pulled\n",
           crowd.Typed.load(), crowd.Received.load(), crowd.Requests.load(), crowd.Found.load(),
           crowd.Pulled.load());
    EXPECT_GT(crowd.Received, 0u);
    EXPECT_GT(crowd.Found, 0u);
    EXPECT_GT(crowd.Pulled, 0u);
    EXPECT_EQ(0u, crowd.System.Machine->Unload()) << "things left over";
}
} // namespace
