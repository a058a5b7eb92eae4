// bench_keyboard.h - a started keyboard and an application, for tests that call the driver's routines.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "bench_context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

class KeyboardTest : public testing::Test
{
protected:
    void SetUp() override { Start(EmuBootKeyboard, {}); }

    void Start(const EmuDescriptors& kind, const EmuPlugOptions& options, HostMode mode = HostSimulated)
    {
        EmuMachineOptions machine;
        machine.Entry = DriverEntry;
        machine.Mode = mode;
        Machine = std::make_unique<EmuMachine>(machine);
        ASSERT_EQ(Machine->LoadStatus(), STATUS_SUCCESS);
        Keyboard = Machine->Plug(kind, options);
        ASSERT_EQ(Keyboard->StartStatus(), STATUS_SUCCESS);
        Application = std::make_unique<EmuApplication>();
        ASSERT_EQ(Application->OpenStatus(), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        Application.reset();
        EXPECT_EQ(Machine->Unload(), 0u) << "things left over";
    }

    PDEVICE_OBJECT Filter() const { return FilterOf(Keyboard); }
    DeviceContext* Context() const { return ContextOf(Keyboard); }

    // One that the system sees too.
    static KeyDefinition Hotkey(uint32_t ulId, uint32_t ulModifiers, const std::vector<uint8_t>& scans)
    {
        return tvusb::MakeHotkey(ulId, ulModifiers, scans, false);
    }

    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard = nullptr;
    std::unique_ptr<EmuApplication> Application;
};
