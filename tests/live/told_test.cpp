// told_test.cpp - what live tells while it runs: nobody who takes it badly holds the keyboard up.
#include <gtest/gtest.h>

#include <condition_variable>
#include <sys/resource.h>

#include "tests/live/lines.h"
#include "tests/tools/captures.h"
#include "tools/common/files.h"
#include "tools/live/recorded.h"
#include "tools/live/told.h"
#include "tools/replay/input.h"
#include "tools/replay/replay.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
const Bytes A = {0, 0, 4, 0, 0, 0, 0, 0};
const char* const CtrlF1 = "[[definition]]\nid = 7\nmodifiers = 0x400\nscans = [0x3B]\nswallow = 1\n";

// Takes nothing until it may.
class Sleeper : public NoPrinter
{
public:
    void Led(uint64_t, unsigned, uint8_t) override
    {
        std::unique_lock<std::mutex> lock(m_Lock);
        m_Awake.wait(lock, [this] { return m_bAwake; });
    }
    void Wake()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_bAwake = true;
        m_Awake.notify_all();
    }

private:
    std::mutex m_Lock;
    std::condition_variable m_Awake;
    bool m_bAwake = false;
};

TEST(LiveTold, WhoTakesNothingHoldsNobodyUp)
{
    auto sleeper = std::make_shared<Sleeper>();
    LiveTold told({sleeper}, 10);
    for (int i = 0; i < 100; i++)
        told.Led(0, 0, 1);
    EXPECT_LE(80u, told.LeftOut()) << "of 100, with room for 10";
    EXPECT_FALSE(told.Finish(std::chrono::milliseconds(50)));
    sleeper->Wake();
}

// The capture ends where the disk does, with a whole block, and says so; whoever else is told goes on.
TEST(LiveCapture, AFullDiskIsToldOnceAndEndsTheCaptureAlone)
{
    signal(SIGXFSZ, SIG_DFL);
    for (const char* pFull : {"/dev/full", ""}) {
        TestFile own({});
        const std::string file = *pFull ? pFull : own.Path();
        auto lines = std::make_shared<Lines>();
        rlimit before, small;
        getrlimit(RLIMIT_FSIZE, &before);
        small = {1003, before.rlim_max};
        testing::internal::CaptureStderr();
        {
            LiveTold told({OpenLiveCapture(file), lines->Printer()});
            told.Keyboard(0, 0, 0, 1, {});
            setrlimit(RLIMIT_FSIZE, &small);
            for (uint64_t ull = 1; ull <= 50; ull++)
                told.Report(ull, 0, A, A);
            EXPECT_TRUE(told.Finish());
        }
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("; the capture ends here"))
            << file;
        EXPECT_EQ(51u, lines->All().size());
        if (!*pFull) {
            const size_t cSteps = ReadInput(file).AllSteps().size();
            EXPECT_LT(2u, cSteps);
            EXPECT_GT(50u, cSteps);
        }
    }
    EXPECT_THROW(OpenLiveCapture("/none/capture"), InputError);
}

// At its own pace from the first report on, and as a replay tells it; so does a replay of the capture that was written
// meanwhile.
TEST(Recorded, IsPlayedAtItsOwnPaceAsAReplayHasIt)
{
    UsbmonStory story;
    story.Enumerate(0x1234, 0x5678, ConfigurationOf({{3, 1, 1}}));
    story.At(7000000).Report({1, 0, 0, 0, 0, 0, 0, 0});
    story.At(7200000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(7400000).Report(A);
    story.Report(Bytes(8));
    TestFile recording(story.File()), capture({});
    const ReplayConfig config = ParseConfig("my.toml", CtrlF1);
    auto lines = std::make_shared<Lines>();
    std::atomic<bool> bOver{false};
    const auto begin = std::chrono::steady_clock::now();
    {
        LiveTold told({lines->Printer(), OpenLiveCapture(capture.Path())});
        LiveMachine machine({DriverEntry, config, &told});
        RecordedKeyboards recorded(recording.Path(), {}, {});
        recorded.Play(machine, {}, std::chrono::milliseconds(100), [&] { bOver = true; });
        while (!bOver)
            usleep(10000);
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_LE(std::chrono::milliseconds(2500), took);
        EXPECT_GT(std::chrono::milliseconds(6000), took)
            << "seconds before the first report are not waited for";
        testing::internal::CaptureStderr();
        recorded.End();
        EXPECT_EQ(0u,
                  testing::internal::GetCapturedStderr().find("tvusb: 4 reports were played; left out: "));
        EXPECT_EQ(0u, machine.End());
    }
    for (const std::string& file : {recording.Path(), capture.Path()}) {
        Lines replayed;
        RunReplay(ReadInput(file), {DriverEntry, {}, config}, *replayed.Printer());
        EXPECT_EQ(replayed.ReportsOf(0), lines->ReportsOf(0)) << file;
        EXPECT_EQ(replayed.KindOf(0), lines->KindOf(0)) << file;
    }
    EXPECT_EQ(4u, lines->ReportsOf(0).size());
}
} // namespace
