// time_test.cpp - waits, timers, DPCs, work items and threads, in both modes where the mode does not matter.
#include "driver.h"

#include <atomic>
#include <string>
#include <vector>

class BothModes : public testing::TestWithParam<HostMode>
{
};

INSTANTIATE_TEST_SUITE_P(Host, BothModes, testing::Values(HostSimulated, HostThreaded), [](const auto& info) {
    return info.param == HostSimulated ? "simulated" : "threaded";
});

static LARGE_INTEGER Ms(LONGLONG llMs)
{
    LARGE_INTEGER time;
    time.QuadPart = llMs * -10000;
    return time;
}

struct Counter {
    KTIMER Timer;
    KDPC Dpc;
    KEVENT Fired;
    std::atomic<int> iCount{0};
    std::atomic<int> iIrql{-1};
};

static void Count(PKDPC, PVOID pContext, PVOID, PVOID)
{
    Counter* pCounter = static_cast<Counter*>(pContext);
    pCounter->iIrql = KeGetCurrentIrql();
    pCounter->iCount++;
    KeSetEvent(&pCounter->Fired, 0, FALSE);
}

static void InitCounter(Counter& counter)
{
    KeInitializeTimer(&counter.Timer);
    KeInitializeDpc(&counter.Dpc, Count, &counter);
    KeInitializeEvent(&counter.Fired, SynchronizationEvent, FALSE);
}

TEST_P(BothModes, TimerRunsItsDpcAndCanBeCancelled)
{
    SmallSystem system(GetParam());
    Counter counter;
    InitCounter(counter);
    EXPECT_FALSE(KeSetTimer(&counter.Timer, Ms(20), &counter.Dpc));
    EXPECT_TRUE(KeSetTimer(&counter.Timer, Ms(10), &counter.Dpc)) << "it was set";
    EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&counter.Fired, Executive, KernelMode, FALSE, nullptr));
    EXPECT_EQ(1, counter.iCount);
    EXPECT_EQ(DISPATCH_LEVEL, counter.iIrql);
    EXPECT_TRUE(KeReadStateTimer(&counter.Timer));
    EXPECT_FALSE(KeCancelTimer(&counter.Timer));
    KeSetTimer(&counter.Timer, Ms(50), &counter.Dpc);
    EXPECT_TRUE(KeCancelTimer(&counter.Timer));
    LARGE_INTEGER wait = Ms(80);
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&counter.Fired, Executive, KernelMode, FALSE, &wait));
    KeFlushQueuedDpcs();
}

TEST_P(BothModes, PeriodicTimerGoesOn)
{
    SmallSystem system(GetParam());
    Counter counter;
    InitCounter(counter);
    KeSetTimerEx(&counter.Timer, Ms(5), 5, &counter.Dpc);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(STATUS_SUCCESS,
                  KeWaitForSingleObject(&counter.Fired, Executive, KernelMode, FALSE, nullptr));
    }
    KeCancelTimer(&counter.Timer);
    KeFlushQueuedDpcs();
    EXPECT_GE(counter.iCount, 4);
}

TEST_P(BothModes, WorkersRunItemsAndThreadsWaitForEachOther)
{
    SmallSystem system(GetParam());
    static std::atomic<int> iRan;
    static KEVENT done;
    iRan = 0;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIO_WORKITEM pItem = IoAllocateWorkItem(system.pDevice);
    IoQueueWorkItem(
        pItem,
        [](PDEVICE_OBJECT, PVOID pContext) {
            EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
            IoFreeWorkItem(static_cast<PIO_WORKITEM>(pContext));
            iRan++;
            KeSetEvent(&done, 0, FALSE);
        },
        DelayedWorkQueue, pItem);
    HostThread thread = HostStartThread([] {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        iRan++;
    });
    HostJoinThread(thread);
    EXPECT_EQ(2, iRan);
    WORK_QUEUE_ITEM item;
    ExInitializeWorkItem(
        &item, [](PVOID) { iRan++; }, nullptr);
    ExQueueWorkItem(&item, DelayedWorkQueue);
    HostSettle();
    EXPECT_EQ(3, iRan);
}

TEST_P(BothModes, MutexIsRecursiveAndHandedOver)
{
    SmallSystem system(GetParam());
    static KMUTEX mutex;
    static std::atomic<int> iInside;
    KeInitializeMutex(&mutex, 0);
    iInside = 0;
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    HostThread thread = HostStartThread([] {
        KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
        iInside = 1;
        KeReleaseMutex(&mutex, FALSE);
    });
    HostSettle();
    EXPECT_EQ(0, iInside);
    KeReleaseMutex(&mutex, FALSE);
    HostSettle();
    EXPECT_EQ(0, iInside) << "taken twice, released once";
    KeReleaseMutex(&mutex, FALSE);
    HostJoinThread(thread);
    EXPECT_EQ(1, iInside);
}

TEST_P(BothModes, WaitsForSeveralObjects)
{
    SmallSystem system(GetParam());
    KEVENT first, second;
    KeInitializeEvent(&first, SynchronizationEvent, TRUE);
    KeInitializeEvent(&second, NotificationEvent, FALSE);
    PVOID both[2] = {&first, &second};
    LARGE_INTEGER now = {};
    EXPECT_EQ(STATUS_TIMEOUT,
              KeWaitForMultipleObjects(2, both, WaitAll, Executive, KernelMode, FALSE, &now, nullptr));
    EXPECT_EQ(1, KeReadStateEvent(&first)) << "a wait for all takes nothing until it has all";
    EXPECT_EQ(STATUS_WAIT_0,
              KeWaitForMultipleObjects(2, both, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr));
    EXPECT_EQ(0, KeReadStateEvent(&first));
    HostThread thread = HostStartThread([&] {
        KeSetEvent(&second, 0, FALSE);
        KeSetEvent(&first, 0, FALSE);
    });
    EXPECT_EQ(STATUS_SUCCESS,
              KeWaitForMultipleObjects(2, both, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr));
    EXPECT_EQ(0, KeReadStateEvent(&first));
    EXPECT_EQ(1, KeReadStateEvent(&second));
    HostJoinThread(thread);
}

TEST_P(BothModes, AnEndingProcessEndsUserWaitsOnly)
{
    SmallSystem system(GetParam());
    HANDLE h = HostCreateEvent(false);
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    HostThread thread = HostStartThread([&] { status = HostWaitEvent(h, -1); });
    HostSettle();
    HostEndThreadWaits(thread);
    HostJoinThread(thread);
    EXPECT_EQ(STATUS_USER_APC, status);
    HostCloseHandle(h);
}

TEST(Simulated, TheClockMovesOnlyWhenToldOrWhenEverybodyWaits)
{
    SmallSystem system;
    std::vector<std::string> order;
    struct Mark {
        std::vector<std::string>* pOrder;
        const char* pName;
    };
    auto mark = [](PKDPC, PVOID pContext, PVOID, PVOID) {
        Mark* pMark = static_cast<Mark*>(pContext);
        pMark->pOrder->push_back(std::string(pMark->pName) + std::to_string(HostNowUs()));
    };
    Mark marks[3] = {{&order, "a"}, {&order, "b"}, {&order, "c"}};
    KTIMER timers[3];
    KDPC dpcs[3];
    const int DUE_MS[3] = {7, 5, 7};
    for (int i = 0; i < 3; i++) {
        KeInitializeTimer(&timers[i]);
        KeInitializeDpc(&dpcs[i], mark, &marks[i]);
        KeSetTimer(&timers[i], Ms(DUE_MS[i]), &dpcs[i]);
    }
    unsigned long long ullNext;
    ASSERT_TRUE(HostNextTimerUs(&ullNext));
    EXPECT_EQ(5000u, ullNext);
    HostSettle();
    EXPECT_EQ(0u, HostNowUs());
    HostAdvanceToUs(6000);
    EXPECT_EQ(6000u, HostNowUs());
    EXPECT_EQ((std::vector<std::string>{"b5000"}), order);
    EXPECT_FALSE(HostExpireNext(6999));
    EXPECT_EQ(6000u, HostNowUs());
    EXPECT_TRUE(HostExpireNext(7000)); // one of the two that are due
    EXPECT_EQ((std::vector<std::string>{"b5000", "a7000"}), order);
    LARGE_INTEGER delay = Ms(3);
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
    EXPECT_EQ(10000u, HostNowUs());
    EXPECT_EQ((std::vector<std::string>{"b5000", "a7000", "c7000"}), order);
    EXPECT_FALSE(HostNextTimerUs(&ullNext));
    LARGE_INTEGER time;
    TIME_FIELDS fields;
    KeQuerySystemTime(&time);
    RtlTimeToTimeFields(&time, &fields);
    EXPECT_EQ(2014, fields.Year);
    EXPECT_EQ(3, fields.Month);
    EXPECT_EQ(7, fields.Day);
    EXPECT_EQ(9, fields.Hour);
    EXPECT_EQ(41, fields.Minute);
    EXPECT_EQ(5, fields.Second);
    EXPECT_EQ(10, fields.Milliseconds);
    EXPECT_EQ(5, fields.Weekday);
}

// A debugger stops a thread in its wait, which then takes nothing; in a critical region, or with a mutex, it goes on
// to the end of that. The end of the process ends the wait of a stopped thread too.
TEST(Simulated, ASuspendedThreadStopsWhereItMay)
{
    for (bool bCritical : {false, true}) {
        SmallSystem system;
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        int iSteps = 0;
        NTSTATUS ended = STATUS_SUCCESS;
        HostThread thread = HostStartThread([&] {
            if (bCritical) {
                KeEnterCriticalRegion();
            }
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
            iSteps = 1;
            if (bCritical) {
                KeLeaveCriticalRegion();
            }
            iSteps = 2;
            ended = KeWaitForSingleObject(&event, UserRequest, UserMode, FALSE, nullptr);
        });
        HostSettle();
        HostSuspendThread(thread);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        HostSettle();
        EXPECT_EQ(bCritical ? 1 : 0, iSteps);
        EXPECT_EQ(bCritical ? 0 : 1, KeReadStateEvent(&event)) << "a stopped thread takes nothing";
        HostResumeThread(thread);
        HostSettle();
        EXPECT_EQ(2, iSteps);
        HostSuspendThread(thread);
        HostEndThreadWaits(thread);
        HostJoinThread(thread);
        EXPECT_EQ(STATUS_USER_APC, ended);
    }
}

TEST(Simulated, DpcsRunWhenTheLevelDrops)
{
    SmallSystem system;
    Counter counter;
    InitCounter(counter);
    KeInsertQueueDpc(&counter.Dpc, nullptr, nullptr);
    EXPECT_EQ(1, counter.iCount);
    KIRQL before = KeRaiseIrqlToDpcLevel();
    EXPECT_TRUE(KeInsertQueueDpc(&counter.Dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&counter.Dpc, nullptr, nullptr)) << "queued already";
    EXPECT_EQ(1, counter.iCount);
    KeLowerIrql(before);
    EXPECT_EQ(2, counter.iCount);
    before = KeRaiseIrqlToDpcLevel();
    KeInsertQueueDpc(&counter.Dpc, nullptr, nullptr);
    EXPECT_TRUE(KeRemoveQueueDpc(&counter.Dpc));
    KeLowerIrql(before);
    EXPECT_EQ(2, counter.iCount);
}

TEST(Simulated, TheSameProgramRunsTheSameWay)
{
    auto run = [] {
        SmallSystem system;
        std::string order;
        KEVENT go;
        KeInitializeEvent(&go, NotificationEvent, FALSE);
        std::vector<HostThread> threads;
        for (int i = 0; i < 4; i++) {
            threads.push_back(HostStartThread([&, i] {
                KeWaitForSingleObject(&go, Executive, KernelMode, FALSE, nullptr);
                for (int j = 0; j < 3; j++) {
                    order += static_cast<char>('a' + i);
                    LARGE_INTEGER pause = Ms((i * 7 + j * 3) % 5 + 1);
                    KeDelayExecutionThread(KernelMode, FALSE, &pause);
                }
            }));
        }
        HostSettle();
        KeSetEvent(&go, 0, FALSE);
        for (HostThread thread : threads) {
            HostJoinThread(thread);
        }
        return order + std::to_string(HostNowUs());
    };
    EXPECT_EQ(run(), run());
}

TEST(Threaded, SpinLockGuardsACounterAcrossThreads)
{
    SmallSystem system(HostThreaded);
    KSPIN_LOCK spin;
    KeInitializeSpinLock(&spin);
    int iCount = 0;
    std::vector<HostThread> threads;
    for (int i = 0; i < 3; i++) {
        threads.push_back(HostStartThread([&] {
            for (int j = 0; j < 2000; j++) {
                KIRQL irql = KeAcquireSpinLockRaiseToDpc(&spin);
                iCount++;
                KeReleaseSpinLock(&spin, irql);
            }
        }));
    }
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_EQ(6000, iCount);
}

TEST_P(BothModes, AThreadThatNeverEndsIsToldAndDoesNotSpoilTheNextHost)
{
    static KEVENT never;
    {
        SmallSystem system(GetParam());
        KeInitializeEvent(&never, NotificationEvent, FALSE);
        std::atomic<bool> bStarted{false};
        HostStartThread([&] {
            bStarted = true;
            KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
        });
        while (!bStarted) {
            HostSettle();
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(1u, system.End());
        EXPECT_EQ("HOST LEAK thread: application still runs\n", testing::internal::GetCapturedStderr());
    }
    SmallSystem next(GetParam());
    EXPECT_EQ(0u, next.End());
}
