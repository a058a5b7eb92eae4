// schedule_test.cpp - runs in which a seed chooses who goes on: planted races are found, and a seed replays.
#include "driver.h"

#include <algorithm>

enum { THREADS = 2, ROUNDS = 3, SEEDS = 200 };

// What the threads and DPCs of one run share, and the notes they take.
struct Board {
    LONG lCount;
    KSPIN_LOCK Lock;
    KDPC Dpc;
    bool bLocked;
    std::string Notes;
};

static Board board;

static void Note(const char* pText)
{
    board.Notes += std::to_string(HostNowUs()) + " " + pText + "\n";
}

// Reads, lets others come between, writes.
static void AddOne()
{
    KIRQL irql = KeRaiseIrqlToDpcLevel();
    if (board.bLocked) {
        KeAcquireSpinLockAtDpcLevel(&board.Lock);
    }
    SCHEDULE_POINT();
    LONG lRead = board.lCount;
    SCHEDULE_POINT();
    board.lCount = lRead + 1;
    if (board.bLocked) {
        KeReleaseSpinLockFromDpcLevel(&board.Lock);
    }
    KeLowerIrql(irql);
}

static NTSTATUS AddInDispatch(PDEVICE_OBJECT, PIRP pIrp)
{
    Note("request");
    AddOne();
    return CompleteWith(pIrp, STATUS_SUCCESS);
}

static void AddInDpc(PKDPC, PVOID, PVOID, PVOID)
{
    Note("dpc");
    AddOne();
}

static NTSTATUS QueueInDispatch(PDEVICE_OBJECT, PIRP pIrp)
{
    AddOne();
    KeInsertQueueDpc(&board.Dpc, nullptr, nullptr);
    return CompleteWith(pIrp, STATUS_SUCCESS);
}

struct Outcome {
    LONG lCount;
    std::string Notes;
    unsigned long long ullDigest;
};

// Two threads of an application, each with some requests, under one seed.
static Outcome Play(unsigned long long ullSeed, bool bLocked, NTSTATUS (*pDispatch)(PDEVICE_OBJECT, PIRP))
{
    SmallSystem system(HostSimulated, "", "", ullSeed);
    board = {};
    board.bLocked = bLocked;
    KeInitializeDpc(&board.Dpc, AddInDpc, nullptr);
    hooks.Dispatch = pDispatch;
    std::vector<HostThread> threads;
    for (int i = 0; i < THREADS; i++) {
        threads.push_back(HostStartThread([&system] {
            ULONG ulBytes;
            for (int round = 0; round < ROUNDS; round++) {
                HostDeviceControl(system.File, IOCTL_SMALL, nullptr, 0, nullptr, 0, &ulBytes);
            }
        }));
    }
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    KeFlushQueuedDpcs();
    return {board.lCount, board.Notes, HostScheduleDigest()};
}

TEST(Schedules, FindALostUpdateAndPassTheLock)
{
    unsigned uLost = 0;
    for (unsigned seed = 1; seed <= SEEDS; seed++) {
        uLost += Play(seed, false, AddInDispatch).lCount != THREADS * ROUNDS;
        ASSERT_EQ(THREADS * ROUNDS, Play(seed, true, AddInDispatch).lCount) << "seed " << seed;
    }
    EXPECT_GT(uLost, SEEDS / 10u);
    EXPECT_EQ(THREADS * ROUNDS, Play(0, false, AddInDispatch).lCount)
        << "without a seed nobody comes between";
}

TEST(Schedules, LetADpcAndAThreadAtDispatchLevelOvertakeEachOther)
{
    unsigned uDifferent = 0;
    for (unsigned seed = 1; seed <= SEEDS; seed++) {
        LONG lDpcs = 0;
        Outcome outcome = Play(seed, false, QueueInDispatch);
        for (size_t at = 0; (at = outcome.Notes.find("dpc", at)) != std::string::npos; at++) {
            lDpcs++;
        }
        uDifferent += outcome.lCount != THREADS * ROUNDS + lDpcs;
    }
    EXPECT_GT(uDifferent, SEEDS / 10u);
}

TEST(Schedules, AreTheSameForTheSameSeed)
{
    std::vector<std::string> notes;
    for (unsigned seed = 1; seed <= 20; seed++) {
        Outcome first = Play(seed, true, QueueInDispatch);
        Outcome again = Play(seed, true, QueueInDispatch);
        EXPECT_EQ(first.Notes, again.Notes);
        EXPECT_EQ(first.ullDigest, again.ullDigest);
        notes.push_back(std::to_string(first.ullDigest));
    }
    std::sort(notes.begin(), notes.end());
    EXPECT_GT(std::unique(notes.begin(), notes.end()) - notes.begin(), 15) << "seeds differ";
}

TEST(Schedules, AStopTellsItsSeed)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SmallSystem system(HostSimulated, "", "", 77);
            KeLowerIrql(DISPATCH_LEVEL);
        },
        "HOST STOP IRQL_NOT_LESS_OR_EQUAL: .*\\(seed 77\\)");
}

// Looks at a flag, then waits for an event that is cleared in between: the wake can be lost.
static void LoseAWake(unsigned long long ullSeed)
{
    SmallSystem system(HostSimulated, "", "", ullSeed);
    static KEVENT event;
    static LONG lDone;
    lDone = 0;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    HostThread thread = HostStartThread([] {
        InterlockedExchange(&lDone, 1);
        KeSetEvent(&event, 0, FALSE);
    });
    if (InterlockedOr(&lDone, 0) == 0) {
        KeClearEvent(&event);
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    }
    HostJoinThread(thread);
}

TEST(Schedules, FindALostWake)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        for (unsigned seed = 1; seed <= SEEDS; seed++) { LoseAWake(seed); }, "HOST STOP WAIT_NEVER_ENDS");
}

TEST(Schedules, MoveTheClockWhileSomebodyCouldRun)
{
    unsigned uMoved = 0;
    for (unsigned seed = 1; seed <= SEEDS; seed++) {
        SmallSystem system(HostSimulated, "", "", seed);
        LARGE_INTEGER due;
        due.QuadPart = -100000;
        KeInitializeTimer(&system.Extension()->Timer);
        KeSetTimer(&system.Extension()->Timer, due, nullptr);
        HostThread thread = HostStartThread([&] { system.Control(); });
        for (int i = 0; i < 20; i++) {
            uMoved += KeReadStateTimer(&system.Extension()->Timer) != 0;
        }
        HostJoinThread(thread);
        KeCancelTimer(&system.Extension()->Timer);
    }
    EXPECT_GT(uMoved, 0u);
}
