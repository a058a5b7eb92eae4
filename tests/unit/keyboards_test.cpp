// keyboards_test.cpp - keyboards that come and go: start, indexes, removal and its users.
#include <gtest/gtest.h>

#include <atomic>

#include "registry.h"
#include "emu/app/application.h"
#include "control/notification.h"
#include "macro/macro.h"

namespace
{
// What the driver guards by its locks, read while nobody else runs.
PDEVICE_OBJECT NewestKeyboard() WITHOUT_LOCK_ANALYSIS
{
    return Globals.pFirstKeyboard;
}

TEST(Keyboards, RefusedWhileTooManySectionsWereCutShort)
{
    for (unsigned ulStored : {1u, 2u}) {
        EmuMachine machine(WithRegistry("\"ErrorCount\"=hex:0" + std::to_string(ulStored) + ",00,00,00\r\n"));
        ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
        EmuKeyboard* pKeyboard = machine.Plug();
        EXPECT_EQ(ulStored == 1 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL, pKeyboard->AddStatus());
        EXPECT_EQ(ulStored == 1, CanOpen());
        EXPECT_EQ(ulStored, StoredCount()) << "not raised further";
        EXPECT_EQ(0u, machine.Unload());
    }
}

// Behind the dispatch entries nobody asks again what a device is: a wrong one would be taken for a keyboard's record.
TEST(Keyboards, ARoutineThatIsGivenAnotherDeviceStopsTheHost)
{
    EXPECT_DEATH(
        {
            EmuMachine machine(WithRegistry(""));
            machine.Plug();
            SignalNotifyEvent(Globals.pControlDevice);
        },
        "ASSERTION_FAILURE");
    EXPECT_DEATH(
        {
            EmuMachine machine(WithRegistry(""));
            ReleaseApplicationEvent(FilterOf(machine.Plug()));
        },
        "ASSERTION_FAILURE");
}

TEST(Keyboards, IndexesCountUpAndTheControlDeviceIsShared)
{
    EmuMachine machine(WithRegistry("\"SendUpEventImmediately\"=dword:00000100\r\n"));
    EXPECT_FALSE(CanOpen());
    EmuKeyboard* pFirst = machine.Plug();
    EmuKeyboard* pSecond = machine.Plug();
    const PDEVICE_OBJECT pControl = Globals.pControlDevice;
    EXPECT_EQ(2, Globals.usKeyboardCount);
    EXPECT_EQ(0u, ContextOf(pFirst)->ulDeviceIndex);
    EXPECT_EQ(1u, ContextOf(pSecond)->ulDeviceIndex);
    EXPECT_EQ(1, ContextOf(pFirst)->ucSendUpEventImmediately);
    EXPECT_EQ(0, ContextOf(pFirst)->ucRunDiagNormalPacket02);
    EXPECT_EQ(STATUS_SUCCESS, pFirst->Start()) << "once more, with its reads out";
    EXPECT_EQ(2, Globals.usKeyboardCount) << "a second start counts nothing twice";
    EXPECT_EQ(2, Globals.usStartedKeyboards);
    EXPECT_EQ(1u, pFirst->PendingReads());
    EXPECT_TRUE(pFirst->Report({0, 0, 4, 0, 0, 0, 0, 0}));
    EXPECT_EQ(1u, pFirst->Taken().size()) << "and it types";

    PDEVICE_OBJECT pWalk = FirstKeyboard(); // newest first
    EXPECT_EQ(FilterOf(pSecond), pWalk);
    pWalk = NextKeyboard(pWalk);
    EXPECT_EQ(FilterOf(pFirst), pWalk);
    EXPECT_EQ(nullptr, NextKeyboard(pWalk));

    pFirst->Remove(); // without a surprise removal before it
    EXPECT_EQ(1, Globals.usKeyboardCount);
    EXPECT_EQ(2, Globals.usStartedKeyboards);
    EXPECT_EQ(pControl, Globals.pControlDevice);
    EmuKeyboard* pThird = machine.Plug();
    EXPECT_EQ(2u, ContextOf(pThird)->ulDeviceIndex);
    pThird->Unplug(true);
    EXPECT_TRUE(CanOpen());
    pSecond->Unplug(false);
    EXPECT_FALSE(CanOpen());
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    EXPECT_EQ(0, Globals.usKeyboardCount);
    EXPECT_TRUE(machine.Plug()->StartStatus() == STATUS_SUCCESS && CanOpen()) << "and all over again";
    EXPECT_EQ(0u, machine.Unload());
}

// The filter looks like the device under it; the control device is opened with a check of its access list.
TEST(Keyboards, TheFilterTakesOverWhatTheDeviceBelowIs)
{
    EmuMachine machine(WithRegistry(""));
    EmuPlugOptions options;
    options.Start = false;
    EmuKeyboard* pKeyboard = machine.Plug(EmuBootKeyboard, options);
    PDEVICE_OBJECT pPhysical = pKeyboard->Physical(), pFilter = FilterOf(pKeyboard);
    const ULONG ulRemovable = 1; // FILE_REMOVABLE_MEDIA
    const ULONG ulTaken = DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE;
    EXPECT_NE(0u, pPhysical->Flags & ulTaken);
    EXPECT_EQ(pPhysical->Flags & ulTaken, pFilter->Flags);
    EXPECT_EQ(pPhysical->DeviceType, pFilter->DeviceType);
    EXPECT_EQ(pPhysical->Characteristics, pFilter->Characteristics);
    PDEVICE_OBJECT pOther = nullptr; // another stack: two drivers' flags, type and characteristics
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(machine.Driver(), 0, nullptr, FILE_DEVICE_MOUSE,
                                             ulRemovable | FILE_DEVICE_SECURE_OPEN, FALSE, &pOther));
    pOther->Flags = DO_DIRECT_IO | DO_POWER_INRUSH;
    ASSERT_EQ(STATUS_SUCCESS, machine.Driver()->DriverExtension->AddDevice(machine.Driver(), pOther));
    PDEVICE_OBJECT pTop = pOther->AttachedDevice;
    EXPECT_EQ(DO_DIRECT_IO, pTop->Flags);
    EXPECT_EQ(static_cast<DEVICE_TYPE>(FILE_DEVICE_MOUSE), pTop->DeviceType);
    EXPECT_EQ(ulRemovable | FILE_DEVICE_SECURE_OPEN, pTop->Characteristics);
    ULONG_PTR ulInformation = 0;
    const WCHAR object[] = L"\\Device\\USBPDO-7";
    HostSetDeviceProperty(pPhysical, DevicePropertyPhysicalDeviceObjectName, object, sizeof(object));
    EXPECT_EQ(STATUS_SUCCESS, pKeyboard->Start());
    EXPECT_EQ(STATUS_SUCCESS, Send(pFilter, IRP_MJ_PNP, IRP_MN_START_DEVICE, &ulInformation));
    EXPECT_EQ(0u, ulInformation);
    ASSERT_NE(nullptr, Globals.pControlDevice);
    EXPECT_EQ(static_cast<DEVICE_TYPE>(FILE_DEVICE_UNKNOWN), Globals.pControlDevice->DeviceType);
    EXPECT_EQ(static_cast<ULONG>(FILE_DEVICE_SECURE_OPEN), Globals.pControlDevice->Characteristics);

    // What an application finds the keyboard by.
    DeviceContext* pContext = FilterContextOf(pFilter);
    const UNICODE_STRING& link = pContext->InterfaceLinkName;
    EXPECT_EQ(link.MaximumLength, link.Length);
    const std::string name(link.Buffer, link.Buffer + link.Length / sizeof(WCHAR));
    EXPECT_NE(std::string::npos, name.find("{3b7e91c4-5a2d-4f60-9c1e-7d84a2f0b613}")) << name;
    EXPECT_EQ(0, memcmp(object, pContext->PhysicalDeviceObjectName, sizeof(object)));
    Send(pTop, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE, &ulInformation);
    IoDeleteDevice(pOther);
    EXPECT_EQ(0u, machine.Unload());
}

// A section that was entered and not left stays counted, and nothing else does.
TEST(Keyboards, AKeyboardThatCannotBeAddedStaysCounted)
{
    for (const char* pszWhat : {"device", "attach", "key"}) {
        EmuMachine machine(WithRegistry(""));
        machine.Plug(); // the control device is there
        HostFailOnlyIn(L"Tv64USB");
        HostFailNth(pszWhat, 1);
        EmuKeyboard* pFailed = machine.Plug();
        HostFailNth(nullptr, 0);
        HostFailOnlyIn(nullptr);
        EXPECT_EQ(std::string(pszWhat) == "key", NT_SUCCESS(pFailed->AddStatus())) << pszWhat;
        EXPECT_EQ(std::string(pszWhat) == "key" ? 0 : 1, StoredCount()) << pszWhat;
        EXPECT_EQ(0u, machine.Unload());
    }
}

TEST(Keyboards, StartThatPendsOrFails)
{
    EmuMachine machine(WithRegistry(""));
    EmuPlugOptions options;
    options.StartDelayMs = 30;
    options.StartStatus = STATUS_DEVICE_POWER_FAILURE;
    EmuKeyboard* pKeyboard = machine.Plug(EmuBootKeyboard, options);
    EXPECT_EQ(STATUS_DEVICE_POWER_FAILURE, pKeyboard->StartStatus());
    EXPECT_LE(30000u, HostNowUs());
    EXPECT_TRUE(CanOpen()) << "counted whatever the start's status";
    EXPECT_EQ(1, Globals.usStartedKeyboards);
    DeviceContext* pContext = ContextOf(pKeyboard);
    EXPECT_NE(0, pContext->DeviceDescription[0]);
    const std::u16string big(300, u'd'); // does not fit: the field stays
    const WCHAR cBefore = pContext->DeviceDescription[0];
    HostSetDeviceProperty(pKeyboard->Physical(), DevicePropertyDeviceDescription, big.data(), 600);
    ULONG_PTR ulInformation = 0;
    Send(FilterOf(pKeyboard), IRP_MJ_PNP, IRP_MN_START_DEVICE, &ulInformation);
    EXPECT_EQ(cBefore, pContext->DeviceDescription[0]);
    pKeyboard->Unplug(false);
    EXPECT_FALSE(CanOpen());
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, AFailedCreationIsNotCounted)
{
    EmuMachine machine(WithRegistry("\"ErrorCount\"=hex:01,00,00,00\r\n"));
    UNICODE_STRING link, target;
    RtlInitUnicodeString(&link, L"\\DosDevices\\TvUSB");
    RtlInitUnicodeString(&target, L"\\Device\\Elsewhere");
    ASSERT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&link, &target));
    EmuKeyboard* pUncounted = machine.Plug();
    EXPECT_EQ(STATUS_SUCCESS, pUncounted->StartStatus());
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    EXPECT_EQ(0, Globals.usKeyboardCount);
    EXPECT_EQ(0, ContextOf(pUncounted)->ucInterfaceRegistered);
    EXPECT_EQ(0, StoredCount()) << "lowered by one";
    IoDeleteSymbolicLink(&link);

    machine.Plug();
    EXPECT_EQ(1, Globals.usKeyboardCount);
    pUncounted->Unplug(false); // takes nothing off the count
    EXPECT_EQ(1, Globals.usKeyboardCount);
    EXPECT_TRUE(CanOpen());
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, RemovalWaitsForItsUsers)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    const PDEVICE_OBJECT pFilter = FilterOf(pKeyboard);
    ULONG_PTR ulUnused = 0; // the keyboard itself can be opened too
    EXPECT_EQ(STATUS_SUCCESS, Send(pFilter, IRP_MJ_CREATE, 0, &ulUnused));
    EXPECT_EQ(1, Globals.usOpenCount);
    EXPECT_EQ(STATUS_SUCCESS, Send(pFilter, IRP_MJ_CLOSE, 0, &ulUnused));
    EXPECT_EQ(0, Globals.usOpenCount);
    ASSERT_TRUE(AcquireDevice(pFilter));
    HostThread thread = HostStartThread([pFilter] {
        LARGE_INTEGER delay;
        delay.QuadPart = -10000LL * 20;
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
        EXPECT_FALSE(AcquireDevice(pFilter)) << "no new users";
        EXPECT_EQ(nullptr, FirstKeyboard());
        ULONG_PTR ulInformation = 0;
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_READ, 0, &ulInformation));
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_POWER, IRP_MN_SET_POWER, &ulInformation));
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_CREATE, 0, &ulInformation));
        EXPECT_EQ(0, Globals.usOpenCount) << "an open that failed does not count";
        ReleaseDevice(pFilter);
    });
    pKeyboard->Remove();
    EXPECT_EQ(20000u, HostNowUs());
    HostJoinThread(thread);
    EXPECT_EQ(nullptr, NewestKeyboard());
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, QueryRemoveForwardsAndMarksStay)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    DeviceContext* pContext = ContextOf(pKeyboard);
    EXPECT_EQ(STATUS_SUCCESS, SetKorvexKeyboard(FilterOf(pKeyboard), 1));
    EXPECT_EQ(KEYDEF_MACRO_MODE, pContext->ulKeyDefTypes & KEYDEF_MACRO_MODE);
    EXPECT_EQ(STATUS_SUCCESS, SetKorvexKeyboard(FilterOf(pKeyboard), 2)); // only 1 switches on
    EXPECT_EQ(0u, pContext->ulKeyDefTypes);
    EXPECT_TRUE(NT_SUCCESS(pKeyboard->SendPnp(IRP_MN_QUERY_REMOVE_DEVICE)));
    EXPECT_TRUE(NT_SUCCESS(pKeyboard->SendPnp(IRP_MN_CANCEL_REMOVE_DEVICE)));
    EXPECT_EQ(1, Globals.usStartedKeyboards);
    EXPECT_EQ(0u, machine.Unload());
}

// Keyboards come and go while applications open, define, look for keyboards and close.
TEST(Threads, RemovalMeetsItsUsers)
{
    EmuMachineOptions options = WithRegistry("");
    options.Mode = HostThreaded;
    EmuMachine machine(options);
    EmuKeyboard* pStays = machine.Plug();
    std::atomic<bool> bStop{false};
    std::atomic<ULONG> ulNewest{0};
    std::vector<HostThread> threads;
    for (int i = 0; i < 2; i++) {
        threads.push_back(HostStartThread([&bStop, &ulNewest, i] {
            while (!bStop) {
                EmuApplication application(i == 1);
                for (ULONG ulIndex : {0u, ulNewest.load(), ulNewest + 1}) {
                    application.AddDefinition(ulIndex, Hotkey(7 + i));
                    application.RegisterNotifyEvent(ulIndex);
                    application.StartReportProcessing(ulIndex);
                    application.TakeRecords(ulIndex);
                }
            }
        }));
    }
    for (ULONG i = 1; i <= 25; i++) {
        EmuKeyboard* pKeyboard = machine.Plug();
        ulNewest = i;
        pKeyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        pKeyboard->Unplug(i % 2 == 0);
    }
    bStop = true;
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_EQ(0, Globals.usOpenCount);
    EXPECT_EQ(FilterOf(pStays), NewestKeyboard());
    EXPECT_EQ(0u, ContextOf(pStays)->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
