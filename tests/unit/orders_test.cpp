// orders_test.cpp - races that a seeded schedule has shown, each in a small life of its own and many orders.
#include <gtest/gtest.h>

#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

// A modifier report is inserted while a read is on its way down: that read must not stay at the keyboard.
TEST(Orders, AReadOnItsWayDownDoesNotMissAnInsertedModifier)
{
    for (unsigned seed = 1; seed <= 400; seed++) {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.Seed = seed;
        EmuMachine machine(options);
        ASSERT_EQ(machine.LoadStatus(), STATUS_SUCCESS);
        EmuKeyboard* pKeyboard = machine.Plug();
        NTSTATUS status = STATUS_PENDING;
        HostThread thread = HostStartThread([&] {
            EmuApplication application;
            status = application.InsertScans(pKeyboard->Index(), {0x2A, 0xAA}, true);
        });
        pKeyboard->Report({0, 0, 0x04, 0, 0, 0, 0, 0});
        pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        HostJoinThread(thread); // would never end
        EXPECT_EQ(status, STATUS_SUCCESS) << "seed " << seed;
    }
}
