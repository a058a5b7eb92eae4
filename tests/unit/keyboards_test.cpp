// keyboards_test.cpp - keyboards that come and go: start, indexes, removal and its users.
#include <gtest/gtest.h>

#include <atomic>

#include "bench_frame.h"
#include "emu/app/application.h"
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

TEST(Keyboards, IndexesCountUpAndTheControlDeviceIsShared)
{
    EmuMachine machine(WithRegistry("\"SendUpEventImmediately\"=dword:00000100\r\n"));
    EXPECT_FALSE(CanOpen());
    EmuKeyboard* pFirst = machine.Plug();
    EmuKeyboard* pSecond = machine.Plug();
    const PDEVICE_OBJECT pControl = Globals.pControlDevice;
    EXPECT_EQ(2, Globals.usKeyboardCount);
    EXPECT_EQ(0u, FilterContextOf(pFirst->Filter())->ulDeviceIndex);
    EXPECT_EQ(1u, FilterContextOf(pSecond->Filter())->ulDeviceIndex);
    EXPECT_EQ(1, FilterContextOf(pFirst->Filter())->ucSendUpEventImmediately);
    EXPECT_EQ(0, FilterContextOf(pFirst->Filter())->ucRunDiagNormalPacket02);
    EXPECT_EQ(STATUS_SUCCESS, pFirst->Start()) << "once more, with its reads out";
    EXPECT_EQ(2, Globals.usKeyboardCount) << "a second start counts nothing twice";
    EXPECT_EQ(2, Globals.usStartedKeyboards);
    EXPECT_EQ(1u, pFirst->PendingReads());
    EXPECT_TRUE(pFirst->Report({0, 0, 4, 0, 0, 0, 0, 0}));
    EXPECT_EQ(1u, pFirst->Taken().size()) << "and it types";

    PDEVICE_OBJECT pWalk = FirstKeyboard(); // newest first
    EXPECT_EQ(pSecond->Filter(), pWalk);
    pWalk = NextKeyboard(pWalk);
    EXPECT_EQ(pFirst->Filter(), pWalk);
    EXPECT_EQ(nullptr, NextKeyboard(pWalk));

    pFirst->Remove(); // without a surprise removal before it
    EXPECT_EQ(1, Globals.usKeyboardCount);
    EXPECT_EQ(2, Globals.usStartedKeyboards);
    EXPECT_EQ(pControl, Globals.pControlDevice);
    EmuKeyboard* pThird = machine.Plug();
    EXPECT_EQ(2u, FilterContextOf(pThird->Filter())->ulDeviceIndex);
    pThird->Unplug(true);
    EXPECT_TRUE(CanOpen());
    pSecond->Unplug(false);
    EXPECT_FALSE(CanOpen());
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    EXPECT_EQ(0, Globals.usKeyboardCount);
    EXPECT_TRUE(machine.Plug()->StartStatus() == STATUS_SUCCESS && CanOpen()) << "and all over again";
    EXPECT_EQ(0u, machine.Unload());
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
    DeviceContext* pContext = FilterContextOf(pKeyboard->Filter());
    EXPECT_NE(0, pContext->DeviceDescription[0]);
    const std::u16string big(300, u'd'); // does not fit: the field stays
    const WCHAR cBefore = pContext->DeviceDescription[0];
    HostSetDeviceProperty(pKeyboard->Physical(), DevicePropertyDeviceDescription, big.data(), 600);
    ULONG_PTR ulInformation = 0;
    Send(pKeyboard->Filter(), IRP_MJ_PNP, IRP_MN_START_DEVICE, &ulInformation);
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
    EXPECT_EQ(0, FilterContextOf(pUncounted->Filter())->ucInterfaceRegistered);
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
    const PDEVICE_OBJECT pFilter = pKeyboard->Filter();
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
    DeviceContext* pContext = FilterContextOf(pKeyboard->Filter());
    SetKorvexKeyboard(pKeyboard->Filter(), 1);
    EXPECT_EQ(KEYDEF_MACRO_MODE, pContext->ulKeyDefTypes & KEYDEF_MACRO_MODE);
    SetKorvexKeyboard(pKeyboard->Filter(), 2); // only 1 switches on
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
    EXPECT_EQ(pStays->Filter(), NewestKeyboard());
    EXPECT_EQ(0u, FilterContextOf(pStays->Filter())->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
