// samples_test.cpp - the samples as they are handed out, as processes of their own at the running driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "driver/driver.h"
#include "emu/app/machine.h"
#include "wine/program.h"

namespace
{
class SamplesTest : public testing::Test
{
protected:
    static EmuMachineOptions Options()
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        return options;
    }

    void SetUp() override { ASSERT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus()); }
    void TearDown() override { EXPECT_EQ(0u, machine.Unload()); }

    EmuMachine machine{Options()};
    EmuKeyboard* pKeyboard = machine.Plug();
};

// It tells when it has heard enough, so Ctrl+F1 goes down and up until then.
TEST_F(SamplesTest, TheListenerTellsOfCtrlF1)
{
    Program listener("hotkey_listener.exe 3");
    while (!listener.HasEnded(20)) {
        pKeyboard->Report({0x01, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0x00, 0, 0, 0, 0, 0, 0, 0});
    }
    EXPECT_EQ("keyboard 0", listener.ReadLine());
    EXPECT_EQ("hotkey 7 down", listener.ReadLine());
    EXPECT_EQ("hotkey 7 up", listener.ReadLine());
    EXPECT_EQ("hotkey 7 down", listener.ReadLine());
    EXPECT_EQ("", listener.ReadLine());
    EXPECT_EQ(0, listener.Status());
}

TEST_F(SamplesTest, TheBackupSavesAndRestores)
{
    const std::string path = "C:\\eeprom.bin";
    UCHAR* pEeprom = pKeyboard->Memory().ucEeprom;
    for (int i = 0; i < 64; i++) {
        pEeprom[i] = static_cast<UCHAR>(i * 3);
    }
    Program save("eeprom_backup.exe save " + path);
    EXPECT_EQ("saved 64 bytes, read twice", save.ReadLine());
    EXPECT_EQ(0, save.Status());
    std::fill_n(pEeprom, 64, 0xFF);
    Program restore("eeprom_backup.exe restore " + path);
    EXPECT_EQ("restored 64 bytes, read back", restore.ReadLine());
    EXPECT_EQ(0, restore.Status());
    for (int i = 0; i < 64; i++) {
        EXPECT_EQ(static_cast<UCHAR>(i * 3), pEeprom[i]) << i;
    }
    EXPECT_EQ(0, remove(path.c_str()));
}
} // namespace
