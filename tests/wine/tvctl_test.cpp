// tvctl_test.cpp - tvctl.exe as it is handed out, as a process of its own at the running driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "client/typing.h"
#include "driver/driver.h"
#include "emu/app/machine.h"
#include "wine/program.h"

namespace
{
class TvctlExeTest : public testing::Test
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

TEST_F(TvctlExeTest, ListsTheKeyboardAndRefusesOneThatIsNotThere)
{
    Program list("tvctl.exe list");
    EXPECT_EQ("keyboard 0  7a3c:0101:00  Boot keyboard", list.ReadLine().substr(0, 41));
    EXPECT_EQ("", list.ReadLine());
    EXPECT_EQ(0, list.Status());
    Program other("tvctl.exe info -k 1234:5678 --json");
    EXPECT_NE(std::string::npos, other.ReadLine().find("\"type\":\"error\""));
    EXPECT_EQ(3, other.Status());
}

TEST_F(TvctlExeTest, AddsAHotkeyAndTellsItsEvents)
{
    Program hotkey("tvctl.exe hotkey add 7 ctrl+F1 --swallow --watch --events 2 --json");
    while (!hotkey.HasEnded(20)) {
        pKeyboard->Report({0x01, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0x00, 0, 0, 0, 0, 0, 0, 0});
    }
    EXPECT_EQ(0u, hotkey.ReadLine().find("{\"type\":\"added\",\"id\":7,"));
    for (const char* pValue : {"\"value\":1", "\"value\":0"}) {
        const std::string line = hotkey.ReadLine();
        EXPECT_EQ(0u, line.find("{\"type\":\"event\",")) << line;
        EXPECT_NE(std::string::npos, line.find("\"name\":\"Ctrl+F1\"")) << line;
        EXPECT_NE(std::string::npos, line.find(pValue)) << line;
    }
    EXPECT_EQ("", hotkey.ReadLine());
    EXPECT_EQ(0, hotkey.Status());
}

TEST_F(TvctlExeTest, TypesWhatTheSystemSees)
{
    pKeyboard->Taken();
    Program type("tvctl.exe type hi");
    EXPECT_EQ("keyboard 0: typed 2 characters", type.ReadLine());
    EXPECT_EQ(0, type.Status());
    std::string typed;
    for (const EmuReceived& received : pKeyboard->Taken()) {
        tvusb::KeyReport report = {};
        std::copy_n(received.Bytes.begin(), std::min(received.Bytes.size(), report.size()), report.begin());
        if (char c = tvusb::CharacterOfReport(report)) {
            typed += c;
        }
    }
    EXPECT_EQ("hi", typed);
}

TEST_F(TvctlExeTest, SavesAndWritesTheMemory)
{
    const std::string path = "C:\\eeprom.hex";
    UCHAR* pEeprom = pKeyboard->Memory().ucEeprom;
    for (int i = 0; i < 64; i++) {
        pEeprom[i] = static_cast<UCHAR>(i * 3);
    }
    EXPECT_EQ(0, Program("tvctl.exe eeprom dump " + path).Status());
    std::fill_n(pEeprom, 64, 0xFF);
    EXPECT_EQ(5, Program("tvctl.exe eeprom verify " + path).Status());
    EXPECT_EQ(0, Program("tvctl.exe eeprom write " + path + " --no-backup").Status());
    for (int i = 0; i < 64; i++) {
        EXPECT_EQ(static_cast<UCHAR>(i * 3), pEeprom[i]) << i;
    }
    EXPECT_EQ(0, remove(path.c_str()));
}
} // namespace
