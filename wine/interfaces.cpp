// interfaces.cpp - see interfaces.h. A change is told by DeliverNotifications, outside the call that makes
// it.
#include "interfaces.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <vector>

#include "properties.h"
#include "text.h"

namespace
{
struct Interface {
    GUID Class;
    std::u16string Link;
    PDEVICE_OBJECT pDevice;
    bool bOn;
};

struct Listener {
    GUID Class;
    PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pRoutine;
    PVOID pContext;
};

struct Change {
    const Listener* pListener;
    GUID Event, Class;
    std::u16string Link;
};

std::mutex g_Lock; // guards what follows; no listener is called under it
std::list<Interface> g_Interfaces;
std::list<Listener> g_Listeners; // an element's address is its handle
std::deque<Change> g_Changes;
enum : ULONG { LinkTag = 0x6b6e694c };

bool Same(const GUID& one, const GUID& other)
{
    return memcmp(&one, &other, sizeof(GUID)) == 0;
}

void Tell(const Listener& listener, const Change& change)
{
    UNICODE_STRING link = CountedText(change.Link);
    DEVICE_INTERFACE_CHANGE_NOTIFICATION told = {1, sizeof(told), change.Event, change.Class, &link};
    listener.pRoutine(&told, listener.pContext);
}

const Listener* FindListener(const Listener* pWanted)
{
    for (const Listener& listener : g_Listeners) {
        if (&listener == pWanted) {
            return pWanted;
        }
    }
    return nullptr;
}

// By its location when there is one, so that a device that comes back there has its old name; else one number a
// device.
std::u16string LinkOf(PDEVICE_OBJECT pDevice, const GUID& guid)
{
    std::u16string instance = LocationOf(pDevice);
    char number[20], class_[20];
    snprintf(class_, sizeof(class_), "#{%08lx}", static_cast<unsigned long>(guid.Data1));
    if (instance.empty()) {
        snprintf(number, sizeof(number), "%04u", static_cast<unsigned>(g_Interfaces.size()));
        instance.assign(number, number + strlen(number));
    }
    return u"\\??\\ROOT#TEST#" + instance + std::u16string(class_, class_ + strlen(class_));
}

// The device's interface of this class, made when it has none.
Interface& InterfaceOf(PDEVICE_OBJECT pDevice, const GUID& guid)
{
    std::u16string link = LinkOf(pDevice, guid);
    for (Interface& known : g_Interfaces) {
        if (Same(known.Class, guid) && (known.pDevice == pDevice || known.Link == link)) {
            known.pDevice = pDevice;
            known.Link = LocationOf(pDevice).empty() ? known.Link : link;
            return known;
        }
    }
    g_Interfaces.push_back({guid, link, pDevice, false});
    return g_Interfaces.back();
}
} // namespace

NTSTATUS NTAPI OwnIoRegisterDeviceInterface(PDEVICE_OBJECT pDevice, CONST GUID* pClass, PUNICODE_STRING,
                                            PUNICODE_STRING pLink)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    const std::u16string& link = InterfaceOf(pDevice, *pClass).Link;
    *pLink = CountedText(link);
    pLink->Buffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, pLink->MaximumLength, LinkTag));
    if (!pLink->Buffer) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    memcpy(pLink->Buffer, link.c_str(), pLink->MaximumLength);
    return STATUS_SUCCESS;
}

VOID NTAPI OwnRtlFreeUnicodeString(PUNICODE_STRING pText)
{
    if (pText->Buffer) {
        ExFreePoolWithTag(pText->Buffer, LinkTag);
    }
    RtlZeroMemory(pText, sizeof(*pText));
}

NTSTATUS NTAPI OwnIoSetDeviceInterfaceState(PUNICODE_STRING pLink, BOOLEAN bOn)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    for (Interface& known : g_Interfaces) {
        if (known.Link != TextOf(pLink)) {
            continue;
        }
        if (known.bOn == (bOn != 0)) {
            return bOn ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
        }
        known.bOn = bOn != 0;
        const GUID& event = bOn ? GUID_DEVICE_INTERFACE_ARRIVAL : GUID_DEVICE_INTERFACE_REMOVAL;
        for (const Listener& listener : g_Listeners) {
            if (Same(listener.Class, known.Class)) {
                g_Changes.push_back({&listener, event, known.Class, known.Link});
            }
        }
        return STATUS_SUCCESS;
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS NTAPI OwnIoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY, ULONG ulFlags, PVOID pClass,
                                                 PDRIVER_OBJECT,
                                                 PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pRoutine,
                                                 PVOID pContext, PVOID* phListener)
{
    Listener listener = {*static_cast<GUID*>(pClass), pRoutine, pContext};
    std::vector<Change> there;
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        g_Listeners.push_back(listener);
        *phListener = &g_Listeners.back();
        for (const Interface& known : g_Interfaces) {
            if ((ulFlags & PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES) && known.bOn &&
                Same(known.Class, listener.Class)) {
                there.push_back({nullptr, GUID_DEVICE_INTERFACE_ARRIVAL, known.Class, known.Link});
            }
        }
    }
    for (const Change& change : there) {
        Tell(listener, change);
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OwnIoUnregisterPlugPlayNotification(PVOID hListener)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    g_Listeners.remove_if([hListener](const Listener& listener) { return &listener == hListener; });
    return STATUS_SUCCESS;
}

std::vector<std::u16string> ListInterfacesOf(const GUID& guid)
{
    std::vector<std::u16string> links;
    std::lock_guard<std::mutex> guard(g_Lock);
    for (const Interface& known : g_Interfaces) {
        if (known.bOn && Same(known.Class, guid)) {
            links.push_back(known.Link);
        }
    }
    return links;
}

bool DeliverNotifications()
{
    bool bAny = false;
    for (;;) {
        Change change;
        Listener listener;
        {
            std::lock_guard<std::mutex> guard(g_Lock);
            if (g_Changes.empty()) {
                return bAny;
            }
            change = g_Changes.front();
            g_Changes.pop_front();
            if (!FindListener(change.pListener)) {
                continue; // it has gone meanwhile
            }
            listener = *change.pListener;
        }
        bAny = true;
        Tell(listener, change);
    }
}

unsigned AuditInterfaces()
{
    unsigned uLeft = 0;
    std::lock_guard<std::mutex> guard(g_Lock);
    if (!g_Listeners.empty()) {
        fprintf(stderr, "left: %u notification registrations\n", static_cast<unsigned>(g_Listeners.size()));
        uLeft++;
        g_Listeners.clear();
    }
    for (const Interface& known : g_Interfaces) {
        if (known.bOn) {
            fprintf(stderr, "left: an interface that is on\n");
            uLeft++;
        }
    }
    return uLeft;
}

void ForgetInterfaces()
{
    std::lock_guard<std::mutex> guard(g_Lock);
    g_Interfaces.clear();
    g_Changes.clear();
}
