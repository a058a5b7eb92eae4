// scenario.cpp - who does what in a schedule's life, and what must hold at its end.
#include "scenario.h"

#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>

#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

namespace
{
enum { TYPED = 14, APPLIED = 5, LATEST_US = 10000000 };

struct Life {
    Life(unsigned long long ullSeed, const std::string& folder);
    unsigned Draw(unsigned uBelow) { return static_cast<unsigned>(Random() % uBelow); }
    void Pause();

    std::mt19937_64 Random; // threads take turns, so they share it
    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* pKeyboards[3] = {};
    const EmuDescriptors* pSecondKind = nullptr;
    EmuPlugOptions Plug;
    unsigned long long ullDigest = 0xcbf29ce484222325;
    unsigned uReceived = 0;
};

Life::Life(unsigned long long ullSeed, const std::string& folder) : Random(ullSeed)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.Seed = ullSeed;
    const char* pDropped = getenv("TV64USB_DROP_LOCK");
    options.DroppedLock = pDropped != nullptr ? pDropped : "";
    options.FileRoot = folder;
    // The mode hotkey on the standard keyboards keeps them from every other road; so does the mode itself.
    static const ULONG HOTKEYS[] = {0, 0x00010039, 0x02010023, 0x02010023};
    const ULONG ulHotkey = HOTKEYS[Draw(4)];
    pSecondKind = ulHotkey > 0xFFFFFF ? &EmuPowerKeyboard : &EmuBootKeyboard;
    options.Settings = {{"KorvexHotkey", ulHotkey},
                        {"KorvexLEDDisabled", Draw(2)},
                        {"KorvexDelay", Draw(3) * 5},
                        {"KorvexConfigFile", "\\??\\C:\\macros.bin"}};
    if (Draw(8) == 0) { // the log has a thread of its own and writes a file: slow, and always the same
        options.Settings["LogFile"] = "\\??\\C:\\driver.log";
        options.Settings["LogLevel"] = 1u;
    }
    Machine = std::make_unique<EmuMachine>(options);
    Plug.Record = false;
    Plug.Reads = 1 + Draw(2);
    Plug.LoopGuard = Draw(2) != 0;
    Plug.OnReceived = [this](const EmuReceived& received) {
        uReceived += NT_SUCCESS(received.Status) ? 1 : 0;
        ullDigest = (ullDigest ^ static_cast<ULONG>(received.Status)) * 0x100000001b3;
        for (UCHAR ucByte : received.Bytes) {
            ullDigest = (ullDigest ^ ucByte) * 0x100000001b3;
        }
    };
}

void Life::Pause()
{
    static const unsigned LENGTHS_MS[] = {0, 0, 0, 1, 2, 5, 10, 30};
    unsigned uMs = LENGTHS_MS[Draw(8)];
    if (uMs != 0) {
        LARGE_INTEGER time;
        time.QuadPart = uMs * -10000LL;
        KeDelayExecutionThread(KernelMode, FALSE, &time);
    }
}

// Plain keys, the macro mode's key, two macros, a hotkey with its modifier, Esc, the point-of-sale's arrow,
// Caps Lock; on a power keyboard its mode key and the volume.
void Type(Life& life, EmuKeyboard* pKeyboard, bool bPower)
{
    static const UCHAR KEYS[] = {0x04, 0x39, 0x3A, 0x3B, 0x29, 0x05, 0x52, 0x39};
    static const EmuBytes POWER[] = {{0x23, 0x02}, {0xE9, 0x00}, {0xE9, 0x00}, {0xEA, 0x00}};
    for (int i = 0; i < TYPED; i++) {
        if (bPower) {
            pKeyboard->Report(POWER[life.Draw(4)]);
            life.Pause();
            pKeyboard->Report({0, 0});
        } else {
            const UCHAR ucModifiers = life.Draw(3) == 0 ? 0x01 : 0;
            pKeyboard->Report({ucModifiers, 0, KEYS[life.Draw(sizeof KEYS)], 0, 0, 0, 0, 0});
            life.Pause();
            pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        }
        life.Pause();
    }
}

// A definition of one of the routing types comes, something is inserted, what is queued is taken, and it goes.
void Apply(Life& life, bool b32)
{
    static const uint32_t TYPES[] = {1, 1, 1, 5, 11};
    for (ULONG i = 0; i < APPLIED; i++) {
        EmuApplication application(b32);
        const ULONG ulIndex = life.Draw(3);
        (void)application.RegisterNotifyEvent(ulIndex);
        (void)application.StartReportProcessing(ulIndex);
        KeyDefinition definition = {};
        definition.ulId = 1 + i + (b32 ? 100u : 0u);
        definition.ulType = TYPES[life.Draw(5)];
        definition.ulModifiers = definition.ulType == 1 ? 0x400 : 0;
        definition.ulSwallow = life.Draw(2);
        definition.usScanCount = definition.ulType == 1 ? 1 : 0;
        definition.ucScans[0] = 0x3B;
        (void)application.AddDefinition(ulIndex, definition);
        life.Pause();
        switch (life.Draw(4)) {
        case 0:
            (void)application.InsertScans(ulIndex, {0x2A, 0x1E, 0x9E, 0xAA}, life.Draw(2) != 0);
            break;
        case 1:
            (void)application.InsertUSBPackets(ulIndex, {FifoEntry{0, 8, {0, 0, 6}}, FifoEntry{0, 8, {}}});
            break;
        case 2:
            (void)application.RegisterMacroEvent();
            life.Pause();
            (void)application.TakeMacroRecords();
            break;
        default:
            (void)application.StopReportProcessing(ulIndex);
        }
        (void)application.TakeRecords(ulIndex);
        if (life.Draw(4) != 0) { // else the definition goes with the handle
            (void)application.RemoveDefinition(ulIndex, definition.ulId);
        }
        if (life.Draw(2) != 0) {
            (void)application.ReleaseNotifyEvent(ulIndex);
        }
    }
}

// The second keyboard is pulled in the middle, a third plugged in; before and after, LEDs and cancelled reads.
void PullAndPlug(Life& life)
{
    for (unsigned i = life.Draw(6); i > 0; i--) {
        life.Pause();
        (void)life.pKeyboards[0]->SendLed(static_cast<UCHAR>(i), EmuHidRouteClass);
        (void)life.pKeyboards[life.Draw(2)]->FailRead(STATUS_CANCELLED);
    }
    life.pKeyboards[1]->Unplug(true);
    life.Pause();
    life.pKeyboards[2] = life.Machine->Plug(EmuBootKeyboard, life.Plug);
    life.pKeyboards[2]->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    life.Pause();
    if (life.Draw(2) != 0) {
        life.pKeyboards[2]->Unplug(false);
    }
}

// Ten seconds after the last key every read is at the keyboard; a keyboard that is gone holds none.
std::string CheckReads(const Life& life)
{
    for (EmuKeyboard* pKeyboard : life.pKeyboards) {
        const ULONG ulAbove = EmuHidOutstandingReads(pKeyboard->Hid());
        const ULONG ulBelow = pKeyboard->Plugged() ? pKeyboard->PendingReads() : 0;
        if (ulAbove != ulBelow) {
            return "keyboard " + std::to_string(pKeyboard->Index()) + ": the system waits for " +
                   std::to_string(ulAbove) + " reads, the keyboard has " + std::to_string(ulBelow);
        }
        if (pKeyboard->Plugged() && ulAbove != life.Plug.Reads) {
            return "keyboard " + std::to_string(pKeyboard->Index()) + " has lost a read";
        }
    }
    return {};
}
} // namespace

ScheduleOutcome LiveThroughSchedule(unsigned long long ullSeed, const std::string& folder)
{
    Life life(ullSeed, folder);
    if (!NT_SUCCESS(life.Machine->LoadStatus())) {
        return {"the driver did not load", 0, 0};
    }
    for (int i = 0; i < 2; i++) {
        life.pKeyboards[i] = life.Machine->Plug(i == 0 ? EmuBootKeyboard : *life.pSecondKind, life.Plug);
    }
    std::vector<HostThread> threads;
    for (int i = 0; i < 2; i++) {
        threads.push_back(HostStartThread(
            [&life, i] { Type(life, life.pKeyboards[i], i == 1 && life.pSecondKind == &EmuPowerKeyboard); }));
        threads.push_back(HostStartThread([&life, i] { Apply(life, i != 0); }));
    }
    threads.push_back(HostStartThread([&life] { PullAndPlug(life); }));
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    HostAdvanceToUs(HostNowUs() + LATEST_US);
    std::string wrong = CheckReads(life);
    unsigned long long ullDigest = life.ullDigest ^ HostScheduleDigest();
    unsigned uLeft = life.Machine->Unload();
    if (wrong.empty() && uLeft != 0) {
        wrong = std::to_string(uLeft) + " things left over";
    }
    return {wrong, ullDigest, life.uReceived};
}

// Two macros: F1 plays three reports, F2 plays twenty, which is more than fit at once.
void WriteMacroFile(const std::string& path)
{
    std::string text = "Korvex Configuration File V1.0.0.0";
    text.resize(50);
    for (auto [key, count] : {std::pair{0x3A, 3}, std::pair{0x3B, 20}}) {
        const int bytes = count * 10;
        text += {static_cast<char>(key), 0, static_cast<char>(bytes), static_cast<char>(bytes >> 8)};
        for (int i = 0; i < count; i++) {
            text += {0, 8, 0, 0, static_cast<char>(i % 2 ? 0 : 4 + i), 0, 0, 0, 0, 0};
        }
    }
    std::ofstream(path, std::ios::binary) << text;
}
