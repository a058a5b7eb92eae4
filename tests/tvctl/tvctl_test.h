// tvctl_test.h - tvctl at a machine with a keyboard: what a call prints and ends with.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "client/host_transport.h"
#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/machine.h"
#include "tests/macro_file.h"
#include "tools/tvctl/tvctl.h"

struct Outcome {
    int iExit;
    std::string out, err;
};

class TvctlTest : public testing::Test
{
protected:
    explicit TvctlTest(const std::map<std::string, EmuSetting>& settings = {}) : machine(Options(settings)) {}

    static EmuMachineOptions Options(const std::map<std::string, EmuSetting>& settings)
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.Settings = settings;
        return options;
    }

    void SetUp() override { pKeyboard = machine.Plug(); }
    void TearDown() override { EXPECT_EQ(0u, machine.Unload()) << "things left over"; }

    static Outcome Run(const std::vector<std::string>& arguments)
    {
        std::vector<const char*> argv = {"tvctl"};
        for (const std::string& argument : arguments)
            argv.push_back(argument.c_str());
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int iExit = RunTvctl(static_cast<int>(argv.size()), argv.data(),
                             [](const ::Options&) { return tvusb::HostTransport(); });
        std::string out = testing::internal::GetCapturedStdout();
        return {iExit, out, testing::internal::GetCapturedStderr()};
    }

    // Does so while a call waits, as someone at the keyboard would.
    HostThread Meanwhile(const std::function<void()>& deed)
    {
        return HostStartThread([deed] {
            HANDLE hPause = HostCreateEvent(false);
            HostWaitEvent(hPause, 500000);
            HostCloseHandle(hPause);
            deed();
        });
    }

    std::string Path(const std::string& name) const { return folder.Path() + "/" + name; }
    std::string Write(const std::string& name, const std::string& text)
    {
        folder.Write(name, FileBytes(text.begin(), text.end()));
        return Path(name);
    }

    DriveFolder folder;
    EmuMachine machine;
    EmuKeyboard* pKeyboard = nullptr;
};

inline bool Has(const std::string& text, const std::string& part)
{
    return text.find(part) != text.npos;
}
