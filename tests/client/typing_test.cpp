// typing_test.cpp - text and keys as an application types them, and as someone at the samples' keyboard does.
#include <atomic>

#include "emu/app/person.h"
#include "tests/client/client_test.h"

namespace
{
using tvusb::KeyReport;
using tvusb::Status;

class TypingTest : public ClientTest
{
};

TEST_P(TypingTest, TextReachesTheSystemKeyByKey)
{
    std::string text = "Hello, World! {1+1=2}\t~\\\n"; // more reports than the driver's queue holds
    pPlugged->Taken();
    ASSERT_TRUE(keyboard.TypeText(text).Ok());
    std::string seen;
    std::vector<EmuReceived> received = pPlugged->Taken();
    EXPECT_EQ(received.at(0).Bytes, EmuBytes(8));
    received.erase(received.begin());
    ASSERT_EQ(received.size(), 2 * text.size());
    for (size_t i = 0; i < received.size(); i++) {
        KeyReport report;
        ASSERT_EQ(received[i].Bytes.size(), report.size());
        std::copy_n(received[i].Bytes.begin(), report.size(), report.begin());
        if (i % 2 == 0) {
            seen += tvusb::CharacterOfReport(report);
        } else {
            EXPECT_EQ(report, KeyReport()) << "every key is let go";
        }
    }
    EXPECT_EQ(seen, text);

    EXPECT_EQ(
        "INSERT_PACKETS, keyboard 0, character 195: a value does not fit the request, which was not sent "
        "(0xC000000D)",
        keyboard.TypeText("a\xC3\xA4").Text());
    EXPECT_TRUE(pPlugged->Taken().empty());
    EXPECT_TRUE(keyboard.TypeText("").Ok());
}

// Ten reports wait at a system that does not read; it takes up reading while the text is typed.
TEST_P(TypingTest, NothingIsDroppedBehindWhatWaits)
{
    EmuPlugOptions options;
    options.Manual = true;
    EmuKeyboard* pSlow = machine.Plug(EmuBootKeyboard, options);
    auto slow = driver.FindByIndex(pSlow->Index());
    ASSERT_TRUE(slow.Ok());
    ASSERT_TRUE(
        slow->InsertPackets(std::vector<FifoEntry>(10, tvusb::MakeReport({0, 0, 9, 0, 0, 0, 0, 0})), false)
            .Ok());
    std::atomic<bool> bTyped{false};
    HostThread system = HostStartThread([&] {
        HANDLE hPause = HostCreateEvent(false);
        while (!bTyped) {
            HostWaitEvent(hPause, 10000);
            pSlow->Read();
        }
        HostCloseHandle(hPause);
    });
    Status status = slow->TypeText("abcdefgh");
    bTyped = true;
    HostJoinThread(system);
    EXPECT_TRUE(status.Ok()) << status.Text();
    EXPECT_EQ(10u + 1 + 16, pSlow->Taken().size());
}

INSTANTIATE_TEST_SUITE_P(Processes, TypingTest, BothProcessSizes, ProcessSizeName);

TEST(PersonTest, PressesAnyKey)
{
    using Reports = std::vector<KeyReport>;
    const KeyReport none = {}, ctrl = {0x01};
    const struct {
        const char* pWords;
        Reports Keys;
    } cases[] = {
        {"ctrl+0x3A", {ctrl, {0x01, 0, 0x3A}, ctrl, none}},
        {"ctrl+c 0x65", {ctrl, {0x01, 0, 0x06}, ctrl, none, {0, 0, 0x65}, none}},
        {"alt+rshift++", {{0x26}, {0x26, 0, 0x2E}, {0x26}, none}}, // the plus key itself has a Shift
        {" hI +", {{0, 0, 0x0B}, none, {0x02, 0, 0x0C}, none, {0x02, 0, 0x2E}, none}},
        {"", {}},
    };
    std::string bad;
    for (const auto& row : cases) {
        EXPECT_EQ(row.Keys, ReportsOfWords(row.pWords, &bad)) << row.pWords;
        EXPECT_EQ("", bad) << row.pWords;
    }
    for (const char* pBad : {"ctrl+", "strg+c", "0x100", "0x", "0x0", "0xfg", "ctrl+F1", "\xC3\xA4"}) {
        bad = "";
        EXPECT_TRUE(ReportsOfWords(std::string("a ") + pBad, &bad).empty()) << pBad;
        EXPECT_EQ(bad, pBad);
    }
}
} // namespace
