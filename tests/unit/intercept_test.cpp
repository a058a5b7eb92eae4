// intercept_test.cpp - URBs as other drivers may send them, reads that the driver answers, and waits.
#include "bench_keyboard.h"

#include <vector>

#include "hotkeys/hotkeys.h"
#include "report/report.h"
#include "usb/usb.h"

namespace
{
// A request with a URB that stands at the filter device, as its dispatch routine finds it.
class FilterIrp
{
public:
    explicit FilterIrp(PDEVICE_OBJECT device, PVOID pUrb, ULONG ulCode = IOCTL_INTERNAL_USB_SUBMIT_URB)
        : pIrp(IoAllocateIrp(static_cast<CCHAR>(device->StackSize + 1), FALSE))
    {
        IoSetNextIrpStackLocation(pIrp);
        PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(pIrp);
        pStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        pStack->Parameters.DeviceIoControl.IoControlCode = ulCode;
        pStack->Parameters.Others.Argument1 = pUrb;
    }
    ~FilterIrp() { IoFreeIrp(pIrp); }
    FilterIrp(const FilterIrp&) = delete;
    FilterIrp& operator=(const FilterIrp&) = delete;

    PIRP pIrp;
};

// An interrupt transfer whose buffer lies on the heap, so that a byte too many is caught.
struct InterruptUrb {
    explicit InterruptUrb(ULONG ulBytes, ULONG ulFlags = USBD_TRANSFER_DIRECTION_IN)
        : Buffer(new UCHAR[ulBytes]())
    {
        Urb.UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
        Urb.UrbHeader.Length = sizeof(Urb.UrbBulkOrInterruptTransfer);
        Urb.UrbBulkOrInterruptTransfer.TransferFlags = ulFlags;
        Urb.UrbBulkOrInterruptTransfer.TransferBuffer = Buffer.get();
        Urb.UrbBulkOrInterruptTransfer.TransferBufferLength = ulBytes;
    }
    std::unique_ptr<UCHAR[]> Buffer;
    URB Urb = {};
};
} // namespace

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
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_PASS);
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 1), URB_PASS);
    }
    FilterIrp without(Filter(), nullptr);
    EXPECT_EQ(ShowURBInfo(Filter(), without.pIrp, 0), URB_PASS);

    InterruptUrb read(8);
    FilterIrp other(Filter(), &read.Urb, IOCTL_INTERNAL_USB_SUBMIT_URB + 4); // carries no URB
    EXPECT_EQ(ShowURBInfo(Filter(), other.pIrp, 0), URB_PASS);
    InterruptUrb write(8, 0);
    FilterIrp out(Filter(), &write.Urb);
    EXPECT_EQ(ShowURBInfo(Filter(), out.pIrp, 0), URB_PASS);
    read.Urb.UrbBulkOrInterruptTransfer.TransferBuffer = nullptr;
    FilterIrp bufferless(Filter(), &read.Urb);
    EXPECT_EQ(ShowURBInfo(Filter(), bufferless.pIrp, 0), URB_PASS);
    EXPECT_EQ(Context()->usInsertCount, 1);
}

TEST_F(Intercept, ATransferNeverBringsMoreThanWasAskedFor)
{
    KeyDefinition definition = Hotkey(7, 0, {0x1E});
    ASSERT_EQ(AddKeyDefinition(Filter(), &definition), STATUS_SUCCESS);
    ASSERT_EQ(Application->StartReportProcessing(Keyboard->Index()), STATUS_SUCCESS);
    for (ULONG ulBytes : {1u, 2u, 3u, 7u, 8u, 9u, 16u}) {
        InterruptUrb read(ulBytes);
        FilterIrp request(Filter(), &read.Urb);
        RememberRequestedLength(request.pIrp);
        read.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength = 4096; // the lower driver lies
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 1), URB_PASS);
    }
}

TEST_F(Intercept, AnsweredReadsFitEveryLength)
{
    for (ULONG ulBytes = 1; ulBytes <= 12; ulBytes++) {
        InterruptUrb read(ulBytes);
        FilterIrp request(Filter(), &read.Urb);
        FifoEntry entry = {0, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
        InsertUSBPacketFifin(Filter(), &entry);
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_ANSWERED);
        EXPECT_EQ(read.Buffer[ulBytes - 1], ulBytes <= 10 ? ulBytes : 0);
        EXPECT_EQ(read.Urb.UrbBulkOrInterruptTransfer.TransferBufferLength, ulBytes);

        UCHAR ucLock = USAGE_CAPS_LOCK;
        AddDiscardedPacket(Filter(), &ucLock, 0);
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_ANSWERED);

        WriteShared(Context()->ucKbdModifiers, 0x01);
        WriteShared(Context()->ucInsertModifiers, 0x10);
        WriteShared(Context()->ucInsertModifierPending, 1);
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_ANSWERED);
        EXPECT_EQ(read.Buffer[0], 0x11);
        EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_PASS);
    }
}

// Two keys in one answered read, then their release, then the keyboard again.
TEST_F(Intercept, InsertedKeysAreReleasedByTheNextRead)
{
    InterruptUrb read(8);
    FilterIrp request(Filter(), &read.Urb);
    for (UCHAR ucKey : {4, 5}) {
        AddDataToInsertBuffer(Filter(), &ucKey);
    }
    EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_ANSWERED);
    EXPECT_EQ(read.Buffer[2], 4);
    EXPECT_EQ(read.Buffer[3], 5);
    EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_ANSWERED);
    EXPECT_EQ(read.Buffer[2] | read.Buffer[3], 0);
    EXPECT_EQ(ShowURBInfo(Filter(), request.pIrp, 0), URB_PASS);
}

TEST_F(Intercept, PendingReadsAreKeptInOrder)
{
    IRP irps[102] = {};
    Keyboard->Unplug(false); // no read of a stack above among them
    EmuPlugOptions options;
    options.Manual = true;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(AddPendingIrp(Filter(), &irps[i]), STATUS_SUCCESS);
    }
    EXPECT_EQ(AddPendingIrp(Filter(), &irps[100]), STATUS_UNSUCCESSFUL); // the 101st goes down untracked
    EXPECT_FALSE(RemovePendingIrp(Filter(), &irps[100]));
    EXPECT_EQ(Context()->pPendingReadIrp, &irps[0]);
    EXPECT_FALSE(RemovePendingIrp(Filter(), &irps[0]));
    EXPECT_EQ(Context()->pPendingReadIrp, &irps[1]);
    for (int i = 99; i >= 1; i--) {
        EXPECT_FALSE(RemovePendingIrp(Filter(), &irps[i]));
    }
    EXPECT_EQ(Context()->pPendingReadIrp, nullptr);
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
        ASSERT_TRUE(AddDataToInsertBuffer(pKeyboard->Filter(), &ucKey));
    }
    reads = 0;
    low = ~static_cast<uintptr_t>(0);
    high = 0;
    ASSERT_TRUE(pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(reads, 1 + 171 + 1u); // the report, 1024 keys in sixes, their release
    EXPECT_LT(high - low, 12000u) << "bytes of stack between the first and the deepest answer";
    EXPECT_EQ(pKeyboard->PendingReads(), 1u);
    pKeyboard->Unplug(false); // the observer's variables end here
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
    EXPECT_EQ(status, STATUS_PENDING);
    EXPECT_EQ(Keyboard->Read(), STATUS_SUCCESS);
    HostJoinThread(thread);
    EXPECT_EQ(status, STATUS_SUCCESS);
    ASSERT_EQ(Keyboard->Received().size(), 1u);
    EXPECT_EQ(Keyboard->Received()[0].Bytes[0], 0x02);
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
    EXPECT_EQ(status, STATUS_PENDING);
    Keyboard->Read();
    HostJoinThread(thread);
    EXPECT_EQ(status, STATUS_SUCCESS);
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
            EXPECT_EQ(scans[i], STATUS_UNSUCCESSFUL);
            EXPECT_EQ(packets[i], bRemove ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        }
    }
}
