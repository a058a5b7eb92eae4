// scenario.cpp - a life from its machine to its unload: which scene, how long, what must hold at its end.
#include "scenario.h"

#include <cstdlib>

#include "life.h"

enum { LATEST_US = 10000000, LONGEST_LINGER = 400 };

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
    uScene = Draw(3) == 0 ? 0 : 1 + Draw(NARROW_SCENES);
    const ULONG ulHotkey = Busy() ? HOTKEYS[Draw(4)] : 0x02010023;
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
    Plug.Reads = 1 + Draw(4);
    Plug.LoopGuard = Draw(2) != 0;
    Plug.Passive = Draw(4) == 0; // its threads report at PASSIVE_LEVEL
    Plug.OnLed = [this](const EmuBytes& report) { ucLeds = report.at(0); };
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
    Sleep(LENGTHS_MS[Draw(8)]);
}

void Life::Sleep(unsigned uMs)
{
    if (uMs != 0) {
        LARGE_INTEGER time;
        time.QuadPart = uMs * -10000LL;
        KeDelayExecutionThread(KernelMode, FALSE, &time);
    }
}

void Life::Linger()
{
    for (unsigned i = Draw(LONGEST_LINGER); i > 0; i--) {
        SCHEDULE_POINT();
    }
}

void Life::Begin(std::function<void()> body)
{
    Threads.push_back(HostStartThread(std::move(body)));
}

void Life::Expect(bool bHolds, const std::string& what)
{
    if (!bHolds && Wrong.empty()) {
        Wrong = what;
    }
}

// Two keyboards for the busy scene, one for a narrow one.
static void PlugAtFirst(Life& life)
{
    life.pKeyboards[0] = life.Machine->Plug(EmuBootKeyboard, life.Plug);
    if (life.Busy()) {
        life.pKeyboards[1] = life.Machine->Plug(*life.pSecondKind, life.Plug);
    }
}

ScheduleOutcome LiveThroughSchedule(unsigned long long ullSeed, const std::string& folder)
{
    Life life(ullSeed, folder);
    if (!NT_SUCCESS(life.Machine->LoadStatus())) {
        return {"the driver did not load", 0, 0};
    }
    PlugAtFirst(life);
    const Scene& scene = life.Busy() ? BusyScene : NarrowScenes[life.uScene - 1];
    scene.Begin(life);
    for (HostThread thread : life.Threads) {
        HostJoinThread(thread);
    }
    HostAdvanceToUs(HostNowUs() + LATEST_US);
    CheckReads(life);
    CheckRings(life);
    if (scene.Check != nullptr) {
        scene.Check(life);
    }
    unsigned long long ullDigest = life.ullDigest ^ HostScheduleDigest();
    life.Application.reset();
    unsigned uLeft = life.Machine->Unload();
    life.Expect(uLeft == 0, std::to_string(uLeft) + " things left over");
    return {life.Wrong, ullDigest, life.uReceived};
}
