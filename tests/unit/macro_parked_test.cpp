// macro_parked_test.cpp - reads that wait while a macro is played at another pace.
#include <gtest/gtest.h>

#include "machine.h"
#include "urbs.h"
#include "hotkeys/hotkeys.h"

namespace
{
// What the driver guards by its locks, read while nobody else runs.
ULONG ParkedCount(DeviceContext* pContext) WITHOUT_LOCK_ANALYSIS
{
    return pContext->ulParkedCount;
}

// Reads that are parked while another keyboard's pace runs: what each of them got, in order.
class ParkedTest : public MacroTest
{
protected:
    void Park(ULONG ulReads, ULONG ulEntries, ULONG ulPacketBytes = 8)
    {
        EmuPlugOptions options;
        options.Reads = ulReads;
        options.PacketBytes = ulPacketBytes;
        options.Manual = true;
        options.OnReceived = [this](const EmuReceived& received) { Received.push_back(received); };
        Plug(options);
        Settings.ulKorvexDelay = 100;
        Globals.ucKorvexTimerRunning = 1;
        for (ULONG i = 0; i < ulEntries; i++) {
            FifoEntry entry = {0, 8, {0, 0, static_cast<uint8_t>(0x10 + i), 7, 7, 7, 7, 7}};
            ASSERT_EQ(InsertUSBPacketFifin(FilterOf(Keyboard), &entry), OK);
        }
        for (ULONG i = 0; i < ulReads; i++) {
            ASSERT_EQ(Keyboard->Read(), OK);
        }
    }
    void CancelFirst()
    {
        ASSERT_NE(Context()->pFirstParked, nullptr);
        IoCancelIrp(Context()->pFirstParked);
    }
    void Wait(ULONGLONG ullMs) { HostAdvanceToUs(HostNowUs() + ullMs * 1000); }
    // The key each read brought, "-" for a read without one, "!" for a failed one.
    std::string Keys()
    {
        std::string text;
        for (const EmuReceived& received : Received) {
            char key[8] = "-";
            if (!NT_SUCCESS(received.Status)) {
                snprintf(key, sizeof(key), received.Status == STATUS_CANCELLED ? "x" : "!");
            } else if (received.Bytes.at(2) != 0) {
                snprintf(key, sizeof(key), "%02X", received.Bytes[2]);
            }
            text += (text.empty() ? "" : " ") + std::string(key);
        }
        Received.clear();
        return text;
    }

    std::vector<EmuReceived> Received;
};

TEST_F(ParkedTest, TheOwnTimerServesThem)
{
    Park(3, 2);
    EXPECT_EQ(ParkedCount(Context()), 3u);
    Wait(99);
    EXPECT_EQ(Keys(), "");
    Wait(1);
    EXPECT_EQ(Keys(), "10");
    Wait(100);
    EXPECT_EQ(Keys(), "11");
    Wait(100);
    EXPECT_EQ(Keys(), "-"); // nothing is queued any more: released, and the pace ends
    EXPECT_EQ(Globals.ucKorvexTimerRunning, 0);
    Wait(1000);
    EXPECT_EQ(Keys(), "");
    EXPECT_EQ(Context()->pFirstParked, nullptr);
    PIRP pNone;
    EXPECT_EQ(GetFirstParkedRequest(FilterOf(Keyboard), &pNone), OK);
    EXPECT_EQ(pNone, nullptr);
}

// What a read that was parked brings when nothing is queued any more: zeros, whatever its buffer held.
TEST_F(ParkedTest, AnEmptyQueueGivesAnEmptyReport)
{
    EmuPlugOptions options;
    options.Manual = true;
    Plug(options);
    Settings.ulKorvexDelay = 100;
    InterruptUrb read(8);
    memset(read.Buffer.get(), 0xA7, 8);
    Globals.ucKorvexTimerRunning = 1;
    FifoEntry entry = {0, 8, {0, 0, 4}};
    ASSERT_EQ(InsertUSBPacketFifin(FilterOf(Keyboard), &entry), OK);
    SentRead parked(FilterOf(Keyboard), read.Urb);
    ASSERT_EQ(GetUSBPacketFifo(Keyboard->Index(), &entry), OK); // another one was faster
    Wait(100);
    EXPECT_EQ(parked.Result.Status, OK);
    EXPECT_EQ(parked.Result.Information, 0u);
    EXPECT_EQ(EmuBytes(read.Buffer.get(), read.Buffer.get() + 8), EmuBytes(8));

    ASSERT_EQ(InsertUSBPacketFifin(FilterOf(Keyboard), &entry), OK);
    Globals.ucKorvexTimerRunning = 1;
    SentRead cancelled(FilterOf(Keyboard), read.Urb);
    CancelFirst();
    EXPECT_EQ(cancelled.Result.Status, STATUS_CANCELLED);
    EXPECT_EQ(read.Urb.UrbHeader.Status, USBD_STATUS_CANCELED);
    SentRead givenUp(FilterOf(Keyboard), read.Urb, true);
    EXPECT_EQ(givenUp.Result.Status, STATUS_CANCELLED);
    EXPECT_EQ(givenUp.Result.Information, 0u);
    Wait(100);
}

TEST_F(ParkedTest, TwoHundredAtMost)
{
    Park(203, 2);
    EXPECT_EQ(ParkedCount(Context()), 200u);
    EXPECT_EQ(Keys(), "10 11");              // no place: the next report, at once
    EXPECT_EQ(Keyboard->PendingReads(), 1u); // the queue is empty: to the keyboard
    Wait(100);
    EXPECT_EQ(Received.size(), 200u) << "nothing is left to play: each comes back empty";
    EXPECT_EQ(Keys().find_first_not_of("- "), std::string::npos);
}

TEST_F(ParkedTest, CancelledAndServed)
{
    Park(4, 4);
    CancelFirst();
    EXPECT_EQ(Keys(), "x");
    EXPECT_EQ(ParkedCount(Context()), 3u);
    Wait(100);
    EXPECT_EQ(Keys(), "10");
    CancelFirst();
    CancelFirst();
    EXPECT_EQ(Keys(), "x x");
    EXPECT_EQ(Context()->pFirstParked, nullptr);
    Wait(100);
    EXPECT_EQ(Globals.ucKorvexTimerRunning, 0);
}

TEST_F(ParkedTest, TheKeyboardGoes)
{
    Park(3, 3);
    CompleteParkedReads(FilterOf(Keyboard)); // as at surprise removal
    EXPECT_EQ(Keys(), "! ! !");
    EXPECT_EQ(Globals.ucKorvexTimerRunning, 0);
    Globals.ucKorvexTimerRunning = 1;
    ASSERT_EQ(Keyboard->Read(), OK); // parks again, and is served
    Wait(100);
    EXPECT_EQ(Keys(), "10");
    ASSERT_EQ(Keyboard->Read(), OK);
    EXPECT_EQ(ParkedCount(Context()), 1u);
    EXPECT_EQ(Keyboard->Unplug(true), OK);
    EXPECT_EQ(Received.size(), 1u);
    EXPECT_EQ(Globals.ucKorvexTimerRunning, 0);
}

// The stack above gives reads up at the worst moments: before one is parked, and while the timer takes it.
TEST_F(ParkedTest, GivenUpAtTheSameMoment)
{
    Park(2, 3);
    PIRP pGivenUp = Context()->pFirstParked;
    ASSERT_NE(pGivenUp, nullptr);
    PDRIVER_CANCEL pCancel = IoSetCancelRoutine(pGivenUp, nullptr); // as the canceller does first of all
    ASSERT_NE(pCancel, nullptr);
    Wait(100);
    EXPECT_EQ(Keys(), "10"); // the second read has it; the first is left to its canceller
    EXPECT_EQ(UnparkReadRequest(FilterOf(Keyboard), pGivenUp), Unsuccessful);
    IoAcquireCancelSpinLock(&pGivenUp->CancelIrql);
    pCancel(FilterOf(Keyboard), pGivenUp);
    EXPECT_EQ(Keys(), "x");

    PIRP pRead = IoAllocateIrp(2, FALSE);
    pRead->Cancel = TRUE;
    const LONG lReferences = Context()->lReferences;
    EXPECT_EQ(ParkReadRequest(FilterOf(Keyboard), pRead), STATUS_CANCELLED);
    EXPECT_EQ(Context()->lReferences, lReferences);
    EXPECT_EQ(ParkedCount(Context()), 0u);
    IoFreeIrp(pRead);
    Wait(200);
}

TEST_F(ParkedTest, TwoHundredGoTogether)
{
    Park(200, 1);
    EXPECT_EQ(ParkedCount(Context()), 200u);
    CompleteParkedReads(FilterOf(Keyboard));
    EXPECT_EQ(Received.size(), 200u);
    EXPECT_EQ(ParkedCount(Context()), 0u);
    Received.clear();
    Wait(1000);
    EXPECT_EQ(Keys(), "");
}

TEST_F(ParkedTest, AReadThatIsShorterThanTheReport)
{
    Park(1, 1, 4);
    Wait(100);
    ASSERT_EQ(Received.size(), 1u);
    EXPECT_EQ(Received[0].Bytes, (EmuBytes{0, 0, 0x10, 7}));
}

TEST_F(ParkedTest, AnyDelayIsATime)
{
    Park(1, 1);
    Wait(100);
    EXPECT_EQ(Keys(), "10");
    for (ULONG ulDelayMs : {0u, ~0u}) {
        Settings.ulKorvexDelay = ulDelayMs;
        FifoEntry entry = {0, 8, {0, 0, 0x20}};
        InsertUSBPacketFifin(FilterOf(Keyboard), &entry);
        Wait(200); // the pace that ran before is over
        Globals.ucKorvexTimerRunning = 1;
        ASSERT_EQ(Keyboard->Read(), OK);
        if (ulDelayMs != 0) {
            Wait(ulDelayMs - 1ull);
            EXPECT_EQ(Keys(), "");
        }
        Wait(1);
        EXPECT_EQ(Keys(), "20") << ulDelayMs;
        Settings.ulKorvexDelay = 100;
    }
}
} // namespace
