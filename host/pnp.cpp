// pnp.cpp - device interfaces and their notifications.
//
// Arrivals and removals are delivered one at a time by a worker at PASSIVE_LEVEL. Interfaces that exist
// when a driver registers with INCLUDE_EXISTING_INTERFACES are told within the registration. The platform lets
// a callback run after its registration was taken back; HostOptions::bLateNotifications has it happen. The
// driver's code stays until then.
#include "core.h"

#include <algorithm>

#define INITGUID_HERE(name, last)                                                                            \
    extern "C" const GUID name = {                                                                           \
        0xcb3a4000 + last, 0x46f0, 0x11d0, {0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13, 0x05, 0x3f}}
INITGUID_HERE(GUID_HWPROFILE_QUERY_CHANGE, 1);
INITGUID_HERE(GUID_HWPROFILE_CHANGE_CANCELLED, 2);
INITGUID_HERE(GUID_HWPROFILE_CHANGE_COMPLETE, 3);
INITGUID_HERE(GUID_DEVICE_INTERFACE_ARRIVAL, 4);
INITGUID_HERE(GUID_DEVICE_INTERFACE_REMOVAL, 5);
INITGUID_HERE(GUID_TARGET_DEVICE_QUERY_REMOVE, 6);
INITGUID_HERE(GUID_TARGET_DEVICE_REMOVE_CANCELLED, 7);
INITGUID_HERE(GUID_TARGET_DEVICE_REMOVE_COMPLETE, 8);

struct Interface {
    GUID Class;
    HostText Link;
    PDEVICE_OBJECT pDevice;
    PDRIVER_OBJECT pOwner;
    bool bEnabled;
};

struct Notification {
    IO_NOTIFICATION_EVENT_CATEGORY Category;
    GUID Class;
    PDEVICE_OBJECT pTarget;
    PDRIVER_OBJECT pDriver;
    PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pRoutine;
    PVOID pContext;
    PKTHREAD pRunning; // the thread that delivers to it right now
    bool bGone;        // nothing is delivered any more
    bool bRegistered;  // the registration has returned
};

struct Delivery {
    std::shared_ptr<Notification> pTo;
    GUID Event;
    GUID Class;
    HostText Link;
};

// All under HostState::Lock.
static std::vector<std::unique_ptr<Interface>> Interfaces;
static std::vector<std::shared_ptr<Notification>> Notifications;
static std::deque<Delivery> Deliveries;
static bool bDelivering;

static void Pause()
{
    LARGE_INTEGER pause;
    pause.QuadPart = -1000;
    KeDelayExecutionThread(KernelMode, FALSE, &pause);
}

static void Deliver(const Delivery& delivery)
{
    HostText link = delivery.Link;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(link.c_str()));
    DEVICE_INTERFACE_CHANGE_NOTIFICATION record = {1, sizeof(record), delivery.Event, delivery.Class, &name};
    HostDriverScope scope(delivery.pTo->pDriver, "a notification callback");
    delivery.pTo->pRoutine(&record, delivery.pTo->pContext);
}

// The worker waits until a registration has told what exists: arrivals come before their removals.
static bool BeginDelivery(Notification* pTo)
{
    for (;;) {
        {
            HostLock lock(g->Lock);
            if (pTo->bGone) {
                return false;
            }
            if (pTo->pRunning == nullptr) {
                pTo->pRunning = HostSelf();
                return true;
            }
        }
        Pause();
    }
}

static void EndDelivery(Notification* pTo)
{
    HostLock lock(g->Lock);
    pTo->pRunning = nullptr;
}

static void Tell(const Delivery& delivery)
{
    if (BeginDelivery(delivery.pTo.get())) {
        PKTHREAD pSelf = HostSelf();
        PDRIVER_OBJECT pBefore = pSelf->pTells;
        pSelf->pTells = delivery.pTo->pDriver;
        Deliver(delivery);
        pSelf->pTells = pBefore;
        EndDelivery(delivery.pTo.get());
    }
}

static void DeliverAll()
{
    PKTHREAD pSelf = HostSelf();
    for (;;) {
        Delivery delivery;
        {
            HostLock lock(g->Lock);
            pSelf->pTells = nullptr;
            if (Deliveries.empty()) {
                bDelivering = false;
                return;
            }
            delivery = Deliveries.front();
            Deliveries.pop_front();
            pSelf->pTells = delivery.pTo->pDriver; // from here on no unload overtakes it
        }
        Tell(delivery);
    }
}

// Queues the event for everybody who is registered now. True: a worker must be started.
// Lock: Lock held.
static bool Announce(const Interface& interface, const GUID& event)
{
    for (const auto& pNotification : Notifications) {
        if (pNotification->Category == EventCategoryDeviceInterfaceChange &&
            pNotification->Class == interface.Class) {
            Deliveries.push_back({pNotification, event, interface.Class, interface.Link});
        }
    }
    const bool bStart = !Deliveries.empty() && !bDelivering;
    bDelivering = bDelivering || bStart;
    return bStart;
}

static HostText GuidText(const GUID& guid)
{
    char text[40];
    snprintf(text, sizeof(text), "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", guid.Data1, guid.Data2,
             guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4],
             guid.Data4[5], guid.Data4[6], guid.Data4[7]);
    return HostTextOf(std::string(text));
}

// By its location when the bus told one, so that a device that comes back there has its old name. Else one number a
// physical device, in the order in which they register.
static HostText InstanceOf(PDEVICE_OBJECT pDevice)
{
    auto location = g->Properties.find({pDevice, DevicePropertyLocationInformation});
    if (location != g->Properties.end()) {
        auto pText = reinterpret_cast<const char16_t*>(location->second.data());
        return u"ROOT#HOST#" + HostText(pText, location->second.size() / sizeof(WCHAR) - 1);
    }
    std::vector<PDEVICE_OBJECT> devices;
    for (const auto& pInterface : Interfaces) {
        if (std::find(devices.begin(), devices.end(), pInterface->pDevice) == devices.end()) {
            devices.push_back(pInterface->pDevice);
        }
    }
    size_t index = static_cast<size_t>(std::find(devices.begin(), devices.end(), pDevice) - devices.begin());
    return HostTextOf("ROOT#HOST#" + std::to_string(1000 + index).substr(1));
}

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT pDevice, const GUID* pClass, PUNICODE_STRING pReference,
                                   PUNICODE_STRING pLink)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostCheckPhysical(pDevice, __func__);
    if (HostShouldFail("interface")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostText link;
    {
        HostLock lock(g->Lock);
        link = u"\\??\\" + InstanceOf(pDevice) + u"#" + GuidText(*pClass);
        if (pReference != nullptr && pReference->Length != 0) {
            link += u"\\" + HostTextOf(pReference);
        }
    }
    *pLink = HostPoolString(link);
    if (pLink->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostLock lock(g->Lock);
    for (const auto& pInterface : Interfaces) {
        if (pInterface->Link == link) {
            pInterface->pDevice = pDevice;
            return STATUS_SUCCESS;
        }
    }
    Interfaces.push_back(
        std::make_unique<Interface>(Interface{*pClass, link, pDevice, HostSelf()->pDriver, false}));
    return STATUS_SUCCESS;
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING pLink, BOOLEAN bEnable)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (bEnable && HostShouldFail("interface")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostText link = HostTextOf(pLink);
    bool bStart;
    {
        HostLock lock(g->Lock);
        auto it = std::find_if(Interfaces.begin(), Interfaces.end(),
                               [&](const auto& pInterface) { return pInterface->Link == link; });
        if (it == Interfaces.end()) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if ((*it)->bEnabled == (bEnable != 0)) {
            return bEnable ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
        }
        (*it)->bEnabled = bEnable != 0;
        (*it)->pOwner = HostSelf()->pDriver;
        bStart = Announce(**it, bEnable ? GUID_DEVICE_INTERFACE_ARRIVAL : GUID_DEVICE_INTERFACE_REMOVAL);
    }
    if (bStart) {
        HostQueueWork(DeliverAll, nullptr, nullptr);
    }
    return STATUS_SUCCESS;
}

NTSTATUS IoGetDeviceInterfaces(const GUID* pClass, PDEVICE_OBJECT pDevice, ULONG ulFlags, PWSTR* ppList)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("interface")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostText list;
    {
        HostLock lock(g->Lock);
        for (const auto& p : Interfaces) {
            if (p->Class == *pClass && (pDevice == nullptr || p->pDevice == pDevice) &&
                (p->bEnabled || (ulFlags & DEVICE_INTERFACE_INCLUDE_NONACTIVE))) {
                list += p->Link;
                list.push_back(0);
            }
        }
    }
    *ppList = HostPoolString(list).Buffer;
    return *ppList == nullptr ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS IoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY category, ULONG ulFlags, PVOID pData,
                                        PDRIVER_OBJECT pDriver,
                                        PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pRoutine, PVOID pContext,
                                        PVOID* ppEntry)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("notification")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto pNotification = std::make_shared<Notification>(
        Notification{category, {}, nullptr, pDriver, pRoutine, pContext, HostSelf(), false, false});
    std::deque<Delivery> existing;
    {
        HostLock lock(g->Lock);
        if (category == EventCategoryDeviceInterfaceChange) {
            pNotification->Class = *static_cast<const GUID*>(pData);
        } else if (category == EventCategoryTargetDeviceChange) {
            pNotification->pTarget = static_cast<PFILE_OBJECT>(pData)->DeviceObject;
        }
        Notifications.push_back(pNotification);
        for (const auto& p : Interfaces) {
            if (category == EventCategoryDeviceInterfaceChange &&
                (ulFlags & PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES) && p->bEnabled &&
                p->Class == pNotification->Class) {
                existing.push_back({pNotification, GUID_DEVICE_INTERFACE_ARRIVAL, p->Class, p->Link});
            }
        }
    }
    *ppEntry = pNotification.get();
    for (const Delivery& delivery : existing) {
        Deliver(delivery);
    }
    EndDelivery(pNotification.get());
    HostLock lock(g->Lock);
    pNotification->bRegistered = true;
    return STATUS_SUCCESS;
}

// After the return the callback does not run and will not run again; with late notifications what was queued
// before, and what runs, is still told. A callback may take its own registration back once it was given.
NTSTATUS IoUnregisterPlugPlayNotification(PVOID pEntry)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    std::shared_ptr<Notification> pNotification;
    {
        HostLock lock(g->Lock);
        auto it = std::find_if(Notifications.begin(), Notifications.end(),
                               [&](const auto& p) { return p.get() == pEntry; });
        if (it == Notifications.end()) {
            HostBug("NOTIFICATION_NOT_REGISTERED", "IoUnregisterPlugPlayNotification of an unknown entry");
        }
        pNotification = *it;
        if (!pNotification->bRegistered) {
            HostBug(
                "NOTIFICATION_NOT_REGISTERED",
                "a callback takes its registration back before IoRegisterPlugPlayNotification has returned");
        }
        pNotification->bGone = !g->Options.bLateNotifications;
        Notifications.erase(it);
        if (g->Options.bLateNotifications) {
            return STATUS_SUCCESS;
        }
    }
    for (;;) {
        {
            HostLock lock(g->Lock);
            if (pNotification->pRunning == nullptr || pNotification->pRunning == HostSelf()) {
                return STATUS_SUCCESS;
            }
        }
        Pause();
    }
}

static bool IsTold(PDRIVER_OBJECT pDriver)
{
    HostLock lock(g->Lock);
    for (PKTHREAD pThread : g->Threads.All) {
        if (pThread->pTells == pDriver && pThread != HostSelf()) {
            return true;
        }
    }
    return std::any_of(Deliveries.begin(), Deliveries.end(),
                       [=](const Delivery& delivery) { return delivery.pTo->pDriver == pDriver; });
}

// A driver's code stays until the last late notification has come back from it.
// IRQL: PASSIVE_LEVEL.
void HostAwaitNotifications(PDRIVER_OBJECT pDriver)
{
    while (g->Options.bLateNotifications && IsTold(pDriver)) {
        Pause();
    }
}

// Tells those who registered for this device that it is about to go, stays, or is gone.
void HostTargetEvent(PDEVICE_OBJECT pDevice, const GUID& event)
{
    std::vector<Delivery> deliveries;
    {
        HostLock lock(g->Lock);
        for (const auto& pNotification : Notifications) {
            if (pNotification->Category == EventCategoryTargetDeviceChange &&
                pNotification->pTarget == pDevice) {
                deliveries.push_back({pNotification, event, {}, {}});
            }
        }
    }
    for (const Delivery& delivery : deliveries) {
        Tell(delivery);
    }
}

unsigned HostAuditPnp(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    HostLock lock(g->Lock);
    for (const auto& p : Interfaces) {
        if (p->bEnabled && p->pOwner == pDriver) {
            HostLeak(uLeaks, "device interface: %s is still enabled", HostUtf8(p->Link).c_str());
        }
    }
    for (const auto& p : Notifications) {
        if (p->pDriver == pDriver) {
            HostLeak(uLeaks, "notification: still registered");
        }
    }
    return uLeaks;
}

void HostDropPnp()
{
    Interfaces.clear();
    Notifications.clear();
    Deliveries.clear();
    bDelivering = false;
}
