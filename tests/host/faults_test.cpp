// faults_test.cpp - calls that the host makes fail: the nth, or the nth and all after it.
#include "driver.h"

TEST(Faults, EveryFallibleCallOfALoadFailsOnceAndNothingIsLeft)
{
    for (unsigned uNth = 1;; uNth++) {
        hooks = {};
        HostStart({});
        HostFailNth(nullptr, uNth);
        PDRIVER_OBJECT pDriver;
        NTSTATUS status = HostLoadDriver(SmallEntry, L"Small", &pDriver);
        bool bHappened = HostFallibleCalls() >= uNth;
        EXPECT_EQ(bHappened, !NT_SUCCESS(status)) << uNth;
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(0u, HostUnloadDriver(pDriver));
        }
        EXPECT_EQ(0u, HostStop());
        if (!bHappened) {
            EXPECT_EQ(3u, uNth) << "a device and a link can fail";
            return;
        }
    }
}

// What a driver's code gets from three kinds of calls: whether each of six succeeded.
static std::string Attempts(PDEVICE_OBJECT pDevice)
{
    std::string made;
    for (int i = 0; i < 2; i++) {
        PVOID p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 1);
        PIRP pIrp = IoAllocateIrp(1, FALSE);
        PIO_WORKITEM pItem = IoAllocateWorkItem(pDevice);
        made += p != nullptr ? "p" : "-";
        made += pIrp != nullptr ? "r" : "-";
        made += pItem != nullptr ? "w" : "-";
        if (p != nullptr) {
            ExFreePool(p);
        }
        if (pIrp != nullptr) {
            IoFreeIrp(pIrp);
        }
        if (pItem != nullptr) {
            IoFreeWorkItem(pItem);
        }
    }
    return made;
}

TEST(Faults, OneCallFailsOrAllFromThenOnInOneDriverOrEverywhere)
{
    struct {
        const char* pKind;
        unsigned uNth;
        bool bFromThenOn;
        const WCHAR* pOnlyIn;
        const char* pMade;
    } const CASES[] = {
        {nullptr, 0, false, nullptr, "prwprw"},   {nullptr, 2, false, L"Small", "p-wprw"},
        {nullptr, 2, true, L"Small", "p-----"},   {"irp", 2, false, nullptr, "prwp-w"},
        {"workitem", 1, true, nullptr, "pr-pr-"}, {nullptr, 0, true, nullptr, "prwprw"},
        {nullptr, 1, true, L"Another", "prwprw"},
    };
    for (HostMode mode : {HostSimulated, HostThreaded}) {
        SmallSystem system(mode);
        for (const auto& c : CASES) {
            std::string made;
            InDriver(system, [&](PDEVICE_OBJECT pDevice) {
                HostFailOnlyIn(c.pOnlyIn);
                HostFailNth(c.pKind, c.uNth, c.bFromThenOn);
                made = Attempts(pDevice);
                unsigned uPool = HostFallibleByKind()["pool"];
                EXPECT_EQ(c.pOnlyIn != nullptr && c.pOnlyIn[0] == L'A' ? 0u : 2u, uPool);
                HostFailNth(nullptr, 0);
                HostFailOnlyIn(nullptr);
            });
            EXPECT_EQ(c.pMade, made);
        }
    }
}

// A second driver, to which the small one sends a request.
static NTSTATUS BelowEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP pIrp) {
        return CompleteWith(pIrp, STATUS_SUCCESS);
    };
    pDriver->DriverUnload = [](PDRIVER_OBJECT pGone) { IoDeleteDevice(pGone->DeviceObject); };
    PDEVICE_OBJECT pDevice;
    return IoCreateDevice(pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
}

TEST(Faults, TheLowerDriversStatusCanFail)
{
    SmallSystem system;
    PDRIVER_OBJECT pBelow;
    ASSERT_EQ(STATUS_SUCCESS, HostLoadDriver(BelowEntry, L"Below", &pBelow));
    NTSTATUS sent[2];
    IO_STATUS_BLOCK results[2] = {};
    InDriver(system, [&](PDEVICE_OBJECT) {
        HostFailNth("lower", 2);
        for (int i = 0; i < 2; i++) {
            KEVENT done;
            KeInitializeEvent(&done, NotificationEvent, FALSE);
            PIRP pIrp = IoBuildDeviceIoControlRequest(0, pBelow->DeviceObject, nullptr, 0, nullptr, 0, TRUE,
                                                      &done, &results[i]);
            sent[i] = IoCallDriver(pBelow->DeviceObject, pIrp);
        }
    });
    EXPECT_EQ(STATUS_SUCCESS, sent[0]);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, sent[1]);
    EXPECT_EQ(STATUS_SUCCESS, results[0].Status);
    EXPECT_EQ(0u, HostUnloadDriver(pBelow));
}
