// queues_test.cpp - what the driver keeps for the application: the two record rings, the registered events
// and the report-processing switch.
#include <gtest/gtest.h>

#include <atomic>

#include "machine.h"
#include "control/control.h"
#include "emu/app/machine.h"

namespace
{
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;
constexpr ULONG RING = 1024;

ULONGLONG ValueOf(HANDLE h)
{
    return reinterpret_cast<ULONGLONG>(h);
}

class QueuesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(OK, machine.LoadStatus());
        pFirst = machine.Plug();
        pSecond = machine.Plug();
        ASSERT_EQ(OK, pFirst->StartStatus());
        ASSERT_EQ(OK, pSecond->StartStatus());
    }

    void TearDown() override { EXPECT_EQ(0u, machine.Unload()); }

    EmuMachine machine{DriverOptions()};
    EmuKeyboard* pFirst = nullptr;
    EmuKeyboard* pSecond = nullptr;
};

// The two rings behind one face; a record is told by its number.
struct Ring {
    std::function<NTSTATUS(ULONG)> Queue;
    std::function<NTSTATUS(ULONG*, UCHAR)> Get;
    std::function<ULONG()> Count;
    std::function<NTSTATUS()> Clear;
};

Ring NotifyRing(PDEVICE_OBJECT device, ULONG ulIndex)
{
    return {[device](ULONG ulNumber) {
                NotifyRecord record = {1, 0, 0, 1, 0, 0, ulNumber};
                return QueueNotifyRecord(device, &record);
            },
            [ulIndex](ULONG* pulNumber, UCHAR ucRemove) {
                NotifyRecord record = {0, 0, 0, 0, 0, 0, *pulNumber};
                NTSTATUS status = GetNotifyRecord(ulIndex, &record, ucRemove);
                *pulNumber = record.ulId;
                return status;
            },
            [ulIndex] {
                ULONG ulCount = ~0u;
                EXPECT_EQ(OK, GetNotifyCount(ulIndex, &ulCount));
                return ulCount;
            },
            [ulIndex] { return ClearNotifyQueue(ulIndex); }};
}

Ring MacroRing()
{
    return {[](ULONG ulNumber) {
                MacroRecord record = {2, 0, 0, 10, {}};
                memcpy(record.ucReport, &ulNumber, sizeof(ulNumber));
                return QueueMacroRecord(&record);
            },
            [](ULONG* pulNumber, UCHAR ucRemove) {
                MacroRecord record = {};
                memcpy(record.ucReport, pulNumber, sizeof(*pulNumber));
                NTSTATUS status = GetMacroRecord(&record, ucRemove);
                memcpy(pulNumber, record.ucReport, sizeof(*pulNumber));
                return status;
            },
            [] {
                ULONG ulCount = ~0u;
                EXPECT_EQ(OK, GetMacroCount(&ulCount));
                return ulCount;
            },
            [] { return ClearMacroQueue(); }};
}

void ExpectNext(const Ring& ring, ULONG ulNumber, UCHAR ucRemove)
{
    ULONG ulGot = ~0u;
    EXPECT_EQ(OK, ring.Get(&ulGot, ucRemove));
    EXPECT_EQ(ulNumber, ulGot);
}

void ExerciseRing(const Ring& ring)
{
    ULONG ulUntouched = 99;
    EXPECT_EQ(UN, ring.Get(&ulUntouched, 1));
    EXPECT_EQ(99u, ulUntouched) << "an empty ring writes nothing";

    for (ULONG i = 0; i < RING; i++) {
        ASSERT_EQ(OK, ring.Queue(i));
    }
    EXPECT_EQ(UN, ring.Queue(RING)) << "the record beyond a full ring is dropped";
    EXPECT_EQ(RING, ring.Count());
    ExpectNext(ring, 0, 0);
    ExpectNext(ring, 0, 2); // only 1 takes
    ExpectNext(ring, 0, 1);
    ExpectNext(ring, 1, 0);
    EXPECT_EQ(RING - 1, ring.Count());

    for (ULONG i = 1; i < 3 * RING + 5; i++) { // around the ring, kept full, and a little further
        ASSERT_EQ(OK, ring.Queue(RING - 1 + i));
        EXPECT_EQ(UN, ring.Queue(12345));
        ExpectNext(ring, i, 1);
    }
    EXPECT_EQ(RING - 1, ring.Count());
    EXPECT_EQ(OK, ring.Clear());
    EXPECT_EQ(0u, ring.Count());
    EXPECT_EQ(UN, ring.Get(&ulUntouched, 0));
    EXPECT_EQ(OK, ring.Queue(5));
    ExpectNext(ring, 5, 1);
}

TEST_F(QueuesTest, RingsKeepTheOldest1024InOrder)
{
    ExerciseRing(NotifyRing(FilterOf(pSecond), pSecond->Index()));
    ExerciseRing(MacroRing());
    EXPECT_EQ(0u, NotifyRing(FilterOf(pFirst), pFirst->Index()).Count()) << "each keyboard has its own";
    NotifyRecord record;
    ULONG ulCount;
    EXPECT_EQ(UN, GetNotifyRecord(77, &record, 1));
    EXPECT_EQ(UN, GetNotifyCount(77, &ulCount));
    EXPECT_EQ(UN, ClearNotifyQueue(77));
}

TEST_F(QueuesTest, ASecondRegistrationFailsAndKeepsTheFirst)
{
    HANDLE hFirst = HostCreateEvent(false), hSecond = HostCreateEvent(false);
    HANDLE hWaitOnly = HostCreateEvent(false, SYNCHRONIZE);
    ASSERT_NE(nullptr, Globals.pControlDevice);
    const struct {
        std::function<NTSTATUS(HANDLE)> Register;
        std::function<NTSTATUS()> Release;
        std::function<void()> Signal;
    } Kinds[] = {
        {[&](HANDLE h) { return RegisterNotifyEvent(ValueOf(h), UserMode, pSecond->Index()); },
         [&] { return ReleaseNotifyEvent(pSecond->Index()); }, [&] { SignalNotifyEvent(FilterOf(pSecond)); }},
        {[](HANDLE h) { return RegisterMacroEvent(ValueOf(h), UserMode); },
         [] { return ReleaseMacroEvent(); }, [] { SignalMacroEvent(); }},
        {[](HANDLE h) { return RegisterApplicationEvent(ValueOf(h), UserMode); },
         [] { // no request releases it
             NTSTATUS status = SignalApplicationEvent(Globals.pControlDevice) ? OK : UN;
             ReleaseApplicationEvent(Globals.pControlDevice);
             return status;
         },
         [] { SignalApplicationEvent(Globals.pControlDevice); }},
    };
    for (const auto& kind : Kinds) {
        EXPECT_EQ(UN, kind.Release());
        kind.Signal(); // nobody is told
        EXPECT_EQ(STATUS_INVALID_HANDLE, kind.Register(reinterpret_cast<HANDLE>(0x7FFFFFF0ull)));
        EXPECT_EQ(STATUS_ACCESS_DENIED, kind.Register(hWaitOnly));
        EXPECT_EQ(UN, kind.Release()) << "a bad handle registers nothing";
        EXPECT_EQ(OK, kind.Register(hFirst));
        EXPECT_EQ(UN, kind.Register(hSecond));
        kind.Signal();
        EXPECT_TRUE(HostTakeEvent(hFirst));
        EXPECT_FALSE(HostTakeEvent(hSecond));
        EXPECT_EQ(OK, kind.Release());
        (void)HostTakeEvent(hFirst);
        EXPECT_EQ(OK, kind.Register(hSecond));
        kind.Signal();
        EXPECT_FALSE(HostTakeEvent(hFirst));
        EXPECT_TRUE(HostTakeEvent(hSecond));
        EXPECT_EQ(OK, kind.Release());
        (void)HostTakeEvent(hSecond);
    }
    EXPECT_EQ(UN, RegisterNotifyEvent(ValueOf(hFirst), UserMode, 77));
    HostCloseHandle(hFirst);
    HostCloseHandle(hSecond);
    HostCloseHandle(hWaitOnly);
}

// The registration outlives the application's handle; what is left at removal or close is dropped.
TEST_F(QueuesTest, EventsAreReleasedTogetherAndAtRemoval)
{
    HANDLE h = HostCreateEvent(true);
    EXPECT_EQ(OK, RegisterNotifyEvent(ValueOf(h), UserMode, pFirst->Index()));
    EXPECT_EQ(OK, RegisterMacroEvent(ValueOf(h), UserMode));
    EXPECT_EQ(UN, ReleaseAllEvents()) << "one keyboard had none";
    EXPECT_EQ(UN, ReleaseNotifyEvent(pFirst->Index()));
    EXPECT_EQ(UN, ReleaseMacroEvent());
    EXPECT_EQ(OK, RegisterNotifyEvent(ValueOf(h), UserMode, pFirst->Index()));
    EXPECT_EQ(OK, RegisterNotifyEvent(ValueOf(h), UserMode, pSecond->Index()));
    EXPECT_EQ(OK, ReleaseAllEvents());
    EXPECT_EQ(OK, RegisterNotifyEvent(ValueOf(h), UserMode, pSecond->Index()));
    HostCloseHandle(h);
    SignalNotifyEvent(FilterOf(pSecond));
    pSecond->Unplug(true); // the ledgers at unload tell whether its reference went
}

TEST_F(QueuesTest, ReportProcessingIsASwitchForEachKeyboard)
{
    ULONG ulFirst = pFirst->Index();
    EXPECT_EQ(UN, StopReportProcessing(ulFirst));
    EXPECT_EQ(OK, StartReportProcessing(ulFirst));
    EXPECT_EQ(UN, StartReportProcessing(ulFirst));
    EXPECT_EQ(OK, StopReportProcessing(ulFirst));
    EXPECT_EQ(UN, StopReportProcessing(ulFirst));
    EXPECT_EQ(UN, StartReportProcessing(77));
    EXPECT_EQ(OK, StartReportProcessing(ulFirst));
    EXPECT_EQ(UN, StopAllReportProcessing()) << "the other keyboard was off";
    EXPECT_EQ(0, ContextOf(pFirst)->ucReportProcessing);
    EXPECT_EQ(OK, StartReportProcessing(ulFirst));
    EXPECT_EQ(OK, StartReportProcessing(pSecond->Index()));
    EXPECT_EQ(OK, StopAllReportProcessing());
}

// Registrations, releases and signals from all sides: at most one is registered, no reference is lost.
TEST(QueuesThreads, OneRegistrationWins)
{
    EmuMachine machine(DriverOptions(HostThreaded));
    ASSERT_EQ(OK, machine.LoadStatus());
    EmuKeyboard* pKeyboard = machine.Plug();
    ASSERT_EQ(OK, pKeyboard->StartStatus());
    std::atomic<int> registered{0}, wins{0}, wrong{0};
    std::vector<HostThread> threads;
    for (int i = 0; i < 3; i++) {
        threads.push_back(HostStartThread([&] {
            HANDLE h = HostCreateEvent(false);
            for (int n = 0; n < 2000; n++) {
                if (RegisterNotifyEvent(ValueOf(h), UserMode, pKeyboard->Index()) == OK) {
                    wrong += registered.fetch_add(1) != 0;
                    wins++;
                    registered--;
                    wrong += ReleaseNotifyEvent(pKeyboard->Index()) != OK;
                }
            }
            HostCloseHandle(h);
        }));
    }
    threads.push_back(HostStartThread([&] {
        for (ULONG n = 0; n < 4000; n++) {
            NotifyRecord record = {1, 0, 0, 1, 0, 0, n};
            (void)QueueNotifyRecord(FilterOf(pKeyboard), &record); // full in the end
            SignalNotifyEvent(FilterOf(pKeyboard));
        }
    }));
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_EQ(0, wrong);
    EXPECT_GT(wins, 0);
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
