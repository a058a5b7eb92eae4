// names.cpp - the table of named devices, and the files that were opened by it. See names.h.
#include "names.h"

#include <list>
#include <map>
#include <mutex>

#include "send.h"
#include "text.h"
#include "usermode.h"

namespace
{
struct NamedDevice {
    std::u16string Name;
    PDEVICE_OBJECT pDevice;
};

std::mutex g_Lock; // guards what follows
std::list<NamedDevice> g_Devices;
std::map<PVOID, PDEVICE_OBJECT> g_Files; // opened by name, with the device that was named

// Referenced; null: there is none, or it is not ready.
PDEVICE_OBJECT FindDevice(PUNICODE_STRING pName)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    for (const NamedDevice& named : g_Devices) {
        if (named.Name == TextOf(pName) && !(named.pDevice->Flags & DO_DEVICE_INITIALIZING)) {
            ObReferenceObject(named.pDevice);
            return named.pDevice;
        }
    }
    return nullptr;
}

PDEVICE_OBJECT TakeFile(PVOID pObject)
{
    std::lock_guard<std::mutex> guard(g_Lock);
    auto file = g_Files.find(pObject);
    if (file == g_Files.end()) {
        return nullptr;
    }
    PDEVICE_OBJECT pDevice = file->second;
    g_Files.erase(file);
    return pDevice;
}
} // namespace

NTSTATUS NTAPI OwnIoCreateDevice(PDRIVER_OBJECT pDriver, ULONG ulExtension, PUNICODE_STRING pName,
                                 DEVICE_TYPE type, ULONG ulCharacteristics, BOOLEAN bExclusive,
                                 PDEVICE_OBJECT* ppDevice)
{
    static auto pReal = reinterpret_cast<decltype(&IoCreateDevice)>(KernelExport("IoCreateDevice"));
    NTSTATUS status = pReal(pDriver, ulExtension, pName, type, ulCharacteristics, bExclusive, ppDevice);
    if (NT_SUCCESS(status) && pName) {
        std::lock_guard<std::mutex> guard(g_Lock);
        g_Devices.push_back({TextOf(pName), *ppDevice});
    }
    return status;
}

VOID NTAPI OwnIoDeleteDevice(PDEVICE_OBJECT pDevice)
{
    static auto pReal = reinterpret_cast<decltype(&IoDeleteDevice)>(KernelExport("IoDeleteDevice"));
    {
        std::lock_guard<std::mutex> guard(g_Lock);
        g_Devices.remove_if([pDevice](const NamedDevice& named) { return named.pDevice == pDevice; });
    }
    pReal(pDevice);
}

NTSTATUS NTAPI OwnIoGetDeviceObjectPointer(PUNICODE_STRING pName, ACCESS_MASK, PFILE_OBJECT* ppFile,
                                           PDEVICE_OBJECT* ppDevice)
{
    PDEVICE_OBJECT pDevice = FindDevice(pName);
    if (!pDevice) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    auto pFile = new FILE_OBJECT();
    pFile->Type = 5;
    pFile->DeviceObject = pDevice;
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pDevice);
    NTSTATUS status = SendToTop(pTop, IRP_MJ_CREATE, 0, pFile, STATUS_SUCCESS);
    ObDereferenceObject(pTop);
    if (!NT_SUCCESS(status)) {
        delete pFile;
        ObDereferenceObject(pDevice);
        return status;
    }
    std::lock_guard<std::mutex> guard(g_Lock);
    g_Files[pFile] = pDevice;
    *ppFile = pFile;
    *ppDevice = pTop;
    return STATUS_SUCCESS;
}

LONG_PTR FASTCALL OwnObfDereferenceObject(PVOID pObject)
{
    PDEVICE_OBJECT pDevice = TakeFile(pObject);
    if (!pDevice) {
        return ObfDereferenceObject(pObject);
    }
    auto pFile = static_cast<PFILE_OBJECT>(pObject);
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pDevice);
    SendToTop(pTop, IRP_MJ_CLEANUP, 0, pFile, STATUS_SUCCESS);
    SendToTop(pTop, IRP_MJ_CLOSE, 0, pFile, STATUS_SUCCESS);
    ObDereferenceObject(pTop);
    ObDereferenceObject(pDevice);
    delete pFile;
    return 0;
}
