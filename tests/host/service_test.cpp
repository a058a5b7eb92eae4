// service_test.cpp - the services around requests: names, references, handles, registry, strings.
#include "driver.h"

#include <cstdio>
#include <vector>

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

TEST(Objects, AHandleIsGoodForWhatItWasOpenedFor)
{
    HostOptions options;
    options.ulFirstHandle = 0x80000000;
    SmallSystem system(options);
    HANDLE h = HostCreateEvent(false, EVENT_QUERY_STATE | SYNCHRONIZE);
    EXPECT_EQ(0x80000000, reinterpret_cast<ULONG_PTR>(h));
    PVOID pEvent;
    auto reference = [&](ACCESS_MASK desired) {
        return ObReferenceObjectByHandle(h, desired, *ExEventObjectType, UserMode, &pEvent, nullptr);
    };
    EXPECT_EQ(STATUS_ACCESS_DENIED, reference(EVENT_MODIFY_STATE));
    EXPECT_EQ(STATUS_ACCESS_DENIED, reference(GENERIC_WRITE));
    EXPECT_EQ(nullptr, pEvent);
    EXPECT_EQ(STATUS_SUCCESS, reference(SYNCHRONIZE));
    ObDereferenceObject(pEvent);
    HostCloseHandle(h);
    UNICODE_STRING path = Str(L"\\Registry\\Machine\\Software\\Small"), name = Str(L"Value");
    OBJECT_ATTRIBUTES attributes = Named(path);
    struct {
        ACCESS_MASK Rights;
        NTSTATUS Write, Delete, Read;
    } const CASES[] = {
        {KEY_ALL_ACCESS, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_OBJECT_NAME_NOT_FOUND},
        {GENERIC_ALL, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_OBJECT_NAME_NOT_FOUND},
        {KEY_WRITE, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {KEY_READ, STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED, STATUS_OBJECT_NAME_NOT_FOUND},
    };
    for (const auto& test : CASES) {
        ULONG ulData = 1, ulLength;
        HANDLE hKey;
        ASSERT_EQ(STATUS_SUCCESS, ZwCreateKey(&hKey, test.Rights, &attributes, 0, nullptr, 0, nullptr));
        EXPECT_EQ(test.Write, ZwSetValueKey(hKey, &name, 0, REG_DWORD, &ulData, sizeof(ulData)));
        EXPECT_EQ(test.Delete, ZwDeleteValueKey(hKey, &name));
        EXPECT_EQ(test.Read, ZwQueryValueKey(hKey, &name, KeyValuePartialInformation, nullptr, 0, &ulLength));
        ZwClose(hKey);
    }
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
    ASSERT_EQ(STATUS_SUCCESS, ZwOpenKey(&h, KEY_READ | KEY_WRITE, &attributes));
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

static std::string handed;

static NTSTATUS NTAPI NoteText(PWSTR, ULONG ulType, PVOID pData, ULONG ulLength, PVOID, PVOID)
{
    UNICODE_STRING text = {static_cast<USHORT>(ulLength), static_cast<USHORT>(ulLength),
                           static_cast<PWCH>(pData)};
    handed += std::to_string(ulType) + Narrow(&text).c_str() + ";";
    return STATUS_SUCCESS;
}

TEST(Registry, TextsAreExpandedAndListsAreTakenApartUnlessAskedNotTo)
{
    SmallSystem system;
    UNICODE_STRING path = Str(L"\\Registry\\Machine\\Software\\Small");
    OBJECT_ATTRIBUTES attributes = Named(path);
    HANDLE hKey;
    ASSERT_EQ(STATUS_SUCCESS, ZwCreateKey(&hKey, KEY_WRITE, &attributes, 0, nullptr, 0, nullptr));
    static WCHAR szPath[] = L"%systemroot%\\x%y%";
    static WCHAR szList[] = L"one\0two\0";
    UNICODE_STRING names[] = {Str(L"Path"), Str(L"List")};
    ZwSetValueKey(hKey, &names[0], 0, REG_EXPAND_SZ, szPath, sizeof(szPath));
    ZwSetValueKey(hKey, &names[1], 0, REG_MULTI_SZ, szList, sizeof(szList));
    ZwClose(hKey);
    handed.clear();
    for (ULONG ulFlags : {0u, static_cast<ULONG>(RTL_QUERY_REGISTRY_NOEXPAND)}) {
        RTL_QUERY_REGISTRY_TABLE table[3] = {};
        for (int i = 0; i < 2; i++) {
            table[i].QueryRoutine = NoteText;
            table[i].Flags = ulFlags;
            table[i].Name = names[i].Buffer;
        }
        EXPECT_EQ(STATUS_SUCCESS, RtlQueryRegistryValues(0, path.Buffer, table, nullptr, nullptr));
    }
    EXPECT_EQ("1C:\\Windows\\x%y%;1one;1two;2%systemroot%\\x%y%;7one;", handed);
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
