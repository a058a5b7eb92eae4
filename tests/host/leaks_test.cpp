// leaks_test.cpp - what a driver leaves at its unload is told.
#include "rules.h"

#include <fstream>

struct Leak {
    const char* pName;
    const char* pText;
    void (*pLeave)(PDEVICE_OBJECT pDevice);
};

class Leaks : public testing::TestWithParam<Leak>
{
};

TEST_P(Leaks, AreToldAtUnload)
{
    SmallSystem system;
    InDriver(system, GetParam().pLeave);
    testing::internal::CaptureStderr();
    EXPECT_EQ(1u, system.End());
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(GetParam().pText));
}

static const GUID CLASS = {1, 2, 3, {4}};

static const Leak LEAKS[] = {
    {"Pool", "pool memory: 64 bytes, tag Tag1", [](PDEVICE_OBJECT) { Pool(); }},
    {"Mdl", "MDL", [](PDEVICE_OBJECT pDevice) { IoAllocateMdl(pDevice, 4, FALSE, FALSE, nullptr); }},
    {"Irp", "request", [](PDEVICE_OBJECT) { IoAllocateIrp(1, FALSE); }},
    {"WorkItem", "work item", [](PDEVICE_OBJECT pDevice) { IoAllocateWorkItem(pDevice); }},
    {"Reference", "reference: 1 on device", [](PDEVICE_OBJECT pDevice) { ObReferenceObject(pDevice); }},
    {"Link", "symbolic link",
     [](PDEVICE_OBJECT) {
         UNICODE_STRING link = Str(L"\\??\\Left"), target = Str(L"\\Device\\Small");
         IoCreateSymbolicLink(&link, &target);
     }},
    {"Key", "handle: registry key",
     [](PDEVICE_OBJECT) {
         UNICODE_STRING name = Str(L"\\Registry\\Machine\\Left");
         OBJECT_ATTRIBUTES attributes;
         InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
         HANDLE h;
         ZwCreateKey(&h, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr);
     }},
    {"Interface", "device interface",
     [](PDEVICE_OBJECT pDevice) {
         UNICODE_STRING link;
         pDevice->Flags |= DO_BUS_ENUMERATED_DEVICE;
         IoRegisterDeviceInterface(pDevice, &CLASS, nullptr, &link);
         IoSetDeviceInterfaceState(&link, TRUE);
         RtlFreeUnicodeString(&link);
     }},
    {"Notification", "notification",
     [](PDEVICE_OBJECT pDevice) {
         PVOID pEntry;
         IoRegisterPlugPlayNotification(
             EventCategoryDeviceInterfaceChange, 0, const_cast<GUID*>(&CLASS), pDevice->DriverObject,
             [](PVOID, PVOID) { return STATUS_SUCCESS; }, nullptr, &pEntry);
     }},
    {"TraceProvider", "trace provider: registered",
     [](PDEVICE_OBJECT) {
         REGHANDLE handle;
         EtwRegister(&CLASS, nullptr, nullptr, &handle);
     }},
    {"Timer", "timer",
     [](PDEVICE_OBJECT) {
         static KTIMER timer;
         static KDPC dpc;
         KeInitializeTimer(&timer);
         KeInitializeDpc(&dpc, Nothing, nullptr);
         KeSetTimer(&timer, Ms(1000), &dpc);
     }},
};
INSTANTIATE_TEST_SUITE_P(Host, Leaks, testing::ValuesIn(LEAKS),
                         [](const auto& info) { return info.param.pName; });

TEST(Leaks, DevicesOfADriverWithoutUnloadAreTold)
{
    SmallSystem system;
    system.pDriver->DriverUnload = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(3u, system.End()) << "no unload routine, the device, its link";
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("device: \\Device\\Small"));
}

TEST(Leaks, WhatStillRunsOrIsHeldIsTold)
{
    SmallSystem system;
    static KEVENT goOn;
    KeInitializeEvent(&goOn, NotificationEvent, FALSE);
    hooks.Dispatch = Hold;
    PIRP pIrp = OwnRequest(system);
    IoCallDriver(system.pDevice, pIrp);
    InDriver(system, [](PDEVICE_OBJECT) {
        static WORK_QUEUE_ITEM item;
        ExInitializeWorkItem(
            &item, [](PVOID) { KeWaitForSingleObject(&goOn, Executive, KernelMode, FALSE, nullptr); },
            nullptr);
        ExQueueWorkItem(&item, DelayedWorkQueue);
    });
    system.pDriver->DriverUnload = [](PDRIVER_OBJECT) {};
    testing::internal::CaptureStderr();
    HostClose(system.File);
    EXPECT_EQ(4u, HostUnloadDriver(system.pDriver)) << "the device, its link, the request, the routine";
    std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, told.find("request: lost, held by the driver that goes\n  made the system"));
    EXPECT_NE(std::string::npos, told.find("work routine: still running"));
    KeSetEvent(&goOn, 0, FALSE);
    testing::internal::CaptureStderr();
    EXPECT_NE(0u, system.Stop());
    testing::internal::GetCapturedStderr();
}

// A server that starts a thread a connection runs for months: each has a stack, which goes with it.
TEST(Threads, ThatHaveEndedGiveTheirStacksBack)
{
    SmallSystem system(HostThreaded);
    auto pages = [] {
        unsigned long ulPages = 0;
        std::ifstream("/proc/self/statm") >> ulPages;
        return ulPages;
    };
    const unsigned long ulBefore = pages();
    for (int i = 0; i < 600; i++) {
        HostJoinThread(HostStartThread([] {}, 0x100000));
    }
    EXPECT_LT(pages() - ulBefore, 300 * 0x100000ul / 4096);
}
