// bench_application.h - an application of either process size with one keyboard, for tests of the control
// requests. The tests' parameter: true for a 32-bit process.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "bench_context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

constexpr ULONG UNKNOWN_INDEX = 77;

template <typename Value> EmuBytes BytesOf(const Value& value)
{
    const UCHAR* p = reinterpret_cast<const UCHAR*>(&value);
    return EmuBytes(p, p + sizeof(value));
}

class ApplicationTest : public testing::TestWithParam<bool>
{
public:
    static std::string SizeName(const testing::TestParamInfo<bool>& info)
    {
        return info.param ? "Bits32" : "Bits64";
    }

protected:
    // Answers the driver's own requests; by default the keyboard does.
    virtual NTSTATUS Answer(const UCHAR*, EmuBytes&) { return STATUS_NOT_SUPPORTED; }

    void SetUp() override
    {
        ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
        EmuPlugOptions options;
        options.Hook = [this](const UCHAR* pSetup, EmuBytes& data) { return Answer(pSetup, data); };
        pKeyboard = machine.Plug(EmuBootKeyboard, options);
        ASSERT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus());
        pApp = std::make_unique<EmuApplication>(GetParam());
        ASSERT_EQ(STATUS_SUCCESS, pApp->OpenStatus());
    }

    void TearDown() override
    {
        pApp.reset();
        EXPECT_EQ(0u, machine.Unload());
    }

    static EmuMachineOptions Options()
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        return options;
    }

    static ULONG PayloadOffset() { return GetParam() ? 4 : 8; }
    static ULONG RecordBytes() { return GetParam() ? 520 : 528; }

    static EmuBytes Record(ULONG ulIndex, const EmuBytes& payload = {})
    {
        EmuBytes in(RecordBytes());
        memcpy(in.data(), &ulIndex, sizeof(ulIndex));
        std::copy(payload.begin(), payload.end(), in.begin() + PayloadOffset());
        return in;
    }

    NTSTATUS Send(ULONG ulCode, const EmuBytes& in, ULONG ulOut)
    {
        Out.assign(ulOut, 0xEE);
        return pApp->Request(ulCode, in, ulOut, &Out);
    }

    EmuMachine machine{Options()};
    EmuKeyboard* pKeyboard = nullptr;
    std::unique_ptr<EmuApplication> pApp;
    EmuBytes Out; // what the last request reported
};
