// parameters.cpp - the settings: one registry value after the other into its field of DriverSettings.
//
// In:  the parameters key, which lies under the service key.
// Out: Settings. A value that is absent, or of another type or length than it should be, leaves its field
//      as it was.
// Runs in driver entry at PASSIVE_LEVEL. The queries go through a routine of ours instead of storing
// directly: a direct query trusts the length of the stored value.
#include "driver/driver.h"

#include "driver/context.h"

namespace
{
enum : USHORT { LOG_NAME_BYTES = 265, LOG_NAME_CAPACITY = 255 };

const WCHAR ParametersKeyName[] = L"\\TolvenParams";
} // namespace

// The service key path, "\TolvenParams" and a NUL, in memory of its own.
// IRQL = PASSIVE. Owns: the caller frees the buffer. Fails: no memory, path too long to extend.
NTSTATUS BuildParametersPath(PUNICODE_STRING pRegistryPath, POOL_TYPE poolType, PUNICODE_STRING pPath)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const ULONG ulBytes = pRegistryPath->Length + (sizeof(ParametersKeyName) - sizeof(WCHAR)) + 10u;

    RtlZeroMemory(pPath, sizeof(*pPath));
    if (ulBytes > MAXUSHORT) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pPath->Buffer = static_cast<PWCH>(AllocateZeroed(poolType, ulBytes));
    if (pPath->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pPath->MaximumLength = static_cast<USHORT>(ulBytes);
    RtlCopyUnicodeString(pPath, pRegistryPath);
    RtlAppendUnicodeToString(pPath, ParametersKeyName); // fits: the buffer was measured for it
    return STATUS_SUCCESS;
}

namespace
{
// Takes a number.
// IRQL = PASSIVE. Fails: not a REG_DWORD of four bytes.
NTSTATUS NTAPI StoreNumber(PWSTR, ULONG ulType, PVOID pData, ULONG ulBytes, PVOID, PVOID pField)
{
    if (ulType != REG_DWORD || ulBytes != sizeof(ULONG)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    RtlCopyMemory(pField, pData, sizeof(ULONG));
    return STATUS_SUCCESS;
}

// Takes a text up to its first NUL into the counted string.
// IRQL = PASSIVE. Fails: not a REG_SZ, or with its NUL longer than the string's capacity.
NTSTATUS NTAPI StoreText(PWSTR, ULONG ulType, PVOID pData, ULONG ulBytes, PVOID, PVOID pField)
{
    const WCHAR* pText = static_cast<const WCHAR*>(pData);
    PUNICODE_STRING pString = static_cast<PUNICODE_STRING>(pField);
    ULONG ulChars = 0;

    if (ulType != REG_SZ) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    while (ulChars < ulBytes / sizeof(WCHAR) && pText[ulChars] != UNICODE_NULL) {
        ulChars++;
    }
    if ((ulChars + 1) * sizeof(WCHAR) > pString->MaximumLength) {
        return STATUS_UNSUCCESSFUL;
    }
    pString->Length = static_cast<USHORT>(ulChars * sizeof(WCHAR));
    RtlCopyMemory(pString->Buffer, pText, pString->Length);
    pString->Buffer[ulChars] = UNICODE_NULL;
    return STATUS_SUCCESS;
}

// One value by a query of its own; the default stands in for an absent one.
// IRQL = PASSIVE. Fails: no such key, or what pStore says.
NTSTATUS QueryValue(PUNICODE_STRING pPath, PCWSTR pszName, PRTL_QUERY_REGISTRY_ROUTINE pStore, PVOID pField,
                    ULONG ulType, PVOID pDefault, ULONG ulDefaultBytes)
{
    RTL_QUERY_REGISTRY_TABLE table[2];
    RtlZeroMemory(table, sizeof(table)); // the second entry ends the table
    table[0].QueryRoutine = pStore;
    table[0].Flags = RTL_QUERY_REGISTRY_NOEXPAND;
    table[0].Name = const_cast<PWSTR>(pszName);
    table[0].EntryContext = pField;
    table[0].DefaultType = ulType;
    table[0].DefaultData = pDefault;
    table[0].DefaultLength = ulDefaultBytes;
    return RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, pPath->Buffer, table, nullptr, nullptr);
}

NTSTATUS QueryNumber(PUNICODE_STRING pPath, PCWSTR pszName, PULONG pulField)
{
    ULONG ulDefault = *pulField;
    return QueryValue(pPath, pszName, StoreNumber, pulField, REG_DWORD, &ulDefault, sizeof(ulDefault));
}
} // namespace

// Fills Settings from the parameters key. The log's level and size are read only behind a good log file name.
// IRQL = PASSIVE. Fails: no memory, or as the last query failed; the caller need not care.
NTSTATUS QueryDriverParameters(PUNICODE_STRING pRegistryPath)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    UNICODE_STRING path;
    WCHAR szEmpty[1] = {UNICODE_NULL};
    PUNICODE_STRING pLogFile = &Settings.LogFileName;

    pLogFile->Buffer = static_cast<PWCH>(AllocateZeroed(NonPagedPoolNx, LOG_NAME_BYTES));
    if (pLogFile->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pLogFile->Length = 0;
    pLogFile->MaximumLength = LOG_NAME_CAPACITY;
    NTSTATUS status = BuildParametersPath(pRegistryPath, PagedPool, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    QueryNumber(&path, L"Prefix1", &Settings.ulPrefix1);
    QueryNumber(&path, L"Prefix2", &Settings.ulPrefix2);
    QueryNumber(&path, L"PosKeyPrefix", &Settings.ulPosKeyPrefix);
    QueryNumber(&path, L"SendUpEventImmediately", &Settings.ulSendUpEventImmediately);
    QueryNumber(&path, L"RunDiagNormalPacket02", &Settings.ulRunDiagNormalPacket02);
    status = QueryValue(&path, L"LogFile", StoreText, pLogFile, REG_SZ, szEmpty, sizeof(szEmpty));
    if (NT_SUCCESS(status)) {
        status = QueryNumber(&path, L"LogLevel", &Settings.ulLogLevel);
    }
    if (NT_SUCCESS(status)) {
        status = QueryNumber(&path, L"LogFileSize", &Settings.ulLogFileSize);
    }
    ExFreePoolWithTag(path.Buffer, POOL_TAG);
    return status;
}
