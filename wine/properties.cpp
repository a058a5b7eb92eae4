// properties.cpp - see properties.h. The name of a device is the kernel's own answer.
#include "properties.h"

#include <host.h>

#include <cstring>
#include <map>
#include <mutex>
#include <vector>

static std::mutex g_Lock; // guards what follows
static std::map<std::pair<PDEVICE_OBJECT, int>, std::vector<UCHAR>> g_Properties;

void HostSetDeviceProperty(PDEVICE_OBJECT pPhysical, DEVICE_REGISTRY_PROPERTY property, const void* pData,
                           ULONG ulBytes)
{
    auto pFrom = static_cast<const UCHAR*>(pData);
    std::lock_guard<std::mutex> guard(g_Lock);
    g_Properties[{pPhysical, property}].assign(pFrom, pFrom + ulBytes);
}

NTSTATUS NTAPI OwnIoGetDeviceProperty(PDEVICE_OBJECT pDevice, DEVICE_REGISTRY_PROPERTY property,
                                      ULONG ulBytes, PVOID pData, PULONG pulNeeded)
{
    if (property == DevicePropertyPhysicalDeviceObjectName) {
        return IoGetDeviceProperty(pDevice, property, ulBytes, pData, pulNeeded);
    }
    std::lock_guard<std::mutex> guard(g_Lock);
    auto found = g_Properties.find({pDevice, property});
    if (found == g_Properties.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *pulNeeded = static_cast<ULONG>(found->second.size());
    if (ulBytes < *pulNeeded) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(pData, found->second.data(), *pulNeeded);
    return STATUS_SUCCESS;
}

std::u16string LocationOf(PDEVICE_OBJECT pDevice)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    auto found = g_Properties.find({pDevice, DevicePropertyLocationInformation});
    if (found == g_Properties.end()) {
        return {};
    }
    return reinterpret_cast<const char16_t*>(found->second.data()); // its end is part of it
}

void ForgetProperties()
{
    std::lock_guard<std::mutex> guard(g_Lock);
    g_Properties.clear();
}
