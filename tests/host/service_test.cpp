// service_test.cpp - the services around requests: names, references, Plug and Play, registry, files.
#include "driver.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

static std::string Narrow(PCUNICODE_STRING pString)
{
    std::string text;
    for (int i = 0; i < pString->Length / 2; i++) {
        text.push_back(static_cast<char>(pString->Buffer[i]));
    }
    return text;
}

static OBJECT_ATTRIBUTES Named(UNICODE_STRING& name)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    return attributes;
}

// --- names, references, handles

TEST(Names, OneDeviceManyWaysToWriteItsName)
{
    SmallSystem system;
    HostFile file;
    for (const WCHAR* pName : {L"\\\\.\\Small", L"\\??\\small", L"\\DosDevices\\SMALL", L"\\Device\\Small",
                               L"\\device\\small\\tail"}) {
        EXPECT_EQ(STATUS_SUCCESS, HostOpen(pName, &file));
        HostClose(file);
    }
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, HostOpen(L"\\\\.\\Smal", &file));
    UNICODE_STRING name = Str(L"\\DEVICE\\small"), link = Str(L"\\??\\SMALL");
    PDEVICE_OBJECT pDevice;
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateDevice(system.pDriver, 0, &name, 0, 0, FALSE, &pDevice));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateSymbolicLink(&link, &name));
}

TEST(Objects, ADeletedDeviceStaysWhileItIsReferenced)
{
    SmallSystem system;
    UNICODE_STRING name = Str(L"\\Device\\Other");
    PDEVICE_OBJECT pDevice, pFound;
    PFILE_OBJECT pFile;
    IoCreateDevice(system.pDriver, 16, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, IoGetDeviceObjectPointer(&name, 0, &pFile, &pFound)) << "half built";
    pDevice->Flags &= ~DO_DEVICE_INITIALIZING;
    EXPECT_EQ(STATUS_SUCCESS, IoGetDeviceObjectPointer(&name, 0, &pFile, &pFound));
    EXPECT_EQ(pDevice, pFound);
    IoDeleteDevice(pDevice);
    EXPECT_EQ(system.pDevice, system.pDriver->DeviceObject);
    static_cast<UCHAR*>(pDevice->DeviceExtension)[15] = 1;
    ObDereferenceObject(pFile);
}

TEST(Objects, HandlesAreCheckedByKindAndMode)
{
    SmallSystem system;
    HANDLE hUser = HostCreateEvent(false);
    UNICODE_STRING name = Str(L"\\Registry\\Machine");
    OBJECT_ATTRIBUTES attributes = Named(name);
    HANDLE hKey;
    ASSERT_EQ(STATUS_SUCCESS, ZwOpenKey(&hKey, KEY_READ, &attributes));
    PVOID pEvent;
    EXPECT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(hUser, EVENT_MODIFY_STATE, *ExEventObjectType,
                                                        UserMode, &pEvent, nullptr));
    KeSetEvent(static_cast<PKEVENT>(pEvent), 0, FALSE);
    HostCloseHandle(hUser);
    PVOID pNone;
    EXPECT_EQ(STATUS_INVALID_HANDLE,
              ObReferenceObjectByHandle(hUser, 0, *ExEventObjectType, UserMode, &pNone, nullptr));
    EXPECT_EQ(STATUS_INVALID_HANDLE, ObReferenceObjectByHandle(hKey, 0, nullptr, UserMode, &pNone, nullptr))
        << "a kernel handle";
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH,
              ObReferenceObjectByHandle(hKey, 0, *ExEventObjectType, KernelMode, &pNone, nullptr));
    EXPECT_EQ(1, KeReadStateEvent(static_cast<PKEVENT>(pEvent))) << "lives on without its handle";
    ObDereferenceObject(pEvent);
    ZwClose(hKey);
}

// --- Plug and Play

static std::vector<std::string> told;
static const GUID CLASS = {0x3B7E91C4, 0x5A2D, 0x4F60, {0x9C, 0x1E, 0x7D, 0x84, 0xA2, 0xF0, 0xB6, 0x13}};

static NTSTATUS Tell(PVOID pRecord, PVOID pContext)
{
    auto pChange = static_cast<PDEVICE_INTERFACE_CHANGE_NOTIFICATION>(pRecord);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    EXPECT_TRUE(pChange->InterfaceClassGuid == CLASS);
    told.push_back(std::string(static_cast<const char*>(pContext)) +
                   (pChange->Event == GUID_DEVICE_INTERFACE_ARRIVAL ? "+" : "-"));
    return STATUS_SUCCESS;
}

class PnpModes : public testing::TestWithParam<HostMode>
{
};
INSTANTIATE_TEST_SUITE_P(Host, PnpModes, testing::Values(HostSimulated, HostThreaded));

TEST_P(PnpModes, InterfacesComeAndGoAndAreTold)
{
    SmallSystem system(GetParam());
    told.clear();
    UNICODE_STRING link;
    PVOID pEarly, pLate;
    auto listen = [&](ULONG ulFlags, const char* pName, PVOID* ppEntry) {
        IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange, ulFlags, const_cast<GUID*>(&CLASS),
                                       system.pDriver, Tell, const_cast<char*>(pName), ppEntry);
    };
    listen(0, "early", &pEarly);
    ASSERT_EQ(STATUS_SUCCESS, IoRegisterDeviceInterface(system.pDevice, &CLASS, nullptr, &link));
    EXPECT_NE(std::string::npos, Narrow(&link).find("{3b7e91c4-5a2d-4f60-9c1e-7d84a2f0b613}"));
    EXPECT_EQ(STATUS_SUCCESS, IoSetDeviceInterfaceState(&link, TRUE));
    EXPECT_EQ(STATUS_OBJECT_NAME_EXISTS, IoSetDeviceInterfaceState(&link, TRUE));
    HostSettle();
    listen(PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES, "late", &pLate);
    EXPECT_EQ((std::vector<std::string>{"early+", "late+"}), told);
    PWSTR pList;
    IoGetDeviceInterfaces(&CLASS, nullptr, 0, &pList);
    UNICODE_STRING listed = Str(pList);
    EXPECT_EQ(Narrow(&link), Narrow(&listed));
    ExFreePool(pList);
    IoUnregisterPlugPlayNotification(pEarly);
    IoSetDeviceInterfaceState(&link, FALSE);
    HostSettle();
    EXPECT_EQ((std::vector<std::string>{"early+", "late+", "late-"}), told);
    IoUnregisterPlugPlayNotification(pLate);
    RtlFreeUnicodeString(&link);
}

TEST(Pnp, DevicePropertiesTellTheirLength)
{
    SmallSystem system;
    ULONG ulLength;
    UCHAR buffer[4];
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              IoGetDeviceProperty(system.pDevice, DevicePropertyHardwareID, 4, buffer, &ulLength));
    HostSetDeviceProperty(system.pDevice, DevicePropertyHardwareID, "abc", 4);
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
              IoGetDeviceProperty(system.pDevice, DevicePropertyHardwareID, 3, buffer, &ulLength));
    EXPECT_EQ(4u, ulLength);
    EXPECT_EQ(STATUS_SUCCESS,
              IoGetDeviceProperty(system.pDevice, DevicePropertyHardwareID, 4, buffer, &ulLength));
    EXPECT_EQ(0, memcmp(buffer, "abc", 4));
}

// --- registry

static const char SEED[] = R"(Windows Registry Editor Version 5.00

; a comment
[HKEY_LOCAL_MACHINE\Software\Small]
"Text"="a \"b\" \\c"
"Number"=dword:0000007d
"Bytes"=hex:01,02,\
  03,04,05
"Four"=hex:0a,00,00,00
"Wide"=hex(b):01,00,00,00,00,00,00,00
@="default"
"Gone"=dword:00000001
"Gone"=-
)";

TEST(Registry, TextGoesInAndOut)
{
    std::string text;
    {
        SmallSystem system(HostSimulated, SEED);
        text = HostRegistryText();
    }
    for (const char* pLine : {"[HKEY_LOCAL_MACHINE\\Software\\Small]\n", "\"Text\"=\"a \\\"b\\\" \\\\c\"\n",
                              "\"Number\"=dword:0000007d\n", "\"Bytes\"=hex:01,02,03,04,05\n",
                              "\"Wide\"=hex(b):01,00,00,00,00,00,00,00\n", "@=\"default\"\n"}) {
        EXPECT_NE(std::string::npos, text.find(pLine)) << pLine;
    }
    EXPECT_EQ(std::string::npos, text.find("Gone"));
    SmallSystem again(HostSimulated, text);
    EXPECT_EQ(text, HostRegistryText());
}

static NTSTATUS QueryDirect(const WCHAR* pName, PVOID pTarget, ULONG ulFlags, ULONG ulType,
                            const void* pDefault, ULONG ulDefault,
                            const WCHAR* pKey = L"\\Registry\\Machine\\Software\\Small")
{
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0] = {nullptr, RTL_QUERY_REGISTRY_DIRECT | ulFlags, pName,    pTarget,
                ulType,  const_cast<void*>(pDefault),         ulDefault};
    return RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, pKey, table, nullptr, nullptr);
}

TEST(Registry, KeysAndValuesThroughHandles)
{
    SmallSystem system(HostSimulated, SEED);
    UNICODE_STRING name = Str(L"\\REGISTRY\\Machine\\software\\SMALL");
    UNICODE_STRING missing = Str(L"\\Registry\\Machine\\Software\\None");
    OBJECT_ATTRIBUTES attributes = Named(name), none = Named(missing);
    HANDLE h;
    ULONG ulDisposition, ulLength;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, ZwOpenKey(&h, KEY_READ, &none));
    EXPECT_EQ(STATUS_SUCCESS, ZwCreateKey(&h, KEY_ALL_ACCESS, &none, 0, nullptr, 0, &ulDisposition));
    EXPECT_EQ(ULONG(REG_CREATED_NEW_KEY), ulDisposition);
    ZwClose(h);
    ASSERT_EQ(STATUS_SUCCESS, ZwOpenKey(&h, KEY_READ, &attributes));
    UNICODE_STRING value = Str(L"number"), other = Str(L"Other");
    UCHAR buffer[64];
    auto pPartial = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              ZwQueryValueKey(h, &other, KeyValuePartialInformation, buffer, 64, &ulLength));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
              ZwQueryValueKey(h, &value, KeyValuePartialInformation, buffer, 8, &ulLength));
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW,
              ZwQueryValueKey(h, &value, KeyValuePartialInformation, buffer, 14, &ulLength));
    EXPECT_EQ(STATUS_SUCCESS, ZwQueryValueKey(h, &value, KeyValuePartialInformation, buffer, 64, &ulLength));
    EXPECT_EQ(16u, ulLength);
    EXPECT_EQ(ULONG(REG_DWORD), pPartial->Type);
    EXPECT_EQ(0x7D, pPartial->Data[0]);
    EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(h, &other, 0, REG_BINARY, buffer, 2));
    EXPECT_NE(std::string::npos, HostRegistryText().find("\"Other\"=hex:"));
    EXPECT_EQ(STATUS_SUCCESS,
              ZwSetValueKey(h, &other, 0, REG_SZ, buffer, 0)); // empty, as a hostile one may be
    EXPECT_EQ(STATUS_SUCCESS, ZwQueryValueKey(h, &other, KeyValuePartialInformation, buffer, 64, &ulLength));
    EXPECT_EQ(0u, pPartial->DataLength);
    UNICODE_STRING text = {};
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Other", &text, 0, REG_NONE, nullptr, 0));
    EXPECT_EQ(0, text.Length);
    RtlFreeUnicodeString(&text);
    UCHAR ucEmpty[4] = {1, 2, 3, 4};
    EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(h, &other, 0, REG_BINARY, buffer, 0));
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Other", ucEmpty, 0, REG_NONE, nullptr, 0));
    EXPECT_EQ(1, ucEmpty[0]);
    ZwClose(h);
}

TEST(Registry, DirectQueries)
{
    SmallSystem system(HostSimulated, SEED);
    ULONG ulValue = 1, ulDefault = 77;
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Number", &ulValue, 0, REG_DWORD, &ulDefault, 4));
    EXPECT_EQ(0x7Du, ulValue);
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Missing", &ulValue, 0, REG_DWORD, &ulDefault, 4));
    EXPECT_EQ(77u, ulValue);
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Missing", &ulValue, 0, REG_NONE, nullptr, 0));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              QueryDirect(L"Missing", &ulValue, RTL_QUERY_REGISTRY_REQUIRED, REG_NONE, nullptr, 0));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              QueryDirect(L"Number", &ulValue, 0, REG_DWORD, &ulDefault, 4, L"\\Registry\\Machine\\No"));
    ULONG ulChecked = REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT | REG_DWORD;
    ulValue = 5;
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH,
              QueryDirect(L"Text", &ulValue, RTL_QUERY_REGISTRY_TYPECHECK, ulChecked, &ulDefault, 4));
    EXPECT_EQ(5u, ulValue);
    EXPECT_EQ(STATUS_SUCCESS,
              QueryDirect(L"Missing", &ulValue, RTL_QUERY_REGISTRY_TYPECHECK, ulChecked, &ulDefault, 4));
    EXPECT_EQ(77u, ulValue);
    LONG bytes[2] = {-8, 0};
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Bytes", bytes, 0, REG_NONE, nullptr, 0));
    EXPECT_EQ(0x04030201, bytes[0]);
    bytes[0] = -4;
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, QueryDirect(L"Bytes", bytes, 0, REG_NONE, nullptr, 0));
}

TEST(Registry, DirectTextIsBoundedByItsCapacity)
{
    SmallSystem system(HostSimulated, SEED); // Text is `a "b" \c`: 8 characters, 18 bytes with its NUL
    WCHAR room[16] = {};
    UNICODE_STRING text = {0, 17, room};
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, QueryDirect(L"Text", &text, 0, REG_SZ, L"", 0));
    EXPECT_EQ(0, text.Length);
    text.MaximumLength = 18;
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Text", &text, 0, REG_SZ, L"", 0));
    EXPECT_EQ("a \"b\" \\c", Narrow(&text));
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Missing", &text, 0, REG_SZ, L"", 0));
    EXPECT_EQ(0, text.Length);
    UNICODE_STRING fresh = {};
    EXPECT_EQ(STATUS_SUCCESS, QueryDirect(L"Text", &fresh, 0, REG_SZ, nullptr, 0));
    EXPECT_EQ(18, fresh.MaximumLength);
    RtlFreeUnicodeString(&fresh);
}

// --- files

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
                    ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE)
    {
        UNICODE_STRING name = Str(pName);
        OBJECT_ATTRIBUTES attributes = Named(name);
        return ZwCreateFile(&h, access, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ,
                            ulDisposition, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
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
    alignas(8) UCHAR record[sizeof(FILE_RENAME_INFORMATION) + 64] = {};
    auto pRename = reinterpret_cast<PFILE_RENAME_INFORMATION>(record);
    const WCHAR NEW_NAME[] = L"\\??\\C:\\Logs\\g";
    pRename->FileNameLength = sizeof(NEW_NAME) - sizeof(WCHAR);
    memcpy(pRename->FileName, NEW_NAME, pRename->FileNameLength);
    EXPECT_EQ(STATUS_SUCCESS, ZwSetInformationFile(h, &io, record, sizeof(record), FileRenameInformation));
    ZwClose(h);
    EXPECT_EQ("0123", Content("Logs/g"));
    UNICODE_STRING name = Str(NEW_NAME);
    OBJECT_ATTRIBUTES attributes = Named(name);
    EXPECT_EQ(STATUS_SUCCESS, ZwDeleteFile(&attributes));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, ZwDeleteFile(&attributes));
}
