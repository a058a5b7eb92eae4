// devices_test.cpp - devices of the driver that cannot serve a request: not complete yet, without a device
// below, on their way out, or without a control device beside them; and limits that no usual system reaches.
#include "machine.h"

#include "control/control.h"
#include "hotkeys/hotkeys.h"
#include "macro/macro.h"
#include "report/keytable.h"
#include "report/report.h"
#include "siblings/siblings.h"
#include "usb/usb.h"

namespace
{
// A filter device that nothing attached to a stack.
struct LooseDevice {
    LooseDevice(PDRIVER_OBJECT pDriver, ULONG ulDeviceKind)
    {
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(pDriver, sizeof(DeviceContext), nullptr,
                                                 FILE_DEVICE_KEYBOARD, 0, FALSE, &pDevice));
        auto* pContext = static_cast<DeviceContext*>(pDevice->DeviceExtension);
        pContext->ulDeviceKind = ulDeviceKind;
        pContext->lReferences = 1;
    }
    ~LooseDevice() { IoDeleteDevice(pDevice); }
    PDEVICE_OBJECT pDevice = nullptr;
};

// Sends a request to this very device and waits for no one: it must be completed when the call returns.
NTSTATUS Send(PDEVICE_OBJECT pDevice, UCHAR ucMajor, UCHAR ucMinor, ULONG ulCode = 0)
{
    PIRP pIrp = IoAllocateIrp(pDevice->StackSize, FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = ucMajor;
    pNext->MinorFunction = ucMinor;
    pNext->Parameters.DeviceIoControl.IoControlCode = ulCode;
    pIrp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    pIrp->IoStatus.Information = 77;
    IO_COMPLETION_ROUTINE* pKeep = [](PDEVICE_OBJECT, PIRP, PVOID pCompleted) -> NTSTATUS {
        *static_cast<bool*>(pCompleted) = true;
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    bool bCompleted = false;
    IoSetCompletionRoutine(pIrp, pKeep, &bCompleted, TRUE, TRUE, TRUE);
    const NTSTATUS status =
        ucMajor == IRP_MJ_POWER ? PoCallDriver(pDevice, pIrp) : IoCallDriver(pDevice, pIrp);
    EXPECT_TRUE(bCompleted) << +ucMajor;
    EXPECT_EQ(status, pIrp->IoStatus.Status) << +ucMajor;
    EXPECT_EQ(0u, pIrp->IoStatus.Information) << +ucMajor;
    IoFreeIrp(pIrp);
    return status;
}

const struct {
    UCHAR ucMajor, ucMinor;
} Requests[] = {
    {IRP_MJ_CREATE, 0},
    {IRP_MJ_READ, 0},
    {IRP_MJ_CLEANUP, 0},
    {IRP_MJ_POWER, IRP_MN_SET_POWER},
    {IRP_MJ_INTERNAL_DEVICE_CONTROL, 0},
    {IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES},
};
} // namespace

using Devices = KeyboardTest;

TEST_F(Devices, OneThatCannotServeARequestCompletesIt)
{
    for (ULONG ulDeviceKind : {0u, static_cast<ULONG>(FILTER_DEVICE_KIND)}) {
        LooseDevice device(Machine->Driver(), ulDeviceKind);
        const bool bComplete = ulDeviceKind != 0; // then only the device below is missing
        for (const auto& request : Requests) {
            const NTSTATUS expected =
                bComplete || request.ucMajor == IRP_MJ_PNP ? STATUS_UNSUCCESSFUL : STATUS_DELETE_PENDING;
            EXPECT_EQ(expected, Send(device.pDevice, request.ucMajor, request.ucMinor)) << +request.ucMajor;
        }
        EXPECT_EQ(bComplete, AcquireDevice(device.pDevice));
    }
    EXPECT_EQ(1, Globals.usOpenCount) << "the application alone";
}

TEST_F(Devices, ADriverRequestToAKeyboardThatGoesIsNotSent)
{
    InterlockedIncrement(&Context()->lReferences); // the removal waits for this user
    HostThread thread = HostStartThread([pFilter = Filter()] {
        LARGE_INTEGER delay;
        delay.QuadPart = -10000LL * 20;
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
        UCHAR ucComplete = 0;
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES));
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_INTERNAL_DEVICE_CONTROL, 0));
        URB urb = {};
        EXPECT_EQ(STATUS_UNSUCCESSFUL, SubmitUrbSync(pFilter, &urb));
        PIRP pRead = IoAllocateIrp(pFilter->StackSize, FALSE);
        IoSetNextIrpStackLocation(pRead); // one that was let in before the removal began
        EXPECT_EQ(STATUS_DELETE_PENDING, FilterInternalIoctl(pFilter, pRead, &ucComplete));
        EXPECT_EQ(1, ucComplete);
        EXPECT_EQ(STATUS_DELETE_PENDING, pRead->IoStatus.Status);
        EXPECT_EQ(STATUS_UNSUCCESSFUL, ParkReadRequest(pFilter, pRead));
        StartKorvexDelay(pFilter);
        EXPECT_EQ(0, Globals.ucKorvexTimerRunning) << "nobody would stop it";
        IoFreeIrp(pRead);
        ReleaseDevice(pFilter);
    });
    Keyboard->Remove();
    HostJoinThread(thread);
}

TEST_F(Devices, PowerRequestsReachTheKeyboard)
{
    const LONG lReferences = Context()->lReferences;
    EXPECT_EQ(STATUS_SUCCESS, HostSendPower(Filter(), IRP_MN_SET_POWER));
    EXPECT_EQ(lReferences, Context()->lReferences);
}

// Without its link the control device is not made, but the keyboard itself can be opened.
TEST_F(Devices, AnOpenCountsWithoutAControlDeviceToo)
{
    Application.reset();
    Keyboard->Unplug(false);
    HostFailNth("link", 1);
    Keyboard = Machine->Plug();
    HostFailNth(nullptr, 0);
    ASSERT_EQ(nullptr, Globals.pControlDevice);
    EXPECT_EQ(STATUS_SUCCESS, Send(Filter(), IRP_MJ_CREATE, 0));
    EXPECT_EQ(1, Globals.usOpenCount);
    EXPECT_EQ(STATUS_SUCCESS, Send(Filter(), IRP_MJ_CLOSE, 0));
    EXPECT_EQ(0, Globals.usOpenCount);
}

// A notification still comes when its registration was undone, or when the next one is in force: it counts nothing, and
// the mouse that is there is found by the next one.
TEST(LateNotifications, ChangeNothing)
{
    for (const auto& [bArrival, bNext] :
         {std::pair(true, true), {true, false}, {false, true}, {false, false}}) {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.LateNotifications = true;
        EmuMachine machine(options);
        EmuKeyboard* pKeyboard = machine.Plug();
        EmuSibling* pMouse = machine.AddSibling(EmuUsbMouseSibling);
        EXPECT_EQ(STATUS_SUCCESS, pMouse->Arrive());
        if (!bArrival) {
            HostSettle();
            EXPECT_EQ(STATUS_SUCCESS, pMouse->Publish(false));
        }
        pKeyboard->Unplug(false); // before anybody was told
        ASSERT_EQ(nullptr, Globals.pControlDevice);
        if (bNext) {
            (void)machine.Plug();
        }
        HostSettle();
        EXPECT_EQ(bArrival ? bNext : 1, Globals.ucUsbMouseArrivals) << bArrival << bNext;
        if (bArrival) {
            (void)machine.Plug();
            HostSettle();
            EXPECT_EQ(1, ControlContextOf(Globals.pControlDevice)->UsbMouse.ucConnected);
        }
        EXPECT_EQ(0u, machine.Unload());
    }
}

// Whoever answers says how much came; more than there is room for cannot have come.
TEST_F(Devices, AnAnswerBehindTheBufferIsNotBelieved)
{
    PDRIVER_INITIALIZE pEntry = [](PDRIVER_OBJECT pDriver, PUNICODE_STRING) -> NTSTATUS {
        pDriver->DriverUnload = [](PDRIVER_OBJECT) {};
        pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP pIrp) -> NTSTATUS {
            return CompleteRequest(pIrp, STATUS_SUCCESS, 4096);
        };
        return STATUS_SUCCESS;
    };
    PDRIVER_OBJECT pBoaster;
    PDEVICE_OBJECT pDevice;
    ASSERT_EQ(STATUS_SUCCESS, HostLoadDriver(pEntry, L"Boaster", &pBoaster));
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(pBoaster, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice));
    OutsideRequest request = {};
    request.ucMajor = IRP_MJ_DEVICE_CONTROL;
    request.ucData[0] = 7;
    EXPECT_EQ(STATUS_SUCCESS, SendOutsideRequest(pDevice, &request));
    EXPECT_EQ(7, request.ucData[0]);
    IoDeleteDevice(pDevice);
    EXPECT_EQ(0u, HostUnloadDriver(pBoaster));
}

// Above DISPATCH_LEVEL a spin lock cannot be taken; what it guards is used without it.
TEST_F(Devices, ListsAreUsedAtAnyLevel)
{
    KIRQL oldIrql;
    IRP irp = {};
    UCHAR ucValue = 4;
    KeRaiseIrql(HIGH_LEVEL, &oldIrql);
    const NTSTATUS added = AddPendingIrp(Filter(), &irp);
    const bool bCancelled = RemovePendingIrp(Filter(), &irp);
    const NTSTATUS discarded = AddDiscardedPacket(Filter(), &ucValue, 0);
    const bool bInserted = AddDataToInsertBuffer(Filter(), &ucValue);
    KeLowerIrql(oldIrql);
    EXPECT_EQ(STATUS_SUCCESS, added);
    EXPECT_FALSE(bCancelled);
    EXPECT_EQ(STATUS_SUCCESS, discarded);
    EXPECT_TRUE(bInserted);
    EXPECT_EQ(1, Context()->usInsertCount);
}

TEST_F(Devices, WhatIsNotThereChangesNothing)
{
    UCHAR ucByte = 0x77, ucReport[8] = {0, 0, 4};
    KeyDefinition definition = Hotkey(1, 0, {});
    EXPECT_FALSE(GetDefinitionOfType(Filter(), 5, &definition));
    EXPECT_EQ(1u, definition.ulId);
    EXPECT_EQ(8u, SwallowScan(Filter(), ucReport, 8, 8));
    EXPECT_EQ(8u, SwallowScan(Filter(), ucReport, 8, ~0u));
    EXPECT_EQ(0, Context()->usSwallowCount);
    ULONG ulScanCode = 0x7777;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, HIDToPS2(0, &ulScanCode, &ucByte, &ucByte));
    EXPECT_EQ(0x7777u, ulScanCode);
    EXPECT_EQ(0x77, ucByte);

    Globals.ucPrefix1Usage = 0; // of a scan code that no key has
    EXPECT_FALSE(IsPrefixUsage(0));

    definition.usScanCount = 33; // more than the record holds
    HotkeyEntry entry;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, ConvertPS2ToHID(Filter(), &definition, &entry));
    UCHAR ucScans[6] = {0, 0, 0, 0, 0xFF, 0x01}; // 511 scan codes, of which none follows
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertScans(Keyboard->Index(), ucScans));
    EXPECT_EQ(STATUS_SUCCESS, Application->InsertScans(Keyboard->Index(), EmuBytes(510, 0xE0)))
        << "a whole record";
}

// Entries that a request claims are only looked at when there are so many; one bad entry refuses all of them.
TEST_F(Devices, UnsoundPacketsAreRefusedWhole)
{
    const ULONG ulIndex = Keyboard->Index();
    ULONG ulCount = 0;
    FifoEntry entry;
    std::vector<UCHAR> claim = {33, 0, 0, 0};
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertUSBPackets(ulIndex, claim.data()));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertUSBPackets(ulIndex, nullptr));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, Application->InsertUSBPackets(ulIndex, {{0, 8, {1}}, {0, 11, {2}}}));
    entry = {0, 11, {2}};
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertUSBPacketFifin(Filter(), &entry));
    EXPECT_EQ(STATUS_SUCCESS, GetFifoCount(ulIndex, &ulCount));
    EXPECT_EQ(0u, ulCount);
    EXPECT_EQ(STATUS_SUCCESS, Application->InsertUSBPackets(ulIndex, {{0, 10, {1}}})) << "fits";
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertUSBPackets(99, claim.data()));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, GetUSBPacketFifo(99, &entry));
}

// A path that leaves no room for what is put behind it.
TEST(DriverPaths, TooLongToExtend)
{
    static WCHAR path[32768];
    static USHORT usBytes;
    for (USHORT usLength : {65502, 65526}) {
        usBytes = usLength;
        HostStart({});
        PDRIVER_OBJECT pDriver;
        PDRIVER_INITIALIZE pEntry = [](PDRIVER_OBJECT pOwn, PUNICODE_STRING) -> NTSTATUS {
            UNICODE_STRING longPath = {usBytes, usBytes, path};
            return DriverEntry(pOwn, &longPath);
        };
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, HostLoadDriver(pEntry, L"Tv64USB", &pDriver)) << usLength;
        EXPECT_EQ(0u, HostStop()) << usLength;
    }
}
