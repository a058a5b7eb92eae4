// registry.cpp - the registry: a tree of keys and values in memory, and the native calls on it.
//
// Keys are found without case. A key handle's object holds the key's path; keys are never deleted, so the
// pointer behind it stays good.
#include "core.h"

struct KeyBody {
    HostKey* pKey;
};

static void DestroyKeyBody(void*) {}

// Finds a key by its full path ("\Registry\Machine\..."), or makes it and what leads to it.
// Lock: held.
HostKey* HostFindKey(const HostText& path, bool bCreate, bool* pbCreated)
{
    HostKey* pKey = &g->Hive.Root;
    for (size_t begin = 0; begin < path.size();) {
        if (path[begin] == u'\\') {
            begin++;
            continue;
        }
        size_t end = path.find(u'\\', begin);
        HostText name = path.substr(begin, end == HostText::npos ? HostText::npos : end - begin);
        begin += name.size();
        std::unique_ptr<HostKey>& pChild = pKey->Keys[HostUpper(name)];
        if (pChild == nullptr) {
            if (!bCreate) {
                pKey->Keys.erase(HostUpper(name));
                return nullptr;
            }
            pChild = std::make_unique<HostKey>();
            pChild->Name = name;
            if (pbCreated != nullptr) {
                *pbCreated = true;
            }
        }
        pKey = pChild.get();
    }
    return pKey;
}

static NTSTATUS OpenKey(PHANDLE pHandle, ACCESS_MASK desired, POBJECT_ATTRIBUTES pAttributes, bool bCreate,
                        bool* pbCreated)
{
    if (HostShouldFail("key", bCreate ? "ZwCreateKey" : "ZwOpenKey",
                       [&] { return HostShown(pAttributes->ObjectName); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostText path = HostTextOf(pAttributes->ObjectName);
    HostKey* pKey;
    if (pAttributes->RootDirectory != nullptr) {
        return STATUS_NOT_IMPLEMENTED;
    }
    {
        HostLock lock(g->Lock);
        if (HostUpper(path).compare(0, 10, u"\\REGISTRY\\") != 0) {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        pKey = HostFindKey(path, bCreate, pbCreated);
    }
    if (pKey == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    KeyBody* pBody = static_cast<KeyBody*>(HostNewObject(HostKindKey, sizeof(KeyBody), DestroyKeyBody));
    pBody->pKey = pKey;
    *pHandle = HostNewHandle(pBody, pAttributes->Attributes, desired);
    return STATUS_SUCCESS;
}

NTSTATUS ZwCreateKey(PHANDLE pHandle, ACCESS_MASK desired, POBJECT_ATTRIBUTES pAttributes, ULONG,
                     PUNICODE_STRING, ULONG, PULONG pulDisposition)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    bool bCreated = false;
    NTSTATUS status = OpenKey(pHandle, desired, pAttributes, true, &bCreated);
    if (NT_SUCCESS(status) && pulDisposition != nullptr) {
        *pulDisposition = bCreated ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    }
    return status;
}

NTSTATUS ZwOpenKey(PHANDLE pHandle, ACCESS_MASK desired, POBJECT_ATTRIBUTES pAttributes)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    return OpenKey(pHandle, desired, pAttributes, false, nullptr);
}

static HostKey* KeyOf(HANDLE h, ACCESS_MASK needed, NTSTATUS* pStatus)
{
    KeyBody* pBody = static_cast<KeyBody*>(HostFromHandle(h, HostKindKey, needed, pStatus));
    return pBody == nullptr ? nullptr : pBody->pKey;
}

NTSTATUS ZwQueryValueKey(HANDLE h, PUNICODE_STRING pName, KEY_VALUE_INFORMATION_CLASS infoClass,
                         PVOID pBuffer, ULONG ulLength, PULONG pulResult)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("value", __func__, [&] { return HostShown(pName); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status;
    HostKey* pKey = KeyOf(h, KEY_QUERY_VALUE, &status);
    if (pKey == nullptr) {
        return status;
    }
    if (infoClass != KeyValuePartialInformation) {
        return STATUS_NOT_IMPLEMENTED;
    }
    HostLock lock(g->Lock);
    auto it = pKey->Values.find(HostUpper(HostTextOf(pName)));
    if (it == pKey->Values.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const HostValue& value = it->second;
    const ULONG ulHead = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    *pulResult = ulHead + static_cast<ULONG>(value.Data.size());
    if (ulLength < ulHead) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    PKEY_VALUE_PARTIAL_INFORMATION pPartial = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(pBuffer);
    HostFillUnwritten(static_cast<UCHAR*>(pBuffer), ulLength); // what is not written is not zero
    pPartial->TitleIndex = 0;
    pPartial->Type = value.ulType;
    pPartial->DataLength = static_cast<ULONG>(value.Data.size());
    size_t fits = ulLength - ulHead < value.Data.size() ? ulLength - ulHead : value.Data.size();
    if (fits != 0) {
        memcpy(static_cast<UCHAR*>(pBuffer) + ulHead, value.Data.data(), fits);
    }
    return fits == value.Data.size() ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS ZwSetValueKey(HANDLE h, PUNICODE_STRING pName, ULONG, ULONG ulType, PVOID pData, ULONG ulSize)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("value", __func__, [&] { return HostShown(pName); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status;
    HostKey* pKey = KeyOf(h, KEY_SET_VALUE, &status);
    if (pKey == nullptr) {
        return status;
    }
    HostText name = HostTextOf(pName);
    const UCHAR* p = static_cast<const UCHAR*>(pData);
    HostTellOutput("a value", pData, ulSize);
    HostLock lock(g->Lock);
    pKey->Values[HostUpper(name)] = {name, ulType, std::vector<UCHAR>(p, p + ulSize)};
    return STATUS_SUCCESS;
}

NTSTATUS ZwFlushKey(HANDLE h)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("flush")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status;
    if (KeyOf(h, 0, &status) == nullptr) {
        return status;
    }
    std::string text = HostRegistryText(); // the whole of it, as a hive is written whole
    HostLock lock(g->Lock);
    g->Hive.OnDisk = std::move(text);
    return STATUS_SUCCESS;
}

std::string HostFlushedRegistryText()
{
    HostLock lock(g->Lock);
    return g->Hive.OnDisk.empty() ? g->Options.RegistryText : g->Hive.OnDisk;
}

NTSTATUS ZwDeleteValueKey(HANDLE h, PUNICODE_STRING pName)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("value", __func__, [&] { return HostShown(pName); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status;
    HostKey* pKey = KeyOf(h, KEY_SET_VALUE, &status);
    if (pKey == nullptr) {
        return status;
    }
    HostLock lock(g->Lock);
    return pKey->Values.erase(HostUpper(HostTextOf(pName))) != 0 ? STATUS_SUCCESS
                                                                 : STATUS_OBJECT_NAME_NOT_FOUND;
}
