// hazards_test.cpp - what the obvious code would do wrong and no other test shows; docs/decisions.md names them.
#include "machine.h"
#include "urbs.h"

#include "control/control.h"
#include "hotkeys/hotkeys.h"
#include "macro/macro.h"
#include "report/report.h"
#include "usb/usb.h"

namespace
{
// How many reads are answered above the keyboard until one goes on to it.
unsigned AnswerUntilPassed(PDEVICE_OBJECT device)
{
    unsigned answered = 0;
    for (;;) {
        InterruptUrb read(8);
        FilterIrp request(device, &read.Urb);
        if (ShowURBInfo(device, request.pIrp, 0) != URB_ANSWERED) {
            return answered;
        }
        answered++;
    }
}

// A request of the test's own, sent to the filter and freed when it completes.
void SendOwn(PDEVICE_OBJECT device, URB& urb, bool bCancelled = false,
             ULONG ulCode = IOCTL_INTERNAL_USB_SUBMIT_URB)
{
    PIRP pIrp = IoAllocateIrp(static_cast<CCHAR>(device->StackSize), FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.IoControlCode = ulCode;
    pNext->Parameters.Others.Argument1 = &urb;
    IO_COMPLETION_ROUTINE* pFree = [](PDEVICE_OBJECT, PIRP pCompleted, PVOID) -> NTSTATUS {
        IoFreeIrp(pCompleted);
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(pIrp, pFree, nullptr, TRUE, TRUE, TRUE);
    if (bCancelled) {
        pIrp->Cancel = TRUE;
    }
    (void)IoCallDriver(device, pIrp);
}
} // namespace

class Hazards : public KeyboardTest
{
protected:
    void SetUp() override
    {
        EmuPlugOptions options;
        options.Manual = true;
        Start(EmuBootKeyboard, options);
    }
};

TEST_F(Hazards, AnAnsweredReadCarriesASuccess)
{
    FifoEntry entry = {0, 8, {0, 0, 4}};
    ASSERT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
    InterruptUrb read(8);
    read.Urb.UrbHeader.Status = USBD_STATUS_CANCELED; // as the stack left it
    FilterIrp request(Filter(), &read.Urb);
    EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));
    EXPECT_EQ(USBD_STATUS_SUCCESS, read.Urb.UrbHeader.Status);
    EXPECT_EQ(8u, read.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength);
}

TEST_F(Hazards, AUrbShorterThanItsHeaderIsNotReadOn)
{
    auto pTiny = std::make_unique<USHORT>(sizeof(USHORT)); // a length and nothing else
    FilterIrp request(Filter(), pTiny.get());
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
    RememberRequestedLength(request.pIrp);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 1));
}

TEST_F(Hazards, AnEmptyReadOfAMediaKeyboardIsNotLookedInto)
{
    EmuKeyboard* pMedia = Machine->Plug(EmuJaalaaKeyboard);
    InterruptUrb read(8);
    read.Urb.UrbBulkOrInterruptTransfer.TransferBuffer = read.Buffer.get() + 8; // nothing of it may be read
    read.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength = 0;
    FilterIrp request(FilterOf(pMedia), &read.Urb);
    EXPECT_EQ(URB_PASS, ShowURBInfo(FilterOf(pMedia), request.pIrp, 0));
    EXPECT_EQ(URB_PASS, ShowURBInfo(FilterOf(pMedia), request.pIrp, 1));
}

// Only a read is kept as one that can be called back: each takes the mark of the call before off.
TEST_F(Hazards, OnlyAReadCountsAsOne)
{
    URB control = {};
    control.UrbHeader.Function = URB_FUNCTION_CONTROL_TRANSFER;
    control.UrbHeader.Length = sizeof(control.UrbControlTransfer);
    control.UrbControlTransfer.TransferFlags = USBD_TRANSFER_DIRECTION_IN;
    InterruptUrb write(8, 0), read(8);
    Context()->ulIrpCancelledForInsert = 1;
    SendOwn(Filter(), write.Urb);
    SendOwn(Filter(), control);
    SendOwn(Filter(), read.Urb, false, IOCTL_INTERNAL_USB_SUBMIT_URB + 4);
    EXPECT_EQ(1u, Context()->ulIrpCancelledForInsert);
    SendOwn(Filter(), read.Urb);
    EXPECT_EQ(0u, Context()->ulIrpCancelledForInsert);
    EXPECT_TRUE(CancelPendingRead(Filter()));
    for (ULONG ulPending :
         {0u, 1u}) { // a report that is put in marks the read that it calls back, if there is one
        if (ulPending) {
            ASSERT_EQ(STATUS_SUCCESS, Keyboard->Read());
        }
        EXPECT_EQ(ulPending, Keyboard->PendingReads());
        EXPECT_EQ(STATUS_SUCCESS, Application->InsertUSBPackets(Keyboard->Index(), {{0, 8, {1}}}));
        EXPECT_EQ(ulPending, Context()->ulIrpCancelledForInsert);
        ASSERT_EQ(STATUS_SUCCESS, Keyboard->Read()); // brings it
    }
}

// A read that is given up while it is parked is gone when the dispatch routine returns.
TEST_F(Hazards, AParkedReadIsNotTouchedAgain)
{
    Globals.ucKorvexTimerRunning = 1;
    FifoEntry entry = {0, 8, {0, 0, 4}};
    ASSERT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
    InterruptUrb read(8);
    SendOwn(Filter(), read.Urb, true);
    EXPECT_EQ(USBD_STATUS_CANCELED, read.Urb.UrbHeader.Status);
    Globals.ucKorvexTimerRunning = 0;
}

// What was set before, by reports that nobody waited for, ends no wait.
TEST_F(Hazards, AnOldReportEndsNoWait)
{
    const ULONG ulIndex = Keyboard->Index();
    NTSTATUS status[2] = {STATUS_PENDING, STATUS_PENDING};
    ASSERT_EQ(STATUS_SUCCESS, Application->InsertScans(ulIndex, {0x2A}, false));
    ASSERT_EQ(STATUS_SUCCESS, Keyboard->Read());
    HostThread scans = HostStartThread([&] { status[0] = Application->InsertScans(ulIndex, {0x2A}, true); });
    HostSettle();
    EXPECT_EQ(STATUS_PENDING, status[0]);
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->Read());
    HostJoinThread(scans);
    ASSERT_EQ(STATUS_SUCCESS, Application->InsertUSBPackets(ulIndex, {{0, 8, {1}}}));
    ASSERT_EQ(STATUS_SUCCESS, Keyboard->Read());
    HostThread packets = HostStartThread([&] {
        status[1] = Application->InsertUSBPackets(ulIndex, {{1, 8, {1}}});
    });
    HostSettle();
    EXPECT_EQ(STATUS_PENDING, status[1]);
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->Read());
    HostJoinThread(packets);
}

// A process may end while its request stands in line behind another's.
TEST_F(Hazards, TheEndOfAProcessEndsItsPlaceInLine)
{
    const ULONG ulIndex = Keyboard->Index();
    NTSTATUS status[2] = {STATUS_PENDING, STATUS_PENDING};
    HostThread threads[2];
    for (int i = 0; i < 2; i++) {
        threads[i] = HostStartThread([&, i] { status[i] = Application->InsertScans(ulIndex, {0x2A}, true); });
        HostSettle();
    }
    HostEndThreadWaits(threads[1]);
    HostJoinThread(threads[1]); // would never end
    EXPECT_EQ(STATUS_UNSUCCESSFUL, status[1]);
    EXPECT_EQ(STATUS_PENDING, status[0]);
    ASSERT_EQ(STATUS_SUCCESS, Keyboard->Read());
    HostJoinThread(threads[0]);
    EXPECT_EQ(STATUS_SUCCESS, status[0]);
}

TEST_F(Hazards, KeysBeyondAnEntryAreNoHotkey)
{
    EmuKeyboard* pMedia = Machine->Plug(EmuJaalaaKeyboard);
    KeyDefinition definition = Hotkey(7, 0, {});
    for (uint16_t i = 0; i < 9; i++) { // a pattern of four bytes each: 36
        definition.ucScans[definition.usScanCount++] = 0xE0;
        definition.ucScans[definition.usScanCount++] = 0x19;
    }
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinition(FilterOf(pMedia), &definition));
    HotkeyWalk walk(*ContextOf(pMedia));
    EXPECT_FALSE(walk.begin() != walk.end());
    KeyDefinition cut = Hotkey(8, 0, {0xE1, 0x1D, 0x45});
    cut.usScanCount = 2; // what lies behind the sequence does not complete it
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinition(Filter(), &cut));
}

TEST_F(Hazards, OnlyAnEventIsRegistered)
{
    HANDLE hDevice = nullptr;
    ASSERT_EQ(STATUS_SUCCESS,
              ObOpenObjectByPointer(Filter(), 0, nullptr, GENERIC_READ, nullptr, UserMode, &hDevice));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH,
              RegisterMacroEvent(reinterpret_cast<ULONG_PTR>(hDevice), UserMode));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, ReleaseMacroEvent());
    HostCloseHandle(hDevice);
}

// A keyboard that goes gives its parked reads back, and its pace ends for all: before the removal when it was
// pulled out, within it when it goes in order.
TEST_F(Hazards, AKeyboardThatGoesKeepsNoReadAndNoPace)
{
    Settings.ulKorvexDelay = 100;
    for (bool bPulled : {false, true}) {
        EmuPlugOptions options;
        options.Manual = true;
        Keyboard = Machine->Plug(EmuBootKeyboard, options);
        Globals.ucKorvexTimerRunning = 1;
        FifoEntry entry = {0, 8, {0, 0, 4}};
        ASSERT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
        InterruptUrb read(8);
        SendOwn(Filter(), read.Urb);
        EXPECT_NE(nullptr, Context()->pFirstParked);
        if (bPulled) {
            Keyboard->SurpriseRemove();
            EXPECT_EQ(nullptr, Context()->pFirstParked);
            RefuseNewReferences(Filter());
            StartKorvexDelay(Filter()); // a report that was under way
            EXPECT_EQ(0, Globals.ucKorvexTimerRunning);
        }
        Keyboard->Remove();
        EXPECT_EQ(USBD_STATUS_DEVICE_GONE, read.Urb.UrbHeader.Status);
        EXPECT_EQ(0, Globals.ucKorvexTimerRunning);
    }
}

// A keyboard that cannot be attached is gone, and nobody finds what was built of it.
TEST_F(Hazards, AHalfBuiltKeyboardIsNotFound)
{
    HostFailNth("attach", 1);
    (void)Machine->Plug(EmuBootKeyboard);
    HostFailNth(nullptr, 0);
    KeyboardList list = {};
    EXPECT_EQ(STATUS_SUCCESS, ListKeyboards(&list));
    EXPECT_EQ(1, list.usCount);
}

// The address goes before the data: 65,537 bytes in all.
TEST_F(Hazards, TheLargestWriteHasRoomForItsAddress)
{
    const EmuBytes data(0xFFFF, 0x5A);
    ULONG ulLength = 0;
    EXPECT_NE(STATUS_INSUFFICIENT_RESOURCES,
              WriteDescriptorMemory(Keyboard->Index(), 0, 0xFFFF, data.data(), &ulLength));
}

// A keyboard that never started was not counted: its removal is not the last one's.
TEST_F(Hazards, AKeyboardThatDidNotStartTakesNothingOff)
{
    EmuPlugOptions options;
    options.Start = false;
    EmuKeyboard* pIdle = Machine->Plug(EmuBootKeyboard, options);
    pIdle->SurpriseRemove();
    EXPECT_EQ(1, Globals.usStartedKeyboards);
    pIdle->Remove();
}

// In many orders of two processors.
class HazardOrders : public testing::TestWithParam<unsigned>
{
protected:
    HazardOrders() : Machine(Options())
    {
        EmuPlugOptions plug;
        plug.Manual = true;
        Keyboard = Machine.Plug(EmuBootKeyboard, plug);
    }
    static EmuMachineOptions Options()
    {
        EmuMachineOptions options = DriverOptions();
        options.Seed = GetParam();
        return options;
    }
    PDEVICE_OBJECT Filter() const { return FilterOf(Keyboard); }

    EmuMachine Machine;
    EmuKeyboard* Keyboard;
};

// One report or key is queued and two reads come at once: what was taken out decides, not what was counted.
TEST_P(HazardOrders, OneReportAnswersOneRead)
{
    for (bool bKey : {false, true}) {
        FifoEntry entry = {0, 8, {0, 0, 4}};
        UCHAR ucKey = 4;
        if (bKey) {
            ASSERT_TRUE(AddDataToInsertBuffer(Filter(), &ucKey));
        } else {
            ASSERT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
        }
        unsigned answered[2] = {};
        HostThread thread = HostStartThread([&] { answered[1] = AnswerUntilPassed(Filter()); });
        answered[0] = AnswerUntilPassed(Filter());
        HostJoinThread(thread);
        const unsigned last = AnswerUntilPassed(Filter());
        EXPECT_EQ(bKey ? 2u : 1u, answered[0] + answered[1] + last) << "a key and its release, or the report";
    }
}

// A read completes, and its owner frees it, while it is being called back.
TEST_P(HazardOrders, AReadIsNotGoneWhileItIsCalledBack)
{
    InterruptUrb read(8);
    SendOwn(Filter(), read.Urb);
    HostThread thread = HostStartThread([&] { (void)CancelPendingRead(Filter()); });
    (void)Keyboard->Report({0, 0, 4, 0, 0, 0, 0, 0});
    HostJoinThread(thread);
    EXPECT_FALSE(CancelPendingRead(Filter()));
}

// Two keyboards change the one modifier word: a prefix that one latches is not lost to the other.
TEST_P(HazardOrders, NoKeyboardLosesItsModifiers)
{
    EmuPlugOptions plug;
    plug.Manual = true;
    PDEVICE_OBJECT other = FilterOf(Machine.Plug(EmuBootKeyboard, plug));
    const UCHAR ucPrefix[8] = {0, 0, 0x89}, ucKey[8] = {0, 0, 4};
    HostThread thread = HostStartThread([&] { UpdateModifierFlags(other, ucKey, sizeof(ucKey), 1); });
    UpdateModifierFlags(Filter(), ucPrefix, sizeof(ucPrefix), 1);
    HostJoinThread(thread);
    EXPECT_NE(0u, ReadShared(Globals.ulModifierFlags) & MODIFIER_PREFIX1);
}

INSTANTIATE_TEST_SUITE_P(Seeds, HazardOrders, testing::Range(1u, 61u));
