// files_test.cpp - files: names, reading and writing, and what others may do meanwhile.
#include "driver.h"

#include <filesystem>
#include <fstream>

class Files : public testing::Test
{
protected:
    Files() : root(std::filesystem::temp_directory_path() / ("host-files-" + std::to_string(getpid())))
    {
        std::filesystem::create_directories(root / "Logs");
        std::filesystem::create_directories(root / "Windows");
    }
    ~Files() override { std::filesystem::remove_all(root); }

    NTSTATUS Create(const WCHAR* pName, ULONG ulDisposition,
                    ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | DELETE,
                    ULONG ulShare = FILE_SHARE_READ)
    {
        UNICODE_STRING name = Str(pName);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, ulAttributes, nullptr, nullptr);
        return ZwCreateFile(&h, access, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL, ulShare,
                            ulDisposition, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    }
    NTSTATUS Set(FILE_INFORMATION_CLASS infoClass, void* pRecord, size_t bytes)
    {
        return ZwSetInformationFile(h, &io, pRecord, static_cast<ULONG>(bytes), infoClass);
    }
    NTSTATUS Rename(PCWSTR pName)
    {
        UNICODE_STRING name = Str(pName);
        alignas(8) UCHAR record[sizeof(FILE_RENAME_INFORMATION) + 64] = {};
        auto pRename = reinterpret_cast<PFILE_RENAME_INFORMATION>(record);
        pRename->ReplaceIfExists = TRUE;
        pRename->FileNameLength = name.Length;
        memcpy(pRename->FileName, name.Buffer, name.Length);
        return Set(FileRenameInformation, record, sizeof(record));
    }
    NTSTATUS Delete(PCWSTR pName)
    {
        UNICODE_STRING name = Str(pName);
        OBJECT_ATTRIBUTES attributes = Named(name);
        return ZwDeleteFile(&attributes);
    }
    NTSTATUS Write(const char* pText, LARGE_INTEGER* pOffset = nullptr)
    {
        return ZwWriteFile(h, nullptr, nullptr, nullptr, &io, const_cast<char*>(pText),
                           static_cast<ULONG>(strlen(pText)), pOffset, nullptr);
    }
    NTSTATUS Read(char* pBuffer, ULONG ulLength, LARGE_INTEGER* pOffset = nullptr)
    {
        return ZwReadFile(h, nullptr, nullptr, nullptr, &io, pBuffer, ulLength, pOffset, nullptr);
    }
    std::string Content(const char* pName)
    {
        std::ifstream file(root / pName);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    std::filesystem::path root;
    ULONG ulAttributes = OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE;
    HANDLE h = nullptr;
    IO_STATUS_BLOCK io = {};
};

TEST_F(Files, NamesMapBelowTheRoot)
{
    SmallSystem system(HostSimulated, "", root.string());
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Create(L"\\??\\C:\\Logs\\a.txt", FILE_OPEN));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Create(L"\\??\\C:\\No\\a.txt", FILE_CREATE));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, Create(L"a.txt", FILE_OPEN));
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, Create(L"\\??\\C:\\..\\a.txt", FILE_OPEN));
    EXPECT_EQ(STATUS_FILE_IS_A_DIRECTORY, Create(L"\\??\\C:\\Logs", FILE_OPEN));
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\DosDevices\\c:\\LOGS\\a.txt", FILE_CREATE));
    EXPECT_EQ(ULONG_PTR(FILE_CREATED), io.Information);
    EXPECT_EQ(STATUS_SUCCESS, Write("hello"));
    ZwClose(h);
    EXPECT_EQ("hello", Content("Logs/a.txt"));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, Create(L"\\??\\C:\\Logs\\A.TXT", FILE_CREATE));
    ulAttributes = OBJ_KERNEL_HANDLE;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Create(L"\\??\\C:\\Logs\\A.TXT", FILE_OPEN));
    ulAttributes |= OBJ_CASE_INSENSITIVE;
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\SystemRoot\\x.txt", FILE_OPEN_IF));
    ZwClose(h);
    EXPECT_TRUE(std::filesystem::exists(root / "Windows" / "x.txt"));
}

TEST_F(Files, ReadWriteCutRenameDelete)
{
    SmallSystem system(HostSimulated, "", root.string());
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_OVERWRITE_IF));
    Write("0123");
    Write("456789");
    LARGE_INTEGER at;
    at.QuadPart = 2;
    char buffer[16] = {};
    EXPECT_EQ(STATUS_SUCCESS, Read(buffer, 3, &at));
    EXPECT_EQ(STATUS_SUCCESS, Read(buffer + 3, 16 - 3)) << "goes on behind the last read";
    EXPECT_STREQ("23456789", buffer);
    EXPECT_EQ(STATUS_END_OF_FILE, Read(buffer, 1));
    at.HighPart = -1;
    at.LowPart = FILE_WRITE_TO_END_OF_FILE;
    Write("!", &at);
    FILE_STANDARD_INFORMATION info;
    EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH, ZwQueryInformationFile(h, &io, &info, 8, FileStandardInformation));
    EXPECT_EQ(STATUS_SUCCESS, ZwQueryInformationFile(h, &io, &info, sizeof(info), FileStandardInformation));
    EXPECT_EQ(11, info.EndOfFile.QuadPart);
    FILE_END_OF_FILE_INFORMATION end;
    end.EndOfFile.QuadPart = 4;
    EXPECT_EQ(STATUS_SUCCESS, ZwSetInformationFile(h, &io, &end, sizeof(end), FileEndOfFileInformation));
    EXPECT_EQ(STATUS_SUCCESS, Rename(L"\\??\\C:\\Logs\\g"));
    ZwClose(h);
    EXPECT_EQ("0123", Content("Logs/g"));
    EXPECT_EQ(STATUS_SUCCESS, Delete(L"\\??\\C:\\Logs\\g"));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Delete(L"\\??\\C:\\Logs\\g"));
}

// What the first open uses and allows, against what the second uses and allows.
TEST_F(Files, WhatOneUsesEveryOtherMustAllow)
{
    SmallSystem system(HostSimulated, "", root.string());
    enum : ULONG { ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE };
    struct {
        ACCESS_MASK First;
        ULONG ulFirstShares;
        ACCESS_MASK Second;
        ULONG ulSecondShares;
        NTSTATUS Status;
    } const CASES[] = {
        {GENERIC_READ, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ, STATUS_SUCCESS},
        {GENERIC_READ, FILE_SHARE_READ, GENERIC_WRITE, ALL, STATUS_SHARING_VIOLATION},
        {GENERIC_READ, ALL, GENERIC_WRITE, FILE_SHARE_WRITE, STATUS_SHARING_VIOLATION},
        {GENERIC_READ, ALL, FILE_APPEND_DATA, FILE_SHARE_READ, STATUS_SUCCESS},
        {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_APPEND_DATA | DELETE, FILE_SHARE_READ,
         STATUS_SHARING_VIOLATION},
        {DELETE, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ, STATUS_SHARING_VIOLATION},
        {DELETE, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_DELETE, STATUS_SUCCESS},
        {GENERIC_ALL, 0, FILE_READ_ATTRIBUTES | SYNCHRONIZE, 0, STATUS_SUCCESS},
    };
    for (const auto& test : CASES) {
        ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_OPEN_IF, test.First, test.ulFirstShares));
        HANDLE hFirst = h;
        EXPECT_EQ(test.Status, Create(L"\\??\\C:\\F", FILE_OPEN, test.Second, test.ulSecondShares))
            << &test - CASES;
        if (h != hFirst) {
            ZwClose(h);
        }
        ZwClose(hFirst);
    }
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_OPEN, GENERIC_READ, FILE_SHARE_READ));
    EXPECT_EQ(STATUS_SHARING_VIOLATION, Create(L"\\??\\C:\\f", FILE_OVERWRITE_IF, GENERIC_READ, ALL));
    EXPECT_EQ(STATUS_SHARING_VIOLATION, Delete(L"\\??\\C:\\f"));
    ZwClose(h);
}

TEST_F(Files, AHandleDoesWhatItWasOpenedFor)
{
    SmallSystem system(HostSimulated, "", root.string());
    FILE_END_OF_FILE_INFORMATION end = {};
    FILE_DISPOSITION_INFORMATION gone = {TRUE};
    char buffer[4];
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_CREATE, FILE_APPEND_DATA | SYNCHRONIZE));
    EXPECT_EQ(STATUS_SUCCESS, Write("abcd"));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Read(buffer, 4));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Rename(L"\\??\\C:\\g"));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Set(FileDispositionInformation, &gone, sizeof(gone)));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Set(FileEndOfFileInformation, &end, sizeof(end)));
    ZwClose(h);
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_OPEN, GENERIC_READ));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Write("x"));
    EXPECT_EQ(STATUS_SUCCESS, Read(buffer, 4));
    ZwClose(h);
    EXPECT_EQ("abcd", Content("f"));
}

TEST_F(Files, TheNameGoesWithTheLastOpen)
{
    SmallSystem system(HostSimulated, "", root.string());
    FILE_DISPOSITION_INFORMATION gone = {TRUE};
    const ULONG ulAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_CREATE, GENERIC_READ, ulAll));
    HANDLE hReader = h;
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\f", FILE_OPEN, DELETE, ulAll));
    EXPECT_EQ(STATUS_SUCCESS, Set(FileDispositionInformation, &gone, sizeof(gone)));
    ZwClose(h);
    EXPECT_TRUE(std::filesystem::exists(root / "f"));
    EXPECT_EQ(STATUS_DELETE_PENDING, Create(L"\\??\\C:\\f", FILE_OPEN, GENERIC_READ, ulAll));
    ASSERT_EQ(STATUS_SUCCESS, Create(L"\\??\\C:\\g", FILE_CREATE, DELETE, ulAll));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Rename(L"\\??\\C:\\f")) << "in place of a file that is open";
    ZwClose(hReader);
    EXPECT_FALSE(std::filesystem::exists(root / "f"));
    EXPECT_EQ(STATUS_SUCCESS, Rename(L"\\??\\C:\\f"));
    ZwClose(h);
    EXPECT_TRUE(std::filesystem::exists(root / "f"));
}
