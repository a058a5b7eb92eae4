// intercept_test.cpp - URBs as other drivers may send them, reads that the driver answers, and waits.
#include "machine.h"
#include "urbs.h"

#include <vector>

#include "hotkeys/hotkeys.h"
#include "report/report.h"
#include "usb/usb.h"

using Intercept = KeyboardTest;

TEST_F(Intercept, StrangeRequestsPassUntouched)
{
    UCHAR ucKey = 4;
    AddDataToInsertBuffer(Filter(), &ucKey); // something is queued that a read would be answered with
    struct ShortUrb {
        struct _URB_HEADER Header;
    };
    auto pShort = std::make_unique<ShortUrb>(); // nothing behind the header may be read
    pShort->Header.Length = sizeof(ShortUrb);
    for (USHORT usFunction = 0; usFunction < 60; usFunction++) {
        pShort->Header.Function = usFunction;
        FilterIrp request(Filter(), pShort.get());
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 1));
    }
    FilterIrp without(Filter(), nullptr);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), without.pIrp, 0));

    InterruptUrb read(8);
    FilterIrp other(Filter(), &read.Urb, IOCTL_INTERNAL_USB_SUBMIT_URB + 4); // carries no URB
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), other.pIrp, 0));
    InterruptUrb write(8, 0);
    FilterIrp out(Filter(), &write.Urb);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), out.pIrp, 0));
    read.Urb.UrbBulkOrInterruptTransfer.TransferBuffer = nullptr;
    FilterIrp bufferless(Filter(), &read.Urb);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), bufferless.pIrp, 0));
    InterruptUrb empty(8);
    empty.Buffer[0] = 0x02;
    empty.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength = 0;
    FilterIrp nothing(Filter(), &empty.Urb);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), nothing.pIrp, 0));
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), nothing.pIrp, 1));
    EXPECT_EQ(0, Context()->ucKbdModifiers);
    EXPECT_EQ(1, Context()->usInsertCount);
}

TEST_F(Intercept, ATransferNeverBringsMoreThanWasAskedFor)
{
    KeyDefinition definition = Hotkey(7, 0, {0x1E});
    ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    ASSERT_EQ(STATUS_SUCCESS, Application->StartReportProcessing(Keyboard->Index()));
    for (ULONG ulBytes : {1u, 2u, 3u, 7u, 8u, 9u, 16u}) {
        InterruptUrb read(ulBytes);
        FilterIrp request(Filter(), &read.Urb);
        RememberRequestedLength(request.pIrp);
        read.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength = 4096; // the lower driver lies
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 1));
    }
}

TEST_F(Intercept, AnsweredReadsFitEveryLength)
{
    for (ULONG ulBytes = 1; ulBytes <= 12; ulBytes++) {
        InterruptUrb read(ulBytes);
        FilterIrp request(Filter(), &read.Urb);
        FifoEntry entry = {0, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
        InsertUSBPacketFifin(Filter(), &entry);
        EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));
        EXPECT_EQ(read.Buffer[ulBytes - 1], ulBytes <= 10 ? ulBytes : 0);
        EXPECT_EQ(read.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength, ulBytes);

        UCHAR ucLock = USAGE_CAPS_LOCK;
        AddDiscardedPacket(Filter(), &ucLock, 0);
        EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));

        WriteShared(Context()->ucKbdModifiers, 0x01);
        WriteShared(Context()->ucInsertModifiers, 0x10);
        WriteShared(Context()->ucInsertModifierPending, 1);
        EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));
        EXPECT_EQ(0x11, read.Buffer[0]);
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
    }
}

// A report longer than the read is dumped as it was queued, and the buffer as it leaves.
TEST_F(Intercept, AQueuedReportIsDumpedWhole)
{
    InterruptUrb read(3);
    FilterIrp request(Filter(), &read.Urb);
    FifoEntry entry = {0, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
    InsertUSBPacketFifin(Filter(), &entry);
    KeptLog log(LOG_TRAFFIC);
    EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));
    const std::string text = log.Take();
    EXPECT_EQ(1u,
              KeptLog::Count(text, "(ShowURBInfo) insertUSBPacket[00-09]: 01 02 03 04 05 06 07 08 09 0a "))
        << text;
    EXPECT_EQ(1u, KeptLog::Count(text, "(ShowURBInfo) Inserted TransferBuffer[00-02]: 01 02 03 ")) << text;
}

// Two keys in one answered read, then their release, then the keyboard again; the stack's buffer is a used one.
TEST_F(Intercept, InsertedKeysAreReleasedByTheNextRead)
{
    InterruptUrb read(8);
    FilterIrp request(Filter(), &read.Urb);
    for (UCHAR ucKey : {4, 5}) {
        AddDataToInsertBuffer(Filter(), &ucKey);
    }
    memset(read.Buffer.get(), 0x77, 8);
    EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));
    EXPECT_EQ((EmuBytes{0x77, 0x77, 4, 5, 0, 0, 0, 0}), EmuBytes(read.Buffer.get(), read.Buffer.get() + 8));
    EXPECT_EQ(URB_ANSWERED, ShowURBInfo(Filter(), request.pIrp, 0));
    EXPECT_EQ(0, read.Buffer[2] | read.Buffer[3]);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
}

// What is queued is given in one order: whole reports, the modifier report, what discard mode held back, the
// release of inserted keys, inserted keys.
TEST_F(Intercept, QueuedThingsAreGivenInTheirOrder)
{
    Keyboard->Unplug(false);
    EmuPlugOptions options;
    options.Manual = true;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    UCHAR ucKey = 5, ucHeldBack = USAGE_CAPS_LOCK;
    FifoEntry entry = {0, 8, {7, 0, 6}};
    ASSERT_TRUE(AddDataToInsertBuffer(Filter(), &ucKey));
    WriteShared(Context()->ucSendEmptyPacket, 1);
    ASSERT_EQ(STATUS_SUCCESS, AddDiscardedPacket(Filter(), &ucHeldBack, 0));
    WriteShared(Context()->ucInsertModifiers, 2);
    WriteShared(Context()->ucInsertModifierPending, 1);
    ASSERT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
    for (const EmuBytes& wanted : {EmuBytes{7, 6}, EmuBytes{2, 0}, EmuBytes{0, USAGE_CAPS_LOCK},
                                   EmuBytes{0, 0}, EmuBytes{0, 5}, EmuBytes{0, 0}}) {
        InterruptUrb read(8);
        const SentRead sent(Filter(), read.Urb);
        EXPECT_EQ(STATUS_SUCCESS, sent.Result.Status);
        EXPECT_EQ(0u, sent.Result.Information);
        EXPECT_EQ((EmuBytes{read.Buffer[0], read.Buffer[2]}), wanted);
    }
    EXPECT_EQ(0u, Keyboard->PendingReads());
}

// The end of discard mode calls the read back from the keyboard only when something was held back.
TEST_F(Intercept, DiscardModeEndsWithoutAReadWhenNothingWasHeldBack)
{
    Keyboard->Unplug(false);
    EmuPlugOptions options;
    options.Manual = true;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    for (bool bHeldBack : {false, true}) {
        UCHAR ucKey = USAGE_CAPS_LOCK;
        KeyDefinition definition = Hotkey(9, 0, {});
        definition.ulType = 11;
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
        if (Keyboard->PendingReads() == 0) {
            ASSERT_EQ(STATUS_SUCCESS, Keyboard->Read());
        }
        if (bHeldBack) {
            ASSERT_EQ(STATUS_SUCCESS, AddDiscardedPacket(Filter(), &ucKey, 0));
        }
        EXPECT_EQ(STATUS_SUCCESS, RemoveKeyDefinition(Filter(), 9));
        EXPECT_EQ(bHeldBack ? 0u : 1u, Keyboard->PendingReads());
    }
}

// Too many keys at once are seen in longer reports too, and pass as they are.
TEST_F(Intercept, ALongRolloverReportPassesUntouched)
{
    KeyDefinition definition = Hotkey(9, 0, {});
    definition.ulType = 11;
    ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    ASSERT_EQ(STATUS_SUCCESS, Application->StartReportProcessing(Keyboard->Index()));
    for (UCHAR ucLast : {1, 2}) { // the sixth key position
        InterruptUrb read(9);
        const EmuBytes report = {2, 0, 1, 1, 1, 1, 1, ucLast, USAGE_CAPS_LOCK};
        std::copy(report.begin(), report.end(), read.Buffer.get());
        FilterIrp request(Filter(), &read.Urb);
        EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 1));
        EXPECT_EQ(ucLast == 1 ? report : (EmuBytes{2, 0, 0, 0, 0, 0, 0, 0, 0}),
                  EmuBytes(read.Buffer.get(), read.Buffer.get() + 9));
    }
}

TEST_F(Intercept, PendingReadsAreKeptInOrder)
{
    IRP irps[102] = {};
    Keyboard->Unplug(false); // no read of a stack above among them
    EmuPlugOptions options;
    options.Manual = true;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(STATUS_SUCCESS, AddPendingIrp(Filter(), &irps[i]));
    }
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddPendingIrp(Filter(), &irps[100])); // the 101st goes down untracked
    irps[100].PendingReturned = TRUE;
    EXPECT_FALSE(RemovePendingIrp(Filter(), &irps[100])) << "nobody else completes it";
    EXPECT_EQ(Context()->pPendingReadIrp, &irps[0]);
    EXPECT_FALSE(RemovePendingIrp(Filter(), &irps[0]));
    EXPECT_EQ(Context()->pPendingReadIrp, &irps[1]);
    for (int i = 99; i >= 1; i--) {
        EXPECT_FALSE(RemovePendingIrp(Filter(), &irps[i]));
    }
    EXPECT_EQ(nullptr, Context()->pPendingReadIrp);
    EXPECT_FALSE(CancelPendingRead(Filter()));
}

// A stack that reads again from its completion routine gets hundreds of answers on a stack that does not grow.
TEST_F(Intercept, ManyAnswersInARowDoNotRecurse)
{
    uintptr_t low = ~static_cast<uintptr_t>(0), high = 0;
    size_t reads = 0;
    EmuPlugOptions options;
    options.Record = false;
    options.OnReceived = [&](const EmuReceived&) {
        char here;
        low = std::min(low, reinterpret_cast<uintptr_t>(&here));
        high = std::max(high, reinterpret_cast<uintptr_t>(&here));
        reads++;
    };
    EmuKeyboard* pKeyboard = Machine->Plug(EmuBootKeyboard, options);
    for (ULONG i = 0; i < KEY_BUFFER_SIZE; i++) {
        UCHAR ucKey = 4;
        ASSERT_TRUE(AddDataToInsertBuffer(FilterOf(pKeyboard), &ucKey));
    }
    reads = 0;
    low = ~static_cast<uintptr_t>(0);
    high = 0;
    ASSERT_TRUE(pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(1 + 171 + 1u, reads); // the report, 1024 keys in sixes, their release
    EXPECT_LT(high - low, 12000u) << "bytes of stack between the first and the deepest answer";
    EXPECT_EQ(1u, pKeyboard->PendingReads());
    pKeyboard->Unplug(false); // the observer's variables end here
}

// Requests of every shape go through to the keyboard and leave no trace as pending reads.
TEST_F(Intercept, WhatIsNoReadIsPassedDownUntracked)
{
    InterruptUrb write(8, 0), cut(8);
    cut.Urb.UrbHeader.Length = sizeof(cut.Urb.UrbHeader);
    URB headless = {}, reset = {};
    reset.UrbHeader.Function = URB_FUNCTION_ABORT_PIPE;
    reset.UrbHeader.Length = sizeof(reset.UrbPipeRequest);
    const struct {
        PURB pUrb;
        ULONG ulCode;
    } requests[] = {
        {nullptr, IOCTL_INTERNAL_USB_SUBMIT_URB},        {&headless, IOCTL_INTERNAL_USB_SUBMIT_URB},
        {&write.Urb, IOCTL_INTERNAL_USB_SUBMIT_URB},     {&cut.Urb, IOCTL_INTERNAL_USB_SUBMIT_URB},
        {&write.Urb, IOCTL_INTERNAL_USB_SUBMIT_URB + 4},
    };
    const LONG lReferences = Context()->lReferences;
    for (const auto& request : requests) {
        FilterIrp irp(Filter(), request.pUrb, request.ulCode);
        UCHAR ucComplete = 0;
        IO_COMPLETION_ROUTINE* pKeep = [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS {
            return STATUS_MORE_PROCESSING_REQUIRED;
        };
        IoSetCompletionRoutine(irp.pIrp, pKeep, nullptr, TRUE, TRUE, TRUE);
        IoSetNextIrpStackLocation(irp.pIrp);
        PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(irp.pIrp);
        pStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        pStack->DeviceObject = Filter();
        pStack->Parameters.DeviceIoControl.IoControlCode = request.ulCode;
        pStack->Parameters.Others.Argument1 = request.pUrb;
        FilterInternalIoctl(Filter(), irp.pIrp, &ucComplete);
        EXPECT_EQ(0, ucComplete);
        EXPECT_EQ(1u, Keyboard->PendingReads()) << "the stack's own";
        EXPECT_EQ(lReferences, Context()->lReferences);
    }
}

// A URB that had no length on its way down is looked at all the same when it comes back with one.
TEST_F(Intercept, ALengthThatCameBelowIsTakenAsItIs)
{
    InterruptUrb read(8);
    read.Urb.UrbHeader.Length = 0;
    FilterIrp request(Filter(), &read.Urb);
    RememberRequestedLength(request.pIrp);
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 0));
    read.Urb.UrbHeader.Length = sizeof(read.Urb.UrbBulkOrInterruptTransfer);
    read.Buffer[0] = 0x02;
    EXPECT_EQ(URB_PASS, ShowURBInfo(Filter(), request.pIrp, 1));
    EXPECT_EQ(0x02, Context()->ucKbdModifiers);
}

// The bus fails and cancels reads on its own: the stack is told, reads again, and the keyboard types on.
TEST_F(Intercept, ReadsThatTheBusGivesUpAreReadAgain)
{
    std::vector<NTSTATUS> failed;
    EmuPlugOptions options;
    options.OnReceived = [&](const EmuReceived& received) {
        if (!NT_SUCCESS(received.Status)) {
            failed.push_back(received.Status);
        }
    };
    Keyboard->Unplug(false);
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->FailRead(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->FailRead(STATUS_CANCELLED));
    EXPECT_EQ((std::vector<NTSTATUS>{STATUS_UNSUCCESSFUL, STATUS_CANCELLED}), failed);
    EXPECT_TRUE(Keyboard->Report({0, 0, 4, 0, 0, 0, 0, 0}));
    ASSERT_EQ(1u, Keyboard->Received().size());
    EXPECT_EQ(4, Keyboard->Received()[0].Bytes[2]);
    EXPECT_EQ(1u, Keyboard->PendingReads());
    Keyboard->Unplug(false); // the observer's variables end here
}

// A read that the keyboard does not give back at once is called back once, by one canceller.
TEST_F(Intercept, AReadIsCalledBackByOne)
{
    static PDEVICE_OBJECT device;
    static int again;
    Keyboard->Unplug(false);
    EmuPlugOptions options;
    options.Manual = true;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    device = Filter();
    again = -1;
    InterruptUrb read(8);
    FilterIrp request(Filter(), &read.Urb);
    ASSERT_EQ(STATUS_SUCCESS, AddPendingIrp(Filter(), request.pIrp));
    IoSetCancelRoutine(request.pIrp, [](PDEVICE_OBJECT, PIRP pIrp) {
        IoReleaseCancelSpinLock(pIrp->CancelIrql);
        again = CancelPendingRead(device) ? 1 : 0;
    });
    EXPECT_TRUE(CancelPendingRead(Filter()));
    EXPECT_EQ(0, again);
    EXPECT_FALSE(RemovePendingIrp(Filter(), request.pIrp)) << "its completion, later, is nobody else's";
}

class Waits : public KeyboardTest
{
protected:
    // Nobody reads, so what waits for a read waits.
    void SetUp() override
    {
        EmuPlugOptions options;
        options.Manual = true;
        Start(EmuBootKeyboard, options);
    }
};

TEST_F(Waits, InsertScansWaitsForItsReport)
{
    NTSTATUS status = STATUS_PENDING;
    HostThread thread =
        HostStartThread([&] { status = Application->InsertScans(Keyboard->Index(), {0x2A}, true); });
    HostSettle();
    EXPECT_EQ(STATUS_PENDING, status);
    EXPECT_EQ(STATUS_SUCCESS, Keyboard->Read());
    HostJoinThread(thread);
    EXPECT_EQ(STATUS_SUCCESS, status);
    ASSERT_EQ(1u, Keyboard->Received().size());
    EXPECT_EQ(0x02, Keyboard->Received()[0].Bytes[0]);
}

TEST_F(Waits, InsertUSBPacketsWaitsForItsLastEntry)
{
    NTSTATUS status = STATUS_PENDING;
    HostThread thread = HostStartThread([&] {
        status = Application->InsertUSBPackets(Keyboard->Index(), {{0, 8, {1}}, {1, 8, {2}}});
    });
    HostSettle();
    Keyboard->Read();
    HostSettle();
    EXPECT_EQ(STATUS_PENDING, status);
    Keyboard->Read();
    HostJoinThread(thread);
    EXPECT_EQ(STATUS_SUCCESS, status);
}

TEST_F(Waits, AnEmptyQueueEndsThemAll)
{
    NTSTATUS status[3] = {STATUS_PENDING, STATUS_PENDING, STATUS_PENDING};
    std::vector<HostThread> threads;
    for (NTSTATUS& result : status) {
        threads.push_back(HostStartThread([&] {
            result = Application->InsertUSBPackets(Keyboard->Index(), {{1, 8, {1}}});
        }));
    }
    for (int i = 0; i < 3; i++) {
        HostSettle();
        EXPECT_EQ(STATUS_PENDING, status[i]);
        Keyboard->Read();
    }
    for (int i = 0; i < 3; i++) {
        HostJoinThread(threads[i]);
        EXPECT_EQ(STATUS_SUCCESS, status[i]);
    }
}

TEST_F(Waits, RemovalAndTheEndOfTheProcessEndThem)
{
    for (bool bRemove : {false, true}) {
        SCOPED_TRACE(bRemove);
        ULONG ulIndex = Keyboard->Index();
        NTSTATUS scans[2] = {STATUS_PENDING, STATUS_PENDING}, packets[2] = {STATUS_PENDING, STATUS_PENDING};
        std::vector<HostThread> threads;
        for (int i = 0; i < 2; i++) {
            threads.push_back(
                HostStartThread([&, i] { scans[i] = Application->InsertScans(ulIndex, {0x2A}, true); }));
            threads.push_back(HostStartThread([&, i] {
                packets[i] = Application->InsertUSBPackets(ulIndex, {{1, 8, {1}}});
            }));
        }
        HostSettle();
        if (bRemove) {
            Keyboard->Unplug(true);
        } else {
            for (HostThread thread : threads) {
                HostEndThreadWaits(thread);
            }
        }
        for (HostThread thread : threads) {
            HostJoinThread(thread);
        }
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(STATUS_UNSUCCESSFUL, scans[i]);
            EXPECT_EQ(packets[i], bRemove ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        }
    }
}

TEST_F(Waits, AProcessThatEndsLetsNoOtherThrough)
{
    NTSTATUS status[2] = {STATUS_PENDING, STATUS_PENDING};
    HostThread threads[2];
    for (int i = 0; i < 2; i++) {
        threads[i] = HostStartThread([&, i] {
            status[i] = Application->InsertUSBPackets(Keyboard->Index(), {{1, 8, {1}}});
        });
        HostSettle();
    }
    HostEndThreadWaits(threads[0]);
    HostJoinThread(threads[0]);
    HostSettle();
    EXPECT_EQ(STATUS_UNSUCCESSFUL, status[0]);
    EXPECT_EQ(STATUS_PENDING, status[1]);
    Keyboard->Read();
    Keyboard->Read();
    HostJoinThread(threads[1]);
    EXPECT_EQ(STATUS_SUCCESS, status[1]);
}

// A debugger stops the application's thread, wherever it waits: the keyboard can be pulled all the same, and the
// thread hears of it when it goes on.
TEST_F(Waits, ASuspendedThreadHoldsNoKeyboardUp)
{
    typedef NTSTATUS Request(EmuApplication & application, ULONG ulIndex);
    static Request* const Requests[] = {
        [](EmuApplication& application, ULONG ulIndex) {
            return application.InsertScans(ulIndex, {0x2A}, true);
        },
        [](EmuApplication& application, ULONG ulIndex) {
            return application.InsertUSBPackets(ulIndex, {{1, 8, {1}}});
        },
        [](EmuApplication& application, ULONG ulIndex) {
            return application.RequestRecord(IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, ulIndex, nullptr, 0, 18);
        },
    };
    for (Request* pRequest : Requests) {
        EmuPlugOptions options;
        options.Manual = true;
        EmuKeyboard* pKeyboard = Machine->Plug(EmuBootKeyboard, options);
        pKeyboard->SetRules({{EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerNever, 0, 0, 0, 0}});
        bool bDone = false, bRemoved = false;
        HostThread waiting = HostStartThread([&] {
            pRequest(*Application, pKeyboard->Index());
            bDone = true;
        });
        HostSettle();
        HostSuspendThread(waiting);
        HostThread removing = HostStartThread([&] {
            pKeyboard->Unplug(true);
            bRemoved = true;
        });
        HostSettle();
        EXPECT_TRUE(bRemoved);
        EXPECT_FALSE(bDone) << "it is stopped";
        HostResumeThread(waiting);
        HostJoinThread(waiting);
        HostJoinThread(removing);
        EXPECT_TRUE(bDone);
    }
}

// Requests of two processes take turns; one that is stopped in its own does not keep the other from its.
TEST_F(Waits, ASuspendedThreadHoldsNoTurn)
{
    NTSTATUS status[2] = {STATUS_PENDING, STATUS_PENDING};
    HostThread threads[2];
    for (int i = 0; i < 2; i++) {
        threads[i] = HostStartThread(
            [&, i] { status[i] = Application->InsertScans(Keyboard->Index(), {0x2A}, true); });
        HostSettle();
    }
    HostSuspendThread(threads[0]);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(STATUS_SUCCESS, Keyboard->Read());
        HostSettle();
    }
    EXPECT_EQ(STATUS_PENDING, status[0]);
    EXPECT_EQ(STATUS_SUCCESS, status[1]);
    HostResumeThread(threads[0]);
    HostSettle();
    EXPECT_EQ(STATUS_SUCCESS, status[0]);
    for (HostThread thread : threads) {
        HostEndThreadWaits(thread); // one that still waits for its turn
        HostJoinThread(thread);
    }
}
