// device.cpp - device objects, their names, links and stacks.
//
// A device object goes when IoDeleteDevice was called and the last reference is given back; until then a
// request sent to it still finds its record. Names are compared without case; "\DosDevices", "\GLOBAL??",
// "\\." and "\\?" all mean "\??".
#include "core.h"

struct _DEVOBJ_EXTENSION {
    PDEVICE_OBJECT pAttachedTo;
    HostText Name;
    bool bDeleted;
    size_t extensionSize;
};

HostText HostCanonicalName(const HostText& name)
{
    HostText upper = HostUpper(name);
    static const char16_t* const SAME[] = {u"\\DOSDEVICES\\", u"\\GLOBAL??\\", u"\\\\.\\", u"\\\\?\\"};
    for (const char16_t* pPrefix : SAME) {
        HostText prefix(pPrefix);
        if (upper.compare(0, prefix.size(), prefix) == 0) {
            return u"\\??\\" + upper.substr(prefix.size());
        }
    }
    return upper;
}

static bool FindName(const HostText& name, HostName* pFound, HostText* pRest)
{
    for (HostText head = name; !head.empty(); head = head.substr(0, head.find_last_of(u'\\'))) {
        auto it = g->Names.find(head);
        if (it != g->Names.end()) {
            *pFound = it->second;
            *pRest = name.substr(head.size());
            return true;
        }
        if (head.find_last_of(u'\\') == HostText::npos) {
            break;
        }
    }
    return false;
}

// Follows links to a device; what stands behind the device's name is the rest.
// Lock: takes Lock. Owns: a reference on the device.
NTSTATUS HostLookUpDevice(const HostText& name, PDEVICE_OBJECT* ppDevice, HostText* pRest)
{
    HostLock lock(g->Lock);
    HostText current = HostCanonicalName(name);
    for (int i = 0; i < 16; i++) {
        HostName found;
        HostText rest;
        if (!FindName(current, &found, &rest)) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (found.pDevice != nullptr) {
            HostReference(found.pDevice);
            *ppDevice = found.pDevice;
            *pRest = rest;
            return STATUS_SUCCESS;
        }
        current = HostCanonicalName(found.Target + rest);
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

static void DestroyDevice(void* pBody)
{
    PDEVICE_OBJECT pDevice = static_cast<PDEVICE_OBJECT>(pBody);
    if (!g->bStopping && !pDevice->DeviceObjectExtension->bDeleted) {
        HostBug("REFERENCE_BY_POINTER", "the last reference on a device went before IoDeleteDevice");
    }
    if (!g->bStopping) {
        HostForgetDevice(pDevice);
        if (pDevice->DeviceExtension != nullptr) {
            HostRelease(pDevice->DeviceExtension, HostExtensionKind);
        }
        HostForgetSecurity(pDevice);
    }
    delete pDevice->DeviceObjectExtension;
}

static PDEVICE_OBJECT NewDevice(PDRIVER_OBJECT pDriver, ULONG ulExtension, ULONG ulType,
                                ULONG ulCharacteristics)
{
    PDEVICE_OBJECT pDevice =
        static_cast<PDEVICE_OBJECT>(HostNewObject(HostKindDevice, sizeof(DEVICE_OBJECT), DestroyDevice));
    pDevice->Type = 3;
    pDevice->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + ulExtension);
    pDevice->DriverObject = pDriver;
    pDevice->DeviceType = ulType;
    pDevice->Characteristics = ulCharacteristics;
    pDevice->Flags = DO_DEVICE_INITIALIZING;
    pDevice->StackSize = 1;
    pDevice->DeviceObjectExtension = new _DEVOBJ_EXTENSION{nullptr, {}, false, ulExtension};
    if (ulExtension != 0) {
        pDevice->DeviceExtension = HostAllocateBare(ulExtension, HostExtensionKind, nullptr);
        memset(pDevice->DeviceExtension, 0, ulExtension);
    }
    return pDevice;
}

NTSTATUS IoCreateDevice(PDRIVER_OBJECT pDriver, ULONG ulExtension, PUNICODE_STRING pName, DEVICE_TYPE ulType,
                        ULONG ulCharacteristics, BOOLEAN bExclusive, PDEVICE_OBJECT* ppDevice)
{
    HostEnter(__func__, APC_LEVEL);
    if (HostShouldFail("device")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostText name = HostTextOf(pName);
    PDEVICE_OBJECT pDevice = NewDevice(pDriver, ulExtension, ulType, ulCharacteristics);
    pDevice->Flags |= (bExclusive ? DO_EXCLUSIVE : 0u) | (name.empty() ? 0u : DO_DEVICE_HAS_NAME);
    pDevice->DeviceObjectExtension->Name = name;
    {
        HostLock lock(g->Lock);
        HostText key = HostCanonicalName(name);
        if (name.empty() || g->Names.count(key) == 0) {
            if (!name.empty()) {
                g->Names[key] = {pDevice, {}, pDriver};
            }
            pDevice->NextDevice = pDriver->DeviceObject;
            __atomic_store_n(&pDriver->DeviceObject, pDevice, __ATOMIC_RELEASE);
            *ppDevice = pDevice;
            return STATUS_SUCCESS;
        }
    }
    pDevice->DeviceObjectExtension->bDeleted = true;
    HostDereference(pDevice);
    return STATUS_OBJECT_NAME_COLLISION;
}

// Takes the device out of its driver's list and its name away; the record stays while it is referenced.
// IRQL <= APC. Lock: takes Lock.
void IoDeleteDevice(PDEVICE_OBJECT pDevice)
{
    HostEnter(__func__, APC_LEVEL);
    HostObjectOf(pDevice, __func__);
    {
        HostLock lock(g->Lock);
        struct _DEVOBJ_EXTENSION* pMore = pDevice->DeviceObjectExtension;
        if (pMore->bDeleted) {
            HostBug("DEVICE_DELETED_TWICE", "IoDeleteDevice of a device that was deleted before");
        }
        // A device below may go first: who is attached above keeps its memory until it detaches.
        if (pMore->pAttachedTo != nullptr) {
            HostBug("DEVICE_DELETED_WHILE_ATTACHED", "IoDeleteDevice of a device that was not detached");
        }
        pMore->bDeleted = true;
        if (!pMore->Name.empty()) {
            g->Names.erase(HostCanonicalName(pMore->Name));
        }
        PDEVICE_OBJECT* ppLink = &pDevice->DriverObject->DeviceObject;
        while (*ppLink != pDevice) {
            ppLink = &(*ppLink)->NextDevice;
        }
        __atomic_store_n(ppLink, pDevice->NextDevice, __ATOMIC_RELEASE);
    }
    HostCheckNoRequests(pDevice);
    if (pDevice->DeviceExtension != nullptr) {
        HostCheckNoLiveThings(pDevice->DeviceExtension, pDevice->DeviceObjectExtension->extensionSize,
                              HostExtensionKind);
    }
    HostDereference(pDevice);
}

static PDEVICE_OBJECT TopOf(PDEVICE_OBJECT pDevice)
{
    while (pDevice->AttachedDevice != nullptr) {
        pDevice = pDevice->AttachedDevice;
    }
    return pDevice;
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT pSource, PDEVICE_OBJECT pTarget)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostObjectOf(pTarget, __func__);
    if (!(pSource->Characteristics & FILE_DEVICE_SECURE_OPEN)) {
        HostBug("DEVICE_OPEN_NOT_SECURE",
                "a device is attached that was made without FILE_DEVICE_SECURE_OPEN: what "
                "is opened behind its name is not checked");
    }
    if (HostShouldFail("attach")) {
        return nullptr;
    }
    HostLock lock(g->Lock);
    PDEVICE_OBJECT pTop = TopOf(pTarget);
    if ((pTop->Flags & DO_DEVICE_INITIALIZING) || pTop->DeviceObjectExtension->bDeleted) {
        return nullptr;
    }
    HostReference(pTop);
    pTop->AttachedDevice = pSource;
    pSource->DeviceObjectExtension->pAttachedTo = pTop;
    pSource->StackSize = static_cast<CCHAR>(pTop->StackSize + 1);
    return pTop;
}

void IoDetachDevice(PDEVICE_OBJECT pTarget)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostObjectOf(pTarget, __func__);
    {
        HostLock lock(g->Lock);
        if (pTarget->AttachedDevice == nullptr) {
            HostBug("DEVICE_NOT_ATTACHED", "IoDetachDevice: nothing is attached to the device");
        }
        pTarget->AttachedDevice->DeviceObjectExtension->pAttachedTo = nullptr;
        pTarget->AttachedDevice = nullptr;
    }
    HostDereference(pTarget);
}

bool HostIsAttached(PDEVICE_OBJECT pDevice)
{
    HostLock lock(g->Lock);
    return pDevice->DeviceObjectExtension->pAttachedTo != nullptr;
}

PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT pDevice)
{
    HostObjectOf(pDevice, __func__);
    HostLock lock(g->Lock);
    return TopOf(pDevice);
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT pDevice)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostObjectOf(pDevice, __func__);
    PDEVICE_OBJECT pTop;
    {
        HostLock lock(g->Lock);
        pTop = TopOf(pDevice);
        HostReference(pTop);
    }
    ObfReferenceObject(pTop); // booked on the driver
    HostDereference(pTop);
    return pTop;
}

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING pLink, PUNICODE_STRING pDevice)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("link")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostText key = HostCanonicalName(HostTextOf(pLink));
    HostLock lock(g->Lock);
    if (g->Names.count(key) != 0) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    g->Names[key] = {nullptr, HostTextOf(pDevice), HostSelf()->pDriver};
    return STATUS_SUCCESS;
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING pLink)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostLock lock(g->Lock);
    auto it = g->Names.find(HostCanonicalName(HostTextOf(pLink)));
    if (it == g->Names.end() || it->second.pDevice != nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    g->Names.erase(it);
    return STATUS_SUCCESS;
}

BOOLEAN IoIsWdmVersionAvailable(UCHAR ucMajor, UCHAR ucMinor)
{
    return !HostShouldFail("wdm") && (ucMajor < 6 || (ucMajor == 6 && ucMinor == 0));
}

// Tells the links and devices that a driver left.
unsigned HostAuditNames(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    HostLock lock(g->Lock);
    for (const auto& name : g->Names) {
        if (name.second.pOwner == pDriver && name.second.pDevice == nullptr) {
            HostLeak(uLeaks, "symbolic link: %s", HostUtf8(name.first).c_str());
        }
    }
    for (PDEVICE_OBJECT p = pDriver == nullptr ? nullptr : pDriver->DeviceObject; p != nullptr;
         p = p->NextDevice) {
        HostLeak(uLeaks, "device: %s", HostUtf8(p->DeviceObjectExtension->Name).c_str());
    }
    return uLeaks;
}
