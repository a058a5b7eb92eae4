// bench_macro.h - a driver with a drive C: for its macro file and one keyboard.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "bench_context.h"
#include "driver/driver.h"
#include "emu/app/machine.h"
#include "macro/macro.h"
#include "tests/macro_file.h"

constexpr NTSTATUS OK = STATUS_SUCCESS;
constexpr NTSTATUS Unsuccessful = STATUS_UNSUCCESSFUL;

class MacroTest : public testing::Test
{
protected:
    void SetUp() override
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.FileRoot = Drive.Path();
        Machine = std::make_unique<EmuMachine>(options);
        ASSERT_EQ(Machine->LoadStatus(), OK);
    }
    void TearDown() override { EXPECT_EQ(Machine->Unload(), 0u) << "things left over"; }

    void Plug(const EmuPlugOptions& options, const EmuDescriptors& kind = EmuBootKeyboard)
    {
        Keyboard = Machine->Plug(kind, options);
        ASSERT_EQ(Keyboard->StartStatus(), OK);
    }
    DeviceContext* Context() const { return ContextOf(Keyboard); }

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
        EXPECT_EQ(ZwCreateFile(&hFile, GENERIC_READ, &attributes, &ioStatus, nullptr, 0, FILE_SHARE_READ,
                               FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                  OK);
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
        ASSERT_EQ(ZwOpenKey(&hKey, KEY_SET_VALUE, &attributes), OK);
        if (bytes.empty()) {
            (void)ZwDeleteValueKey(hKey, &name); // absent already is as good
        } else {
            EXPECT_EQ(ZwSetValueKey(hKey, &name, 0, ulType, const_cast<unsigned char*>(bytes.data()),
                                    static_cast<ULONG>(bytes.size())),
                      OK);
        }
        ZwClose(hKey);
    }

    DriveFolder Drive;
    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard = nullptr;
};
