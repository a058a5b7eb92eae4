// property.cpp - what a bus tells of its devices.
#include "core.h"

// What is asked of a physical device is not asked of another.
void HostCheckPhysical(PDEVICE_OBJECT pDevice, const char* pCall)
{
    HostObjectOf(pDevice, pCall);
    if (!(__atomic_load_n(&pDevice->Flags, __ATOMIC_RELAXED) & DO_BUS_ENUMERATED_DEVICE)) {
        HostBug("PNP_DETECTED_FATAL_ERROR", "%s of a device that no bus has reported", pCall);
    }
}

void HostSetDeviceProperty(PDEVICE_OBJECT pDevice, DEVICE_REGISTRY_PROPERTY property, const void* pData,
                           ULONG ulBytes)
{
    HostLock lock(g->Lock);
    if (pData == nullptr) {
        g->Properties.erase({pDevice, property});
        return;
    }
    const UCHAR* p = static_cast<const UCHAR*>(pData);
    g->Properties[{pDevice, property}].assign(p, p + ulBytes);
}

NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT pDevice, DEVICE_REGISTRY_PROPERTY property, ULONG ulLength,
                             PVOID pBuffer, PULONG pulResult)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostCheckPhysical(pDevice, __func__);
    *pulResult = 0;
    if (HostShouldFail("property", __func__, [&] { return "property " + std::to_string(property); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostLock lock(g->Lock);
    auto it = g->Properties.find({pDevice, property});
    if (it == g->Properties.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *pulResult = static_cast<ULONG>(it->second.size());
    if (ulLength < it->second.size()) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(pBuffer, it->second.data(), it->second.size());
    return STATUS_SUCCESS;
}

void HostForgetDevice(PDEVICE_OBJECT pDevice)
{
    HostLock lock(g->Lock);
    g->Properties.erase(g->Properties.lower_bound({pDevice, 0}),
                        g->Properties.upper_bound({pDevice, 0x7fffffff}));
}
