// client_test.h - a driver with one keyboard, opened through the library as a process of the test's size.
#pragma once

#include <gtest/gtest.h>

#include "client/client.h"
#include "client/host_transport.h"
#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/machine.h"

class ClientTest : public testing::TestWithParam<tvusb::ProcessSize>
{
protected:
    explicit ClientTest(const std::map<std::string, EmuSetting>& settings = {}) : machine(Options(settings))
    {
    }

    static EmuMachineOptions Options(const std::map<std::string, EmuSetting>& settings)
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.Settings = settings;
        return options;
    }

    void SetUp() override
    {
        pPlugged = PlugAt(1);
        driver = tvusb::Driver(tvusb::HostTransport(GetParam()));
        ASSERT_TRUE(driver.Open().Ok());
        auto found = driver.FindByIndex(pPlugged->Index());
        ASSERT_TRUE(found.Ok()) << found.Error().Text();
        keyboard = *found;
    }

    void TearDown() override
    {
        driver.Close();
        EXPECT_EQ(0u, machine.Unload());
    }

    // Whoever comes back to a port has the name that it had.
    EmuKeyboard* PlugAt(ULONG ulPort, bool bStart = true)
    {
        EmuPlugOptions options;
        options.Port = ulPort;
        options.Start = bStart;
        return machine.Plug(EmuBootKeyboard, options);
    }

    std::u16string NameOf(EmuKeyboard* pKeyboard) const
    {
        const UNICODE_STRING& name = FilterContextOf(pKeyboard->Filter())->InterfaceLinkName;
        return std::u16string(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / 2);
    }

    // Ctrl+F1 goes down and up.
    void PressHotkey()
    {
        pPlugged->Report({0x01, 0, 0, 0, 0, 0, 0, 0});
        pPlugged->Report({0x01, 0, 0x3A, 0, 0, 0, 0, 0});
        pPlugged->Report({0x00, 0, 0, 0, 0, 0, 0, 0});
    }

    EmuMachine machine;
    EmuKeyboard* pPlugged = nullptr;
    tvusb::Driver driver{nullptr};
    tvusb::Keyboard keyboard;
};

const auto BothProcessSizes = testing::Values(tvusb::ProcessSize::Bits64, tvusb::ProcessSize::Bits32);

inline std::string ProcessSizeName(const testing::TestParamInfo<tvusb::ProcessSize>& info)
{
    return info.param == tvusb::ProcessSize::Bits32 ? "Bits32" : "Bits64";
}
