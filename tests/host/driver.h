// driver.h - a small well-behaved driver that the host's tests bend, one behaviour at a time.
//
// It makes one named device, "\Device\Small" with the link "\DosDevices\Small", and forwards every request
// to the hooks below; without a hook a request succeeds.
#pragma once

#include <functional>
#include <gtest/gtest.h>

#include <host.h>

struct SmallExtension {
    KTIMER Timer;
    KDPC Dpc;
    KEVENT Event;
    WORK_QUEUE_ITEM Item;
};

struct SmallHooks {
    std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> Dispatch;
    std::function<NTSTATUS(PDRIVER_OBJECT)> Entry;
    std::function<void(PDRIVER_OBJECT)> Unload;
};

extern SmallHooks hooks;

NTSTATUS SmallEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pPath);
NTSTATUS CompleteWith(PIRP pIrp, NTSTATUS status, ULONG_PTR ulInformation = 0);
UNICODE_STRING Str(const WCHAR* pText);
std::string Narrow(PCUNICODE_STRING pString);
OBJECT_ATTRIBUTES Named(UNICODE_STRING& name);

enum : ULONG { IOCTL_SMALL = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS) };

// A running host with the small driver loaded and its device open.
class SmallSystem
{
public:
    explicit SmallSystem(HostMode mode = HostSimulated, const std::string& registry = "",
                         const std::string& root = "", unsigned long long ullSeed = 0);
    explicit SmallSystem(const HostOptions& options);
    ~SmallSystem();
    // Unloads and stops; the number of things left behind.
    unsigned End();
    // The same without close and unload.
    unsigned Stop();
    NTSTATUS Control(const void* pIn = nullptr, ULONG ulIn = 0, void* pOut = nullptr, ULONG ulOut = 0);
    SmallExtension* Extension() { return static_cast<SmallExtension*>(pDevice->DeviceExtension); }

    PDRIVER_OBJECT pDriver = nullptr;
    PDEVICE_OBJECT pDevice = nullptr;
    HostFile File = nullptr;
    ULONG ulInformation = 0;

private:
    bool bEnded = false;
};

// Runs code in the driver's dispatch routine, as driver code, at PASSIVE_LEVEL.
void InDriver(SmallSystem& system, std::function<void(PDEVICE_OBJECT)> code);
