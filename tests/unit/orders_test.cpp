// orders_test.cpp - races that a seeded schedule has shown, each in a small life of its own and many orders.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "machine.h"
#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "hotkeys/hotkeys.h"

static EmuMachineOptions Seeded(unsigned seed)
{
    EmuMachineOptions options = DriverOptions();
    options.Seed = seed;
    return options;
}

// A modifier report is inserted while a read is on its way down: that read must not stay at the keyboard.
TEST(Orders, AReadOnItsWayDownDoesNotMissAnInsertedModifier)
{
    for (unsigned seed = 1; seed <= 400; seed++) {
        EmuMachine machine(Seeded(seed));
        ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
        EmuKeyboard* pKeyboard = machine.Plug();
        NTSTATUS status = STATUS_PENDING;
        HostThread thread = HostStartThread([&] {
            EmuApplication application;
            status = application.InsertScans(pKeyboard->Index(), {0x2A, 0xAA}, true);
        });
        pKeyboard->Report({0, 0, 0x04, 0, 0, 0, 0, 0});
        pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        HostJoinThread(thread); // would never end
        EXPECT_EQ(STATUS_SUCCESS, status) << "seed " << seed;
    }
}

// Two registrations of one event at once: one wins, and the other one's reference does not stay.
TEST(Orders, OfTwoRegistrationsOneWins)
{
    for (unsigned seed = 1; seed <= 100; seed++) {
        EmuMachine machine(Seeded(seed));
        EmuKeyboard* pKeyboard = machine.Plug();
        NTSTATUS notify[2], macro[2];
        HostThread threads[2];
        for (int i = 0; i < 2; i++) {
            threads[i] = HostStartThread([&, i] {
                EmuApplication application(i == 1);
                notify[i] = application.RegisterNotifyEvent(pKeyboard->Index());
                macro[i] = application.RegisterMacroEvent();
                LARGE_INTEGER delay;
                delay.QuadPart = -10000;
                KeDelayExecutionThread(KernelMode, FALSE, &delay); // a last close would release both
            });
        }
        for (HostThread thread : threads) {
            HostJoinThread(thread);
        }
        for (const NTSTATUS* pStatus : {notify, macro}) {
            EXPECT_NE(NT_SUCCESS(pStatus[0]), NT_SUCCESS(pStatus[1])) << "seed " << seed;
            EXPECT_EQ(STATUS_UNSUCCESSFUL, pStatus[0] | pStatus[1]) << "seed " << seed;
        }
        ASSERT_EQ(0u, machine.Unload()) << "seed " << seed;
    }
}

// Definitions come and go while a report is looked at: the list that it walks is whole, whenever it began.
TEST(Orders, AWalkNeverMeetsAListThatIsBeingBuilt)
{
    for (unsigned seed = 1; seed <= 100; seed++) {
        EmuMachine machine(Seeded(seed));
        EmuPlugOptions plug;
        plug.Manual = true;
        PDEVICE_OBJECT device = FilterOf(machine.Plug(EmuBootKeyboard, plug));
        const KeyDefinition stays = tvusb::MakeHotkey(7, 0, {0x3B}, false);
        const KeyDefinition goes = tvusb::MakeHotkey(8, 0, {0x3C}, false);
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(device, &stays));
        HostThread thread = HostStartThread([&] {
            for (int i = 0; i < 20; i++) {
                (void)AddKeyDefinition(device, &goes);
                (void)RemoveKeyDefinition(device, 8);
            }
        });
        bool bWhole = true;
        for (int i = 0; i < 300; i++) {
            HotkeyWalk walk(*FilterContextOf(device));
            const HotkeyEntry& first = *walk.begin();
            SCHEDULE_POINT();
            bWhole = bWhole && first.ulId == 7 && first.ucKeys[0] == 0x3A;
        }
        HostJoinThread(thread);
        EXPECT_TRUE(bWhole) << "seed " << seed;
    }
}

// Nobody reads, so who waits waits until the last keyboard goes; a registration meanwhile leaves nothing behind.
TEST(Orders, RemovalEndsEveryWait)
{
    for (unsigned seed = 1; seed <= 400; seed++) {
        EmuMachine machine(Seeded(seed));
        EmuPlugOptions plug;
        plug.Manual = true;
        EmuKeyboard* pKeyboard = machine.Plug(EmuBootKeyboard, plug);
        const ULONG ulIndex = pKeyboard->Index();
        std::vector<std::unique_ptr<EmuApplication>> applications;
        for (int i = 0; i < 4; i++) {
            applications.push_back(std::make_unique<EmuApplication>(i % 2 == 1));
        }
        HANDLE hEvent = HostCreateEvent(false);
        std::vector<HostThread> threads;
        for (int i = 0; i < 4; i++) {
            threads.push_back(HostStartThread([&, i] {
                EmuApplication& application = *applications[i];
                if (i < 2) {
                    (void)application.InsertUSBPackets(ulIndex, {{1, 8, {1}}});
                } else if (i == 2) {
                    (void)application.InsertScans(ulIndex, {0x2A, 0xAA}, true);
                } else {
                    (void)application.RegisterApplicationEvent(hEvent);
                }
            }));
        }
        pKeyboard->Unplug(seed % 2 == 0);
        for (HostThread thread : threads) {
            HostJoinThread(thread); // would never end
        }
        applications.clear();
        HostCloseHandle(hEvent);
        ASSERT_EQ(0u, machine.Unload()) << "seed " << seed;
    }
}
