// threaded_test.cpp - four keyboards typed at once while an application defines, drains and pulls.
#include "machine.h"

#include <atomic>
#include <thread>

TEST(Threaded, KeyboardsTypeWhileTheApplicationWorks)
{
    EmuMachineOptions options = DriverOptions(HostThreaded);
    std::atomic<unsigned> received{0}; // the machine's threads count to its end
    EmuMachine machine(options);
    ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
    EmuPlugOptions plug;
    plug.Record = false;
    plug.OnReceived = [&](const EmuReceived& report) { received += NT_SUCCESS(report.Status) ? 1 : 0; };
    std::vector<EmuKeyboard*> keyboards;
    for (int i = 0; i < 4; i++) {
        keyboards.push_back(machine.Plug(EmuBootKeyboard, plug));
        ASSERT_EQ(STATUS_SUCCESS, keyboards.back()->StartStatus());
    }
    EmuApplication application;
    for (EmuKeyboard* pKeyboard : keyboards) {
        ASSERT_EQ(STATUS_SUCCESS, application.RegisterNotifyEvent(pKeyboard->Index()));
        ASSERT_EQ(STATUS_SUCCESS, application.StartReportProcessing(pKeyboard->Index()));
    }

    enum { ReportsEach = 400 };
    std::atomic<unsigned> typing{4};
    std::vector<HostThread> threads;
    for (EmuKeyboard* pKeyboard : keyboards) {
        threads.push_back(HostStartThread([&, pKeyboard] {
            for (int i = 0; i < ReportsEach; i++) {
                pKeyboard->Report(i % 2 ? EmuBytes{1, 0, 0, 0, 0, 0, 0, 0}
                                        : EmuBytes{1, 0, 0x3A, 0, 0, 0, 0, 0});
            }
            typing--;
        }));
    }
    threads.push_back(HostStartThread([&] {
        EmuApplication own;
        KeyDefinition definition = {};
        definition.ulType = 1;
        definition.ulModifiers = 0x400;
        definition.usScanCount = 1;
        definition.ucScans[0] = 0x3B;
        for (uint32_t ulRound = 0; typing != 0; ulRound++) {
            definition.ulId = 1 + ulRound % 7;
            EmuKeyboard* pKeyboard = keyboards[ulRound % 4];
            EXPECT_EQ(STATUS_SUCCESS, own.AddDefinition(pKeyboard->Index(), definition));
            own.TakeRecords(pKeyboard->Index());
            EXPECT_EQ(STATUS_SUCCESS, own.RemoveDefinition(pKeyboard->Index(), definition.ulId));
        }
    }));
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_GE(received, 4u * ReportsEach);
    application.Close();
    EXPECT_EQ(0u, machine.Unload());
}

// Two threads of the application read and write the keyboard's memory; the keyboard answers late, on another
// thread, and is pulled in the midst of it.
TEST(Threaded, KeyboardAnswersOnAnotherThread)
{
    EmuMachine machine(DriverOptions(HostThreaded));
    ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
    EmuPlugOptions plug;
    plug.Record = false;
    EmuKeyboard* pKeyboard = machine.Plug(EmuBootKeyboard, plug);
    ASSERT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus());
    ASSERT_EQ(STATUS_SUCCESS,
              pKeyboard->SetRules({{EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerLate, 1, 0, 0, 0}}));

    std::atomic<unsigned> checked{0}, ended{0};
    std::vector<HostThread> threads;
    for (UCHAR ucThread = 0; ucThread < 2; ucThread++) {
        threads.push_back(HostStartThread([&, ucThread] {
            EmuApplication own(ucThread == 0);
            for (UCHAR ucRound = 0;; ucRound++) {
                const UCHAR Write[] = {ucThread, 0, 1, 0, ucRound}; // one byte at an address of its own
                std::vector<UCHAR> out;
                if (!NT_SUCCESS(
                        own.RequestRecord(IOCTL_TVUSB_WRITE_VENDOR_MEMORY, 0, Write, sizeof(Write))) ||
                    !NT_SUCCESS(own.RequestRecord(IOCTL_TVUSB_READ_VENDOR_MEMORY, 0, Write, 4, 1, &out))) {
                    break; // pulled
                }
                EXPECT_EQ((std::vector<UCHAR>{ucRound}), out);
                checked++;
            }
            ended++;
        }));
    }
    while (checked < 40 && ended < 2) {
        std::this_thread::yield();
    }
    EXPECT_GE(checked, 40u);
    pKeyboard->Unplug(true);
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_EQ(0u, machine.Unload());
}
