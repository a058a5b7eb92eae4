// object.cpp - counted objects, handles, and the ledger of what each driver references.
//
//   HostObject | body      the header stands in front of the body that the driver sees
//
// The object goes when its count reaches 0. A handle holds one count. References that a driver takes are
// booked on the driver whose code runs, and given back by whoever releases them.
#include "core.h"

struct _OBJECT_TYPE {
    HostKind Kind;
};

static _OBJECT_TYPE EventType = {HostKindEvent};
static _OBJECT_TYPE FileType = {HostKindFile};
static _OBJECT_TYPE ThreadType = {HostKindThread};
static POBJECT_TYPE pEventType = &EventType;
static POBJECT_TYPE pFileType = &FileType;
static POBJECT_TYPE pThreadType = &ThreadType;
POBJECT_TYPE* ExEventObjectType = &pEventType;
POBJECT_TYPE* IoFileObjectType = &pFileType;
POBJECT_TYPE* PsThreadType = &pThreadType;

const char* HostKindName(HostKind kind)
{
    static const char* const NAMES[] = {"event",  "thread",       "file object",
                                        "device", "registry key", "disk file"};
    return NAMES[kind];
}

// A zeroed body with one reference, the caller's.
// IRQL: any.
void* HostNewObject(HostKind kind, size_t bodySize, void (*pDestroy)(void* pBody))
{
    HostObject* pObject =
        static_cast<HostObject*>(HostAllocateBare(sizeof(HostObject) + bodySize, HostObjectKind, nullptr));
    *pObject = {HOST_OBJECT_MAGIC, kind, 1, nullptr, pDestroy, bodySize, nullptr};
    memset(pObject + 1, 0, bodySize);
    return pObject + 1;
}

void HostBugNoObject(const void* pBody, const char* pCall)
{
    HostBug("REFERENCE_BY_POINTER", "%s on %p, which is no object or one that is gone", pCall, pBody);
}

void HostReference(void* pBody)
{
    HostAdd(&HostObjectOf(pBody, "a reference")->lReferences, 1L);
}

long HostDereference(void* pBody)
{
    HostObject* pObject = HostObjectOf(pBody, "a dereference");
    long lLeft = HostAdd(&pObject->lReferences, -1L);
    if (lLeft > 0) {
        return lLeft;
    }
    HostCheckNoLiveThings(pBody, pObject->bodySize, HostKindName(pObject->Kind));
    {
        HostLock lock(g->Lock);
        g->Objects.References.erase(pBody);
    }
    if (pObject->pDestroy != nullptr) {
        pObject->pDestroy(pBody);
    }
    pObject->ulMagic = 0;
    HostRelease(pObject, HostObjectKind);
    return 0;
}

static void Book(void* pBody, long lChange)
{
    PDRIVER_OBJECT pDriver = HostSelf()->pDriver;
    HostLock lock(g->Lock);
    HostLedger::Balance& balance = g->Objects.References[pBody];
    balance.Drivers[pDriver] += lChange;
    balance.lAll += lChange;
    if (balance.lAll < 0) {
        HostBug("REFERENCE_BY_POINTER", "drivers gave back more references on %s %p than they took",
                HostKindName(HostObjectOf(pBody, "a dereference")->Kind), pBody);
    }
}

LONG_PTR ObfReferenceObject(PVOID pBody)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostReference(pBody);
    Book(pBody, 1);
    return __atomic_load_n(&HostObjectOf(pBody, __func__)->lReferences, __ATOMIC_RELAXED);
}

LONG_PTR ObfDereferenceObject(PVOID pBody)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    Book(pBody, -1);
    return HostDereference(pBody);
}

// What a handle may be used for: the rights that were asked for, generic ones as those of the object's kind.
// IRQL: any.
ACCESS_MASK HostRightsOf(HostKind kind, ACCESS_MASK desired)
{
    struct Rights {
        ACCESS_MASK Read, Write, Execute, All;
    };
    static const Rights PLAIN = {READ_CONTROL, READ_CONTROL, READ_CONTROL, STANDARD_RIGHTS_ALL | 0xFFFF};
    static const Rights EVENT = {READ_CONTROL | EVENT_QUERY_STATE, READ_CONTROL | EVENT_MODIFY_STATE,
                                 READ_CONTROL | SYNCHRONIZE, EVENT_ALL_ACCESS};
    static const Rights KEY = {KEY_READ, KEY_WRITE, KEY_READ, KEY_ALL_ACCESS};
    static const Rights FILE_ON_DISK = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                                        FILE_ALL_ACCESS};
    const Rights& rights = kind == HostKindEvent      ? EVENT
                           : kind == HostKindKey      ? KEY
                           : kind == HostKindDiskFile ? FILE_ON_DISK
                                                      : PLAIN;
    ACCESS_MASK granted = desired & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    granted |= desired & GENERIC_READ ? rights.Read : 0;
    granted |= desired & GENERIC_WRITE ? rights.Write : 0;
    granted |= desired & GENERIC_EXECUTE ? rights.Execute : 0;
    granted |= desired & GENERIC_ALL ? rights.All : 0;
    return granted;
}

// The one place in which this handle can be.
// Lock: held.
static HostLedger::Entry& PlaceOf(ULONG_PTR ulHandle)
{
    auto& places = g->Objects.Handles;
    return places[ulHandle / 4 & (places.size() - 1)];
}

// Null: not open.
// Lock: held.
static HostLedger::Entry* EntryOf(HANDLE h)
{
    const ULONG_PTR ulHandle = reinterpret_cast<ULONG_PTR>(h);
    HostLedger::Entry& place = PlaceOf(ulHandle);
    return ulHandle != 0 && place.ulHandle == ulHandle ? &place : nullptr;
}

// What has different places keeps different ones among twice as many.
// Lock: held.
static void MakeRoomForHandles()
{
    std::vector<HostLedger::Entry> before(g->Objects.Handles.size() * 2);
    before.swap(g->Objects.Handles);
    for (const HostLedger::Entry& entry : before) {
        if (entry.ulHandle != 0) {
            PlaceOf(entry.ulHandle) = entry;
        }
    }
}

// A number whose place is taken is passed over.
HANDLE HostNewHandle(void* pBody, ULONG ulAttributes, ACCESS_MASK rights)
{
    PDRIVER_OBJECT pDriver = HostSelf()->pDriver;
    rights = HostRightsOf(HostObjectOf(pBody, "a new handle")->Kind, rights);
    HostLock lock(g->Lock);
    if (++g->Objects.openHandles > g->Objects.Handles.size() / 2) {
        MakeRoomForHandles();
    }
    ULONG_PTR& ulNext = g->Objects.ulNextHandle;
    while (PlaceOf(ulNext).ulHandle != 0) {
        ulNext += 4;
    }
    PlaceOf(ulNext) = {ulNext, pBody, pDriver, !(ulAttributes & OBJ_KERNEL_HANDLE), rights};
    ulNext += 4;
    return reinterpret_cast<HANDLE>(ulNext - 4);
}

// An application can close and reuse its handles at any moment: a driver takes them as UserMode handles only.
static void CheckHandleUse(bool bUserAsKernel, const char* pCall)
{
    if (bUserAsKernel && HostSelf()->pDriver != nullptr) {
        HostBug("USER_HANDLE_IN_KERNEL_MODE", "%s of an application's handle", pCall);
    }
}

// The object behind a handle, as long as the handle stays open. The platform looks at a handle's rights only
// for applications; here a driver, too, asks for what it needs.
// Lock: takes Lock. Fails: no such handle, another kind, a right that was not asked for.
void* HostFromHandle(HANDLE h, HostKind kind, ACCESS_MASK needed, NTSTATUS* pStatus)
{
    HostLock lock(g->Lock);
    const HostLedger::Entry* pEntry = EntryOf(h);
    if (pEntry == nullptr) {
        *pStatus = STATUS_INVALID_HANDLE;
        return nullptr;
    }
    CheckHandleUse(pEntry->bUser, "a system call");
    void* pBody = pEntry->pBody;
    *pStatus = HostObjectOf(pBody, "a handle")->Kind != kind ? STATUS_OBJECT_TYPE_MISMATCH
               : needed & ~pEntry->Rights                    ? STATUS_ACCESS_DENIED
                                                             : STATUS_SUCCESS;
    return NT_SUCCESS(*pStatus) ? pBody : nullptr;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE h, ACCESS_MASK desired, POBJECT_TYPE pType, KPROCESSOR_MODE mode,
                                   PVOID* ppBody, POBJECT_HANDLE_INFORMATION pInformation)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    ACCESS_MASK rights;
    *ppBody = nullptr;
    if (HostShouldFail("handle")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    {
        HostLock lock(g->Lock);
        const HostLedger::Entry* pEntry = EntryOf(h);
        if (pEntry == nullptr || (mode == UserMode && !pEntry->bUser)) {
            return STATUS_INVALID_HANDLE;
        }
        CheckHandleUse(pEntry->bUser && mode == KernelMode, __func__);
        HostObject* pObject = HostObjectOf(pEntry->pBody, __func__);
        if (pType != nullptr && pObject->Kind != pType->Kind) {
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        rights = pEntry->Rights;
        if (HostRightsOf(pObject->Kind, desired) & ~rights) {
            return STATUS_ACCESS_DENIED;
        }
        HostReference(pEntry->pBody);
        *ppBody = pEntry->pBody;
    }
    Book(*ppBody, 1);
    if (pInformation != nullptr) {
        *pInformation = {0, rights};
    }
    return STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE h)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    void* pBody;
    {
        HostLock lock(g->Lock);
        HostLedger::Entry* pEntry = EntryOf(h);
        if (pEntry == nullptr) {
            if (HostSelf()->pDriver != nullptr) {
                HostBug("INVALID_KERNEL_HANDLE", "ZwClose of a handle that is not open");
            }
            return STATUS_INVALID_HANDLE;
        }
        CheckHandleUse(pEntry->bUser, __func__);
        pBody = pEntry->pBody;
        *pEntry = {};
        g->Objects.openHandles--;
    }
    HostDereference(pBody);
    return STATUS_SUCCESS;
}

// Tells the handles that a driver left open and the objects that it still references.
unsigned HostAuditObjects(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    HostLock lock(g->Lock);
    for (const HostLedger::Entry& entry : g->Objects.Handles) {
        if (entry.ulHandle != 0 && entry.pOwner == pDriver) {
            HostLeak(uLeaks, "handle: %s", HostKindName(HostObjectOf(entry.pBody, "audit")->Kind));
        }
    }
    for (const auto& [pBody, balance] : g->Objects.References) {
        auto own = balance.Drivers.find(pDriver);
        if (balance.lAll > 0 && own != balance.Drivers.end() && own->second > 0) {
            HostLeak(uLeaks, "reference: %ld on %s", own->second,
                     HostKindName(HostObjectOf(pBody, "audit")->Kind));
        }
    }
    return uLeaks;
}
