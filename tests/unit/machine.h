// machine.h - the driver on a machine with a keyboard and an application, for tests that call its routines.
//
//   MachineTest ─┬─ KeyboardTest      a boot keyboard that is started
//                ├─ MacroTest         a drive C: for the macro file; the test plugs the keyboard
//                └─ ApplicationTest   an application of either process size, which sends raw records
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "macro/macro.h"
#include "tests/macro_file.h"

constexpr NTSTATUS OK = STATUS_SUCCESS;
constexpr NTSTATUS Unsuccessful = STATUS_UNSUCCESSFUL;
constexpr ULONG UNKNOWN_INDEX = 77;

// --- the driver's records. A test that finds none cannot go on.

inline PDEVICE_OBJECT FilterOf(const EmuKeyboard* pKeyboard)
{
    if (pKeyboard->Filter() == nullptr) {
        throw std::logic_error("the driver has not taken this keyboard");
    }
    return pKeyboard->Filter();
}

inline DeviceContext* ContextOf(const EmuKeyboard* pKeyboard)
{
    return FilterContextOf(FilterOf(pKeyboard));
}

inline ControlContext* Control()
{
    if (Globals.pControlDevice == nullptr) {
        throw std::logic_error("there is no control device");
    }
    return ControlContextOf(Globals.pControlDevice);
}

// Whether the driver's control device can be opened.
inline bool CanOpen()
{
    return NT_SUCCESS(EmuApplication().OpenStatus());
}

// --- what goes in

inline EmuMachineOptions DriverOptions(HostMode mode = HostSimulated)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.Mode = mode;
    return options;
}

// A hotkey that the system sees too; with its id alone it is Ctrl+F1.
inline KeyDefinition Hotkey(uint32_t ulId, uint32_t ulModifiers = MODIFIER_ANY_CONTROL,
                            const std::vector<uint8_t>& scans = {0x3B})
{
    return tvusb::MakeHotkey(ulId, ulModifiers, scans, false);
}

template <typename Value> EmuBytes BytesOf(const Value& value)
{
    const UCHAR* p = reinterpret_cast<const UCHAR*>(&value);
    return EmuBytes(p, p + sizeof(value));
}

// --- machines

class MachineTest : public testing::Test
{
protected:
    void Load(const EmuMachineOptions& options)
    {
        Machine = std::make_unique<EmuMachine>(options);
        ASSERT_EQ(OK, Machine->LoadStatus());
    }
    void Plug(const EmuPlugOptions& options = {}, const EmuDescriptors& kind = EmuBootKeyboard)
    {
        Keyboard = Machine->Plug(kind, options);
        ASSERT_EQ(OK, Keyboard->StartStatus());
    }
    void Open(bool bProcess32 = false)
    {
        Application = std::make_unique<EmuApplication>(bProcess32);
        ASSERT_EQ(OK, Application->OpenStatus());
    }
    void TearDown() override
    {
        Application.reset();
        EXPECT_EQ(0u, Machine->Unload()) << "things left over";
    }

    PDEVICE_OBJECT Filter() const { return FilterOf(Keyboard); }
    DeviceContext* Context() const { return ContextOf(Keyboard); }

    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard = nullptr;
    std::unique_ptr<EmuApplication> Application;
};

class KeyboardTest : public MachineTest
{
protected:
    void SetUp() override { Start(EmuBootKeyboard, {}); }

    void Start(const EmuDescriptors& kind, const EmuPlugOptions& options, HostMode mode = HostSimulated)
    {
        ASSERT_NO_FATAL_FAILURE(Load(DriverOptions(mode)));
        ASSERT_NO_FATAL_FAILURE(Plug(options, kind));
        Open();
    }
};

class MacroTest : public MachineTest
{
protected:
    void SetUp() override
    {
        EmuMachineOptions options = DriverOptions();
        options.FileRoot = Drive.Path();
        Load(options);
    }

    // Writes the file, opens it and has it read.
    NTSTATUS ReadFile(const FileBytes& bytes)
    {
        Drive.Write("m", bytes);
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\??\\C:\\m");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        HANDLE hFile;
        IO_STATUS_BLOCK ioStatus;
        EXPECT_EQ(OK, ZwCreateFile(&hFile, GENERIC_READ, &attributes, &ioStatus, nullptr, 0, FILE_SHARE_READ,
                                   FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0));
        NTSTATUS status = ReadKorvexConfigFile(hFile);
        ZwClose(hFile);
        return status;
    }

    // One registry value of the driver's key; no bytes at all take it away.
    void SetValue(const char* pszName, ULONG ulType, const FileBytes& bytes)
    {
        std::vector<WCHAR> wide(pszName, pszName + strlen(pszName) + 1);
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, wide.data());
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &Globals.ParametersPath, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        HANDLE hKey;
        ASSERT_EQ(OK, ZwOpenKey(&hKey, KEY_SET_VALUE, &attributes));
        if (bytes.empty()) {
            (void)ZwDeleteValueKey(hKey, &name); // absent already is as good
        } else {
            EXPECT_EQ(OK, ZwSetValueKey(hKey, &name, 0, ulType, const_cast<unsigned char*>(bytes.data()),
                                        static_cast<ULONG>(bytes.size())));
        }
        ZwClose(hKey);
    }

    DriveFolder Drive;
};

// The parameter: true for a 32-bit process.
class ApplicationTest : public MachineTest, public testing::WithParamInterface<bool>
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
        ASSERT_NO_FATAL_FAILURE(Load(DriverOptions()));
        EmuPlugOptions options;
        options.Hook = [this](const UCHAR* pSetup, EmuBytes& data) { return Answer(pSetup, data); };
        ASSERT_NO_FATAL_FAILURE(Plug(options));
        Open(GetParam());
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
        return Application->Request(ulCode, in, ulOut, &Out);
    }

    EmuBytes Out; // what the last request reported
};
