// regquery.cpp - RtlQueryRegistryValues: a table of values read in one call.
//
// Direct entries store into the caller's variable:
//   text            into the counted string; without a buffer one is allocated
//   up to 4 bytes   as they are
//   longer          a negative first LONG tells the buffer's size: data only;
//                   else: length, type, data
//
// Without NOEXPAND the variables in a text are replaced, and a list of texts is handed over text by text. The
// one variable is %SystemRoot%.
#include "core.h"

static const char16_t* BaseOf(ULONG ulRelativeTo)
{
    switch (ulRelativeTo & 0xff) {
    case RTL_REGISTRY_SERVICES:
        return u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";
    case RTL_REGISTRY_CONTROL:
        return u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\";
    case RTL_REGISTRY_WINDOWS_NT:
        return u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion\\";
    case RTL_REGISTRY_DEVICEMAP:
        return u"\\Registry\\Machine\\Hardware\\DeviceMap\\";
    default:
        return u"";
    }
}

static bool IsText(ULONG ulType)
{
    return ulType == REG_SZ || ulType == REG_EXPAND_SZ || ulType == REG_MULTI_SZ;
}

static NTSTATUS StoreText(PUNICODE_STRING pString, const std::vector<UCHAR>& data)
{
    if (data.size() > 0xFFFE) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    bool bEnded = data.size() >= 2 && data[data.size() - 1] == 0 && data[data.size() - 2] == 0;
    size_t needed = data.size() + (bEnded ? 0 : sizeof(WCHAR));
    if (pString->Buffer == nullptr) {
        pString->Buffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, needed, 0x67655255));
        if (pString->Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        pString->MaximumLength = static_cast<USHORT>(needed);
    } else if (needed > pString->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    UCHAR* pTarget = reinterpret_cast<UCHAR*>(pString->Buffer);
    memcpy(pTarget, data.data(), data.size());
    memset(pTarget + data.size(), 0, needed - data.size());
    pString->Length = static_cast<USHORT>(needed - sizeof(WCHAR));
    return STATUS_SUCCESS;
}

static NTSTATUS StoreDirect(PVOID pContext, ULONG ulType, const std::vector<UCHAR>& data)
{
    if (IsText(ulType)) {
        return StoreText(static_cast<PUNICODE_STRING>(pContext), data);
    }
    if (data.size() <= sizeof(ULONG)) {
        memcpy(pContext, data.data(), data.size());
        return STATUS_SUCCESS;
    }
    LONG lRoom;
    memcpy(&lRoom, pContext, sizeof(lRoom));
    if (lRoom < 0) {
        if (data.size() > static_cast<size_t>(-static_cast<LONGLONG>(lRoom))) {
            return STATUS_BUFFER_TOO_SMALL;
        }
        memcpy(pContext, data.data(), data.size());
        return STATUS_SUCCESS;
    }
    if (static_cast<size_t>(lRoom) < 2 * sizeof(ULONG) + data.size()) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG head[2] = {static_cast<ULONG>(data.size()), ulType};
    memcpy(pContext, head, sizeof(head));
    memcpy(static_cast<UCHAR*>(pContext) + sizeof(head), data.data(), data.size());
    return STATUS_SUCCESS;
}

static std::vector<UCHAR> DefaultOf(const RTL_QUERY_REGISTRY_TABLE* pEntry, ULONG ulType)
{
    size_t length = pEntry->DefaultLength;
    if (length == 0 && IsText(ulType) && pEntry->DefaultData != nullptr) {
        length = (HostTextOf(static_cast<PCWSTR>(pEntry->DefaultData)).size() + 1) * sizeof(WCHAR);
    } else if (length == 0 && ulType == REG_DWORD) {
        length = sizeof(ULONG);
    }
    const UCHAR* p = static_cast<const UCHAR*>(pEntry->DefaultData);
    return std::vector<UCHAR>(p, p == nullptr ? p : p + length);
}

static std::vector<UCHAR> BytesOf(const HostText& text)
{
    const UCHAR* p = reinterpret_cast<const UCHAR*>(text.c_str());
    return std::vector<UCHAR>(p, p + (text.size() + 1) * sizeof(WCHAR));
}

static HostText TextOf(const std::vector<UCHAR>& data)
{
    HostText text(data.size() / sizeof(WCHAR), u'\0');
    memcpy(&text[0], data.data(), text.size() * sizeof(WCHAR));
    return text;
}

static std::vector<UCHAR> Expand(const std::vector<UCHAR>& data)
{
    const HostText variable = u"%SYSTEMROOT%";
    HostText text = TextOf(data).c_str();
    for (size_t at; (at = HostUpper(text).find(variable)) != HostText::npos;) {
        text.replace(at, variable.size(), u"C:\\Windows");
    }
    return BytesOf(text);
}

// Hands one value to its variable or its routine.
static NTSTATUS Hand(const RTL_QUERY_REGISTRY_TABLE* pEntry, ULONG ulType, std::vector<UCHAR> data,
                     PVOID pContext, PVOID pEntryContext)
{
    data.reserve(1); // an empty value has an address too
    if (pEntry->Flags & RTL_QUERY_REGISTRY_DIRECT) {
        return StoreDirect(pEntryContext, ulType, data);
    }
    return pEntry->QueryRoutine(const_cast<PWSTR>(pEntry->Name), ulType, data.data(),
                                static_cast<ULONG>(data.size()), pContext, pEntryContext);
}

// One text after the other, until an empty one; direct ones go into counted strings side by side.
static NTSTATUS HandEach(const RTL_QUERY_REGISTRY_TABLE* pEntry, const std::vector<UCHAR>& data,
                         PVOID pContext)
{
    const HostText all = TextOf(data);
    PUCHAR pEntryContext = static_cast<PUCHAR>(pEntry->EntryContext);
    NTSTATUS status = STATUS_SUCCESS;
    for (size_t begin = 0; NT_SUCCESS(status) && begin < all.size() && all[begin] != 0;) {
        const HostText one = all.c_str() + begin;
        begin += one.size() + 1;
        status = Hand(pEntry, REG_SZ, BytesOf(one), pContext, pEntryContext);
        pEntryContext += pEntry->Flags & RTL_QUERY_REGISTRY_DIRECT ? sizeof(UNICODE_STRING) : 0;
    }
    return status;
}

static NTSTATUS QueryOne(const HostKey* pKey, const RTL_QUERY_REGISTRY_TABLE* pEntry, PVOID pContext)
{
    HostText name = pEntry->Name == nullptr ? HostText() : HostTextOf(pEntry->Name);
    bool bTypeCheck = pEntry->Flags & RTL_QUERY_REGISTRY_TYPECHECK;
    ULONG ulWanted = pEntry->DefaultType >> RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
    ULONG ulType;
    std::vector<UCHAR> data;
    bool bFound;
    {
        HostLock lock(g->Lock);
        auto it = pKey->Values.find(HostUpper(name));
        bFound = it != pKey->Values.end();
        if (bFound) {
            ulType = it->second.ulType;
            data = it->second.Data;
        }
    }
    if (!bFound) {
        ulType = bTypeCheck ? pEntry->DefaultType & 0x00ffffff : pEntry->DefaultType;
        if (ulType == REG_NONE) {
            return pEntry->Flags & RTL_QUERY_REGISTRY_REQUIRED ? STATUS_OBJECT_NAME_NOT_FOUND
                                                               : STATUS_SUCCESS;
        }
        data = DefaultOf(pEntry, ulType);
    } else if (bTypeCheck && (pEntry->Flags & RTL_QUERY_REGISTRY_DIRECT) && ulType != ulWanted) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    const bool bExpand = !(pEntry->Flags & RTL_QUERY_REGISTRY_NOEXPAND);
    if (bExpand && ulType == REG_MULTI_SZ) {
        return HandEach(pEntry, data, pContext);
    }
    if (bExpand && ulType == REG_EXPAND_SZ) {
        return Hand(pEntry, REG_SZ, Expand(data), pContext, pEntry->EntryContext);
    }
    return Hand(pEntry, ulType, std::move(data), pContext, pEntry->EntryContext);
}

NTSTATUS RtlQueryRegistryValues(ULONG ulRelativeTo, PCWSTR pPath, PRTL_QUERY_REGISTRY_TABLE pTable,
                                PVOID pContext, PVOID)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("value")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if ((ulRelativeTo & 0xff) > RTL_REGISTRY_DEVICEMAP || (ulRelativeTo & RTL_REGISTRY_HANDLE)) {
        return STATUS_NOT_IMPLEMENTED;
    }
    HostKey* pKey;
    {
        HostLock lock(g->Lock);
        pKey = HostFindKey(BaseOf(ulRelativeTo) + HostTextOf(pPath), false, nullptr);
    }
    if (pKey == nullptr) {
        return ulRelativeTo & RTL_REGISTRY_OPTIONAL ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NTSTATUS status = STATUS_SUCCESS;
    for (; NT_SUCCESS(status) && (pTable->QueryRoutine != nullptr || pTable->Name != nullptr); pTable++) {
        const ULONG ulKnown = RTL_QUERY_REGISTRY_REQUIRED | RTL_QUERY_REGISTRY_NOEXPAND |
                              RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TYPECHECK;
        if ((pTable->Flags & ~ulKnown) || pTable->Name == nullptr ||
            ((pTable->Flags & RTL_QUERY_REGISTRY_DIRECT) && pTable->QueryRoutine != nullptr)) {
            return STATUS_INVALID_PARAMETER;
        }
        status = QueryOne(pKey, pTable, pContext);
    }
    return status;
}
