// macro_threaded_test.cpp - the macro mode on real threads: macros are played while they are read anew and freed,
// and keyboards that play are pulled out.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "machine.h"
#include "macro/macro.h"
#include "tests/macro_file.h"

namespace
{
const EmuBytes ModeKey = {0, 0, 0x39, 0, 0, 0, 0, 0};
const EmuBytes MacroKey = {0, 0, 0x3A, 0, 0, 0, 0, 0};

EmuMachineOptions Options(const DriveFolder& drive, ULONG ulDelayMs)
{
    EmuMachineOptions options = DriverOptions(HostThreaded);
    options.FileRoot = drive.Path();
    options.Settings["KorvexHotkey"] = ULONG{0x00010039};
    options.Settings["KorvexLEDDisabled"] = ULONG{0};
    options.Settings["KorvexDelay"] = ulDelayMs;
    options.Settings["KorvexConfigFile"] = "\\??\\C:\\m";
    return options;
}

// A file whose one macro plays one report of this key; it takes the old file's place at once.
void WriteFile(const DriveFolder& drive, unsigned char ucKey)
{
    FileBytes bytes = MacroFileHead();
    AppendMacro(bytes, 0x3A, {{0, 0, ucKey, ucKey, ucKey, ucKey, ucKey, ucKey}});
    drive.Write("new", bytes);
    std::filesystem::rename(drive.Path() + "/new", drive.Path() + "/m");
}
} // namespace

TEST(MacroThreaded, MacrosAreReadAnewWhileTheyPlay)
{
    DriveFolder drive;
    WriteFile(drive, 0x10);
    EmuMachineOptions options = Options(drive, 1);
    EmuMachine machine(options);
    ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
    std::atomic<unsigned> played{0}, torn{0};
    EmuPlugOptions plug;
    plug.Record = false;
    plug.OnReceived = [&](const EmuReceived& received) {
        if (!NT_SUCCESS(received.Status) || received.Bytes.size() != 8) {
            return;
        }
        const UCHAR ucKey = received.Bytes[2];
        played += ucKey == 0x10 || ucKey == 0x11;
        torn += (ucKey != 0 && ucKey != 0x10 && ucKey != 0x11 && ucKey != 0x3A) ||
                (ucKey < 0x20 && received.Bytes[7] != ucKey);
    };
    EmuKeyboard* pFirst = machine.Plug(EmuBootKeyboard, plug);
    EmuKeyboard* pSecond = machine.Plug(EmuBootKeyboard, plug);
    EmuApplication application;
    pFirst->Report(ModeKey);
    pFirst->Report(EmuBytes(8, 0));
    WriteShared(Settings.ulKorvexDelay, 0u); // each read takes what is queued at once

    std::atomic<unsigned> typing{2};
    std::vector<HostThread> threads;
    for (EmuKeyboard* pKeyboard : {pFirst, pSecond}) {
        threads.push_back(HostStartThread([&, pKeyboard] {
            for (int i = 0; i < 300; i++) {
                pKeyboard->Report(MacroKey);
            }
            typing--;
        }));
    }
    for (int i = 0; i < 2; i++) { // two at once
        threads.push_back(HostStartThread([&, i] {
            EmuApplication own;
            for (unsigned uRound = 0; typing != 0; uRound++) {
                if (i == 0) {
                    WriteFile(drive, uRound % 2 ? 0x10 : 0x11);
                }
                EXPECT_EQ(STATUS_SUCCESS, own.RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0));
                if (uRound % 8 == 7) {
                    FreeMacroTable(); // as when a keyboard is asked to leave
                }
            }
        }));
    }
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_GT(played, 0u);
    EXPECT_EQ(0u, torn);
    application.Close();
    EXPECT_EQ(0u, machine.Unload());
}

TEST(MacroThreaded, KeyboardsThatPlayArePulledOut)
{
    DriveFolder drive;
    WriteFile(drive, 0x10);
    EmuMachine machine(Options(drive, 1));
    ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
    EmuPlugOptions plug;
    plug.Record = false;
    plug.Reads = 4;
    std::atomic<unsigned> received{0};
    plug.OnReceived = [&](const EmuReceived&) { received++; };
    EmuKeyboard* pStays = machine.Plug(EmuBootKeyboard, plug);
    EmuApplication application;
    pStays->Report(ModeKey);
    for (int iRound = 0; iRound < 12; iRound++) {
        EmuKeyboard* pGoes = machine.Plug(EmuBootKeyboard, plug);
        ASSERT_EQ(STATUS_SUCCESS, pGoes->StartStatus());
        std::vector<HostThread> threads;
        for (EmuKeyboard* pKeyboard : {pStays, pGoes}) {
            threads.push_back(HostStartThread([pKeyboard, pStays] {
                for (int i = 0; i < 40; i++) {
                    pKeyboard->Report(i % 10 == 9 && pKeyboard == pStays ? ModeKey : MacroKey);
                }
            }));
        }
        EXPECT_EQ(STATUS_SUCCESS, pGoes->Unplug(iRound % 2 == 0));
        for (HostThread thread : threads) {
            HostJoinThread(thread);
        }
        EXPECT_EQ(STATUS_SUCCESS, application.RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0));
    }
    // What stays is served: nothing waits for a timer that went with another keyboard.
    const unsigned uBefore = received;
    for (int iMs = 0; iMs < 5000 && received == uBefore; iMs++) {
        pStays->Report(EmuBytes(8, 0));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_GT(received, uBefore);
    application.Close();
    EXPECT_EQ(0u, machine.Unload());
}
