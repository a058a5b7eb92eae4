// errorcount.cpp - the start-up guard: how many guarded sections were entered and not left.
//
// The count lies in the registry, so a section that the system did not survive stays counted; from two on
// no further keyboard is attached. Each change goes to the disk at once: the registry's own time to write is
// seconds away, and the section may end the system before. The path is fixed: it names the parameters key of the
// driver under its own service name.
// Runs in driver entry, add-device and the creation of the control device, at PASSIVE_LEVEL.
#include "driver/driver.h"

namespace
{
enum : ULONG { VALUE_BUFFER_BYTES = 200, REFUSE_FROM = 2 };

const WCHAR CountKeyPath[] =
    L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams";
const WCHAR CountValueName[] = L"ErrorCount";

// IRQL = PASSIVE. Owns: the handle, closed by the caller.
NTSTATUS OpenCountKey(PHANDLE phKey)
{
    UNICODE_STRING path;
    OBJECT_ATTRIBUTES attributes;
    RtlInitUnicodeString(&path, CountKeyPath);
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    return ZwCreateKey(phKey, KEY_ALL_ACCESS, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
}

// The stored bytes as a number, whatever type they carry; a shorter value counts as zero-extended.
// IRQL = PASSIVE.
NTSTATUS ReadCount(HANDLE hKey, PULONG pulCount)
{
    alignas(KEY_VALUE_PARTIAL_INFORMATION) UCHAR buffer[VALUE_BUFFER_BYTES];
    PKEY_VALUE_PARTIAL_INFORMATION pValue = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
    UNICODE_STRING name;
    ULONG ulResult = 0;

    RtlInitUnicodeString(&name, CountValueName);
    const NTSTATUS status =
        ZwQueryValueKey(hKey, &name, KeyValuePartialInformation, buffer, sizeof(buffer), &ulResult);
    *pulCount = 0;
    if (NT_SUCCESS(status)) {
        const ULONG ulBytes = pValue->DataLength < sizeof(ULONG) ? pValue->DataLength : sizeof(ULONG);
        RtlCopyMemory(pulCount, pValue->Data, ulBytes);
    }
    return status;
}

// IRQL = PASSIVE.
NTSTATUS WriteCount(HANDLE hKey, ULONG ulCount)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, CountValueName);
    return ZwSetValueKey(hKey, &name, 0, REG_BINARY, &ulCount, sizeof(ulCount));
}

// Neither end wraps.
ULONG NextCount(USHORT usMode, ULONG ulCount)
{
    if (usMode == ErrorCountEnter) {
        return ulCount < MAXULONG ? ulCount + 1 : ulCount;
    }
    if (usMode == ErrorCountLeave) {
        return ulCount > 0 ? ulCount - 1 : 0;
    }
    return ulCount;
}

// IRQL = PASSIVE. Fails: with the status of the step that failed.
NTSTATUS ApplyToCount(HANDLE hKey, USHORT usMode, PUCHAR pucRefuse)
{
    ULONG ulCount = 0;
    NTSTATUS status = ReadCount(hKey, &ulCount);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        status = WriteCount(hKey, 0);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    status = ReadCount(hKey, &ulCount);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (usMode == ErrorCountCheck && ulCount >= REFUSE_FROM) {
        *pucRefuse = 1;
        return STATUS_SUCCESS;
    }
    const ULONG ulNext = NextCount(usMode, ulCount);
    status = WriteCount(hKey, ulNext);
    if (NT_SUCCESS(status) && ulNext != ulCount) {
        (void)ZwFlushKey(hKey); // not flushed, it is lost only if the system stops now
    }
    return status;
}
} // namespace

// Checks, raises or lowers the count. *pucRefuse becomes 1 only by a check that finds too many, else 0.
// IRQL = PASSIVE. Fails: STATUS_UNSUCCESSFUL, the registry refuses.
NTSTATUS UpdateErrorCount(USHORT usMode, PUCHAR pucRefuse)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HANDLE hKey = nullptr;

    *pucRefuse = 0;
    if (!NT_SUCCESS(OpenCountKey(&hKey))) {
        return STATUS_UNSUCCESSFUL;
    }
    const NTSTATUS status = ApplyToCount(hKey, usMode, pucRefuse);
    ZwClose(hKey);
    return NT_SUCCESS(status) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
