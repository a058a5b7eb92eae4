// file_test.cpp - the driver's file itself: loaded and unloaded again and again, its log on the disk, a
// keyboard that is pulled and plugged in again under an open application.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

namespace
{
const EmuBytes CONTROL = {0x01, 0, 0, 0, 0, 0, 0, 0}, CONTROL_F1 = {0x01, 0, 0x3A, 0, 0, 0, 0, 0};

EmuMachineOptions Options(const std::map<std::string, EmuSetting>& settings = {})
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.Settings = settings;
    return options;
}

std::string TakeFile(const char* pszPath)
{
    std::string text;
    if (FILE* pFile = fopen(pszPath, "rb")) {
        for (int c; (c = fgetc(pFile)) != EOF;) {
            text += static_cast<char>(c);
        }
        fclose(pFile);
        remove(pszPath);
    }
    return text;
}

TEST(DriverFile, IsLoadedAndUnloadedAgainAndAgain)
{
    for (int i = 0; i < 10; i++) {
        EmuMachine machine(Options());
        ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus()) << i;
        EmuKeyboard* pKeyboard = machine.Plug();
        EXPECT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus());
        EXPECT_TRUE(pKeyboard->Report(CONTROL));
        HostSettle();
        EXPECT_EQ(CONTROL, pKeyboard->Taken().at(0).Bytes);
        EXPECT_EQ(0u, machine.Unload()) << i;
    }
}

TEST(DriverFile, WritesItsLog)
{
    TakeFile("C:\\tv64usb.log");
    EmuMachine machine(Options({{"LogFile", std::string("C:\\tv64usb.log")}, {"LogLevel", 1u}}));
    ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
    EmuKeyboard* pKeyboard = machine.Plug();
    EmuApplication application(false);
    EXPECT_EQ(STATUS_SUCCESS, application.StartReportProcessing(pKeyboard->Index()));
    EXPECT_TRUE(pKeyboard->Report(CONTROL_F1));
    HostSettle();
    application.Close();
    EXPECT_EQ(0u, machine.Unload());
    std::string text = TakeFile("C:\\tv64usb.log");
    EXPECT_NE(std::string::npos, text.find("01 00 3a 00 00 00 00 00")) << text;
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ("\r\n", text.substr(text.size() - 2));
}

TEST(DriverFile, SurvivesAKeyboardPulledUnderAnOpenApplication)
{
    EmuMachine machine(Options());
    EmuKeyboard* pStays = machine.Plug();
    EmuApplication application(false);
    ASSERT_EQ(STATUS_SUCCESS, application.OpenStatus());
    for (int i = 0; i < 5; i++) {
        EmuKeyboard* pKeyboard = machine.Plug();
        EXPECT_EQ(STATUS_SUCCESS, application.StartReportProcessing(pKeyboard->Index()));
        EXPECT_EQ(STATUS_SUCCESS, application.RegisterNotifyEvent(pKeyboard->Index()));
        EXPECT_TRUE(pKeyboard->Report(CONTROL));
        EXPECT_EQ(STATUS_SUCCESS, pKeyboard->Unplug(true));
        EXPECT_EQ(STATUS_UNSUCCESSFUL, application.StartReportProcessing(pKeyboard->Index()));
    }
    EXPECT_EQ(STATUS_SUCCESS, application.StartReportProcessing(pStays->Index()));
    application.Close();
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
