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
            ASSERT_EQ(OK, InsertUSBPacketFifin(FilterOf(Keyboard), &entry));
        }
        for (ULONG i = 0; i < ulReads; i++) {
            ASSERT_EQ(OK, Keyboard->Read());
        }
    }
    void CancelFirst()
    {
        ASSERT_NE(nullptr, Context()->pFirstParked);
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
    EXPECT_EQ(3u, ParkedCount(Context()));
    Wait(99);
    EXPECT_EQ("", Keys());
    Wait(1);
    EXPECT_EQ("10", Keys());
    Wait(100);
    EXPECT_EQ("11", Keys());
    Wait(100);
    EXPECT_EQ("-", Keys()); // nothing is queued any more: released, and the pace ends
    EXPECT_EQ(0, Globals.ucKorvexTimerRunning);
    Wait(1000);
    EXPECT_EQ("", Keys());
    EXPECT_EQ(nullptr, Context()->pFirstParked);
    PIRP pNone;
    EXPECT_EQ(OK, GetFirstParkedRequest(FilterOf(Keyboard), &pNone));
    EXPECT_EQ(nullptr, pNone);
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
    ASSERT_EQ(OK, InsertUSBPacketFifin(FilterOf(Keyboard), &entry));
    SentRead parked(FilterOf(Keyboard), read.Urb);
    ASSERT_EQ(OK, GetUSBPacketFifo(Keyboard->Index(), &entry)); // another one was faster
    Wait(100);
    EXPECT_EQ(OK, parked.Result.Status);
    EXPECT_EQ(0u, parked.Result.Information);
    EXPECT_EQ(EmuBytes(read.Buffer.get(), read.Buffer.get() + 8), EmuBytes(8));

    ASSERT_EQ(OK, InsertUSBPacketFifin(FilterOf(Keyboard), &entry));
    Globals.ucKorvexTimerRunning = 1;
    SentRead cancelled(FilterOf(Keyboard), read.Urb);
    CancelFirst();
    EXPECT_EQ(STATUS_CANCELLED, cancelled.Result.Status);
    EXPECT_EQ(USBD_STATUS_CANCELED, read.Urb.UrbHeader.Status);
    SentRead givenUp(FilterOf(Keyboard), read.Urb, true);
    EXPECT_EQ(STATUS_CANCELLED, givenUp.Result.Status);
    EXPECT_EQ(0u, givenUp.Result.Information);
    Wait(100);
}

TEST_F(ParkedTest, TwoHundredAtMost)
{
    Park(203, 2);
    EXPECT_EQ(200u, ParkedCount(Context()));
    EXPECT_EQ("10 11", Keys());              // no place: the next report, at once
    EXPECT_EQ(1u, Keyboard->PendingReads()); // the queue is empty: to the keyboard
    Wait(100);
    EXPECT_EQ(200u, Received.size()) << "nothing is left to play: each comes back empty";
    EXPECT_EQ(Keys().find_first_not_of("- "), std::string::npos);
}

TEST_F(ParkedTest, CancelledAndServed)
{
    Park(4, 4);
    CancelFirst();
    EXPECT_EQ("x", Keys());
    EXPECT_EQ(3u, ParkedCount(Context()));
    Wait(100);
    EXPECT_EQ("10", Keys());
    CancelFirst();
    CancelFirst();
    EXPECT_EQ("x x", Keys());
    EXPECT_EQ(nullptr, Context()->pFirstParked);
    Wait(100);
    EXPECT_EQ(0, Globals.ucKorvexTimerRunning);
}

TEST_F(ParkedTest, TheKeyboardGoes)
{
    Park(3, 3);
    CompleteParkedReads(FilterOf(Keyboard)); // as at surprise removal
    EXPECT_EQ("! ! !", Keys());
    EXPECT_EQ(0, Globals.ucKorvexTimerRunning);
    Globals.ucKorvexTimerRunning = 1;
    ASSERT_EQ(OK, Keyboard->Read()); // parks again, and is served
    Wait(100);
    EXPECT_EQ("10", Keys());
    ASSERT_EQ(OK, Keyboard->Read());
    EXPECT_EQ(1u, ParkedCount(Context()));
    EXPECT_EQ(OK, Keyboard->Unplug(true));
    EXPECT_EQ(1u, Received.size());
    EXPECT_EQ(0, Globals.ucKorvexTimerRunning);
}

// The stack above gives reads up at the worst moments: before one is parked, and while the timer takes it.
TEST_F(ParkedTest, GivenUpAtTheSameMoment)
{
    Park(2, 3);
    PIRP pGivenUp = Context()->pFirstParked;
    ASSERT_NE(nullptr, pGivenUp);
    PDRIVER_CANCEL pCancel = IoSetCancelRoutine(pGivenUp, nullptr); // as the canceller does first of all
    ASSERT_NE(nullptr, pCancel);
    Wait(100);
    EXPECT_EQ("10", Keys()); // the second read has it; the first is left to its canceller
    EXPECT_EQ(UnparkReadRequest(FilterOf(Keyboard), pGivenUp), Unsuccessful);
    IoAcquireCancelSpinLock(&pGivenUp->CancelIrql);
    pCancel(FilterOf(Keyboard), pGivenUp);
    EXPECT_EQ("x", Keys());

    PIRP pRead = IoAllocateIrp(2, FALSE);
    pRead->Cancel = TRUE;
    const LONG lReferences = Context()->lReferences;
    EXPECT_EQ(STATUS_CANCELLED, ParkReadRequest(FilterOf(Keyboard), pRead));
    EXPECT_EQ(Context()->lReferences, lReferences);
    EXPECT_EQ(0u, ParkedCount(Context()));
    IoFreeIrp(pRead);
    Wait(200);
}

TEST_F(ParkedTest, TwoHundredGoTogether)
{
    Park(200, 1);
    EXPECT_EQ(200u, ParkedCount(Context()));
    CompleteParkedReads(FilterOf(Keyboard));
    EXPECT_EQ(200u, Received.size());
    EXPECT_EQ(0u, ParkedCount(Context()));
    Received.clear();
    Wait(1000);
    EXPECT_EQ("", Keys());
}

TEST_F(ParkedTest, AReadThatIsShorterThanTheReport)
{
    Park(1, 1, 4);
    Wait(100);
    ASSERT_EQ(1u, Received.size());
    EXPECT_EQ((EmuBytes{0, 0, 0x10, 7}), Received[0].Bytes);
}

TEST_F(ParkedTest, AnyDelayIsATime)
{
    Park(1, 1);
    Wait(100);
    EXPECT_EQ("10", Keys());
    for (ULONG ulDelayMs : {0u, ~0u}) {
        Settings.ulKorvexDelay = ulDelayMs;
        FifoEntry entry = {0, 8, {0, 0, 0x20}};
        InsertUSBPacketFifin(FilterOf(Keyboard), &entry);
        Wait(200); // the pace that ran before is over
        Globals.ucKorvexTimerRunning = 1;
        ASSERT_EQ(OK, Keyboard->Read());
        if (ulDelayMs != 0) {
            Wait(ulDelayMs - 1ull);
            EXPECT_EQ("", Keys());
        }
        Wait(1);
        EXPECT_EQ("20", Keys()) << ulDelayMs;
        Settings.ulKorvexDelay = 100;
    }
}
} // namespace
