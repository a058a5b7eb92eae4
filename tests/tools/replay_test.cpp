// replay_test.cpp - whole replays through the driver: captures in, lines out.
#include "replayed.h"
#include "tests/macro_file.h"

#include "tools/replay/capture.h"
#include "tools/replay/keyboards.h"

#include <gtest/gtest.h>

namespace
{

const TestInterface Boot = {3, 1, 1};
const char* const CtrlF1 = "[[definition]]\nid = 7\nmodifiers = 0x400\nscans = [0x3B]\nswallow = 1\n";
const char* const F1 = "[[definition]]\nid = 3\nkeys = [\"F1\"]\nswallow = 1\n";

} // namespace

TEST(Replay, TellsCauseAndEffectInOrder)
{
    UsbmonStory story;
    story.Enumerate(0x1234, 0x5678, ConfigurationOf({Boot}));
    story.At(1000).Report({1, 0, 0, 0, 0, 0, 0, 0});
    story.At(2000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(2500).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {4});
    story.At(3000).Report({1, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(
        (Lines{
            R"({"type":"keyboard","t_us":30,"kbd":0,"index":0,"kbdtype":1,"vendor":4660,"product":22136,"name":""})",
            R"({"type":"definition","t_us":30,"kbd":0,"id":7,"status":"0x00000000"})",
            R"({"type":"report","t_us":1000,"kbd":0,"in":"0100000000000000","out":"0100000000000000"})",
            R"({"type":"report","t_us":2000,"kbd":0,"in":"01003a0000000000","out":"0000000000000000"})",
            R"({"type":"event","t_us":2000,"kbd":0,"id":7,"value":1,"esc_abort":0,"source":0})",
            R"({"type":"led","t_us":2500,"kbd":0,"report":4,"flags":1})",
            R"({"type":"report","t_us":3000,"kbd":0,"in":"0100000000000000","out":"0100000000000000"})",
            R"({"type":"event","t_us":3000,"kbd":0,"id":7,"value":0,"esc_abort":0,"source":0})",
            R"({"type":"end","t_us":2003000,"keyboards":1,"reports":3,"events":2,"leaks":0})",
        }),
        ReplayedCapture(story, CtrlF1));
}

TEST(Replay, KeepsKeyboardsApart)
{
    UsbmonStory story;
    story.Device(5).Enumerate(1, 5, ConfigurationOf({Boot}));
    story.At(100).Device(6).Enumerate(1, 6, ConfigurationOf({Boot}));
    story.At(1000).Device(6).Report({0, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(2000).Device(5).Report({0, 0, 4, 0, 0, 0, 0, 0});
    story.At(3000).Device(6).Report({0, 0, 0, 0, 0, 0, 0, 0});
    Lines lines = ReplayedCapture(story, F1);
    EXPECT_EQ(
        (Lines{
            R"({"type":"keyboard","t_us":30,"kbd":0,"index":0,"kbdtype":1,"vendor":1,"product":5,"name":""})",
            R"({"type":"keyboard","t_us":130,"kbd":1,"index":1,"kbdtype":1,"vendor":1,"product":6,"name":""})",
        }),
        Only(lines, "\"keyboard\""));
    EXPECT_EQ((Lines{
                  R"({"type":"report","t_us":1000,"kbd":1,"in":"00003a0000000000","out":"0000000000000000"})",
                  R"({"type":"report","t_us":2000,"kbd":0,"in":"0000040000000000","out":"0000040000000000"})",
                  R"({"type":"report","t_us":3000,"kbd":1,"in":"0000000000000000","out":"0000000000000000"})",
              }),
              Only(lines, "\"report\","));
    EXPECT_EQ((Lines{
                  R"({"type":"event","t_us":1000,"kbd":1,"id":3,"value":1,"esc_abort":0,"source":0})",
                  R"({"type":"event","t_us":3000,"kbd":1,"id":3,"value":0,"esc_abort":0,"source":0})",
              }),
              Only(lines, "\"event\""));
}

TEST(Replay, EndsAHotkeyWhoseKeyboardIsPulledOut)
{
    UsbmonStory story;
    story.Enumerate(1, 2, ConfigurationOf({Boot}));
    story.At(1000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(1500).Report({}, 0x81, -84).Report({}, 0x81, -108);
    Lines lines = ReplayedCapture(story, CtrlF1);
    EXPECT_EQ(1u, Only(lines, "\"event\"").size());
    EXPECT_EQ(1u, Only(lines, "\"value\":1").size());
    EXPECT_EQ(R"({"type":"end","t_us":2001000,"keyboards":1,"reports":1,"events":1,"leaks":0})",
              lines.back());
}

TEST(Replay, BeginsAtTheFirstReportWithoutEnumeration)
{
    UsbmonStory story;
    story.At(0).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {1});
    story.At(700).Report({0, 0, 0x3A, 0, 0, 0, 0, 0});
    Lines lines = ReplayedCapture(story, F1);
    ASSERT_EQ(7u, lines.size());
    EXPECT_EQ(
        R"({"type":"note","t_us":0,"kbd":0,"text":"the capture has no enumeration, so the driver does not learn what kind of keyboard this is; plug it in after the start of the recording, or say --keyboard KIND or --keyboard guess"})",
        lines[0]);
    lines.erase(lines.begin());
    EXPECT_EQ(R"({"type":"led","t_us":0,"kbd":0,"report":1,"flags":2})", lines[0]);
    EXPECT_EQ(
        R"({"type":"keyboard","t_us":700,"kbd":0,"index":0,"kbdtype":0,"vendor":0,"product":0,"name":""})",
        lines[1]);
    EXPECT_EQ(R"({"type":"definition","t_us":700,"kbd":0,"id":3,"status":"0x00000000"})", lines[2]);
    EXPECT_EQ(R"({"type":"report","t_us":700,"kbd":0,"in":"00003a0000000000","out":"0000000000000000"})",
              lines[3]);
    EXPECT_EQ(R"({"type":"event","t_us":700,"kbd":0,"id":3,"value":1,"esc_abort":0,"source":0})", lines[4]);
    // With a kind, the keyboard is known from the start.
    EXPECT_NE(std::string::npos, ReplayedCapture(story, F1, "power")[0].find("\"kbdtype\":2,"));
}

// LED reports have one byte, or an id and one byte when the request names the id; those that come after the last
// report are told too. A gap of years ends.
TEST(Replay, TellsLedReportsAndSkipsLongGaps)
{
    const uint64_t ullYears = 3 * 365 * 86400ull * 1000000;
    UsbmonStory story;
    story.Enumerate(1, 2, ConfigurationOf({Boot}));
    story.At(1000).Report({0, 0, 4, 0, 0, 0, 0, 0});
    story.At(ullYears).Report({0, 0, 0, 0, 0, 0, 0, 0});
    story.At(ullYears + 100).Control({0x21, 9, 1, 2, 0, 0, 2, 0}, {1, 4});
    story.At(ullYears + 200).Control({0x21, 9, 1, 2, 0, 0, 2, 0}, {2, 4}); // the id is another's
    story.At(ullYears + 300).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {2});
    Lines lines = ReplayedCapture(story, "");
    auto at = [&](uint64_t ullUs) { return "\"t_us\":" + std::to_string(ullYears + ullUs); };
    EXPECT_EQ((Lines{"{\"type\":\"led\"," + at(100) + ",\"kbd\":0,\"report\":4,\"flags\":1}",
                     "{\"type\":\"led\"," + at(300) + ",\"kbd\":0,\"report\":2,\"flags\":4}"}),
              Only(lines, "\"led\""));
    EXPECT_EQ(1u, Only(lines, "are skipped").size());
    EXPECT_EQ(1u, Only(lines, "\"end\"," + at(2000300)).size());
}

TEST(Replay, TakesReportsOfThreeAndTwoBytes)
{
    UsbmonStory story;
    story.Report({9, 0x3A, 0}).At(10).Report({9, 0, 0}).At(20).Report({1, 2}, 0x82);
    Lines lines = ReplayedCapture(story, F1);
    EXPECT_EQ((Lines{
                  R"({"type":"report","t_us":0,"kbd":0,"in":"093a00","out":"090000"})",
                  R"({"type":"report","t_us":10,"kbd":0,"in":"090000","out":"090000"})",
                  // the first other key after a hotkey, of whichever keyboard, is held back
                  R"({"type":"report","t_us":20,"kbd":1,"in":"0102","out":"0200"})",
              }),
              Only(lines, "\"report\","));
    EXPECT_EQ(2u, Only(lines, "\"event\"").size());
}

// A read that the driver answers is told after all that the report before it caused, whether it came next or
// the driver called the waiting one back for it.
TEST(Replay, TellsAnsweredReadsInTheirPlace)
{
    UsbmonStory story;
    story.Enumerate(1, 2, ConfigurationOf({Boot}));
    story.At(1000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(2000).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {2});
    story.At(3000).Report({0, 0, 4, 0, 0, 0, 0, 0});
    TestFile file(story.File());
    Lines lines =
        Replayed(ReadInput(file.Path()), CtrlF1, "normal", [](FILE* pOut) -> std::unique_ptr<ReplayPrinter> {
            return std::make_unique<InsertingPrinter>(pOut);
        });
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ((Lines{
                  R"({"type":"report","t_us":1000,"kbd":0,"in":"01003a0000000000","out":"0000000000000000"})",
                  R"({"type":"event","t_us":1000,"kbd":0,"id":7,"value":1,"esc_abort":0,"source":0})",
                  R"({"type":"report","t_us":1000,"kbd":0,"in":null,"out":"0000050000000000"})",
                  R"({"type":"report","t_us":1000,"kbd":0,"in":null,"out":"0102030000000000"})",
                  R"({"type":"led","t_us":2000,"kbd":0,"report":2,"flags":4})",
                  R"({"type":"report","t_us":2000,"kbd":0,"in":null,"out":"0000060000000000"})",
                  R"({"type":"report","t_us":3000,"kbd":0,"in":"0000040000000000","out":"0000040000000000"})",
                  R"({"type":"event","t_us":3000,"kbd":0,"id":7,"value":0,"esc_abort":0,"source":0})",
                  R"({"type":"end","t_us":2003000,"keyboards":1,"reports":5,"events":2,"leaks":0})",
              }),
              Lines(lines.begin() + 1, lines.end()));
}

TEST(Replay, ReportsARefusedDefinitionAndGoesOn)
{
    std::string scans;
    for (int i = 0; i < 33; ++i)
        scans += "0x1E, ";
    Lines lines = ReplayedRecording("E: 5.000000 8 00 00 3a 00 00 00 00 00\n",
                                    "[[definition]]\nid = 1\nscans = [" + scans + "]\n" + F1, "normal");
    EXPECT_EQ((Lines{
                  R"({"type":"definition","t_us":0,"kbd":0,"id":1,"status":"0xc0000001"})",
                  R"({"type":"definition","t_us":0,"kbd":0,"id":3,"status":"0x00000000"})",
              }),
              Only(lines, "\"definition\""));
    EXPECT_EQ(1u, Only(lines, "\"event\"").size());
}

TEST(Replay, GivesARecordingTheKindThatWasAskedFor)
{
    const char* pRecording = "D: 0\nN: Mine\nI: 3 046d c31c\nE: 1.000000 2 00 00\nE: 1.5 2 01 00\n";
    for (auto [pKind, pDescriptors, uType] : EmuMachine::Kinds()) {
        Lines lines = ReplayedRecording(pRecording, F1, pKind);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(R"({"type":"keyboard","t_us":0,"kbd":0,"index":0,"kbdtype":)" + std::to_string(uType) +
                      R"(,"vendor":1133,"product":49948,"name":"Mine"})",
                  lines[0]);
        EXPECT_EQ(R"({"type":"end","t_us":2500000,"keyboards":1,"reports":2,"events":0,"leaks":0})",
                  lines.back());
    }
}

// What each kind sends, its hotkeys taken out of it: pairs of a report as it came and as it went on.
TEST(Replay, ActsOnTheReportsOfEveryKind)
{
    const std::string media = "[[definition]]\nid = 1\nkeys = [\"Volume Up\"]\nswallow = 1\n"
                              "[[definition]]\nid = 2\nkeys = [\"Sleep\"]\nswallow = 1\n";
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    struct {
        const char* pKind;
        Pairs reports;
        std::vector<unsigned> events; // ids, each once down and once up
    } kinds[] = {
        {"power",
         {{"01 e9 00", "01 00 00"}, {"01 00 00", "01 00 00"}, {"02 02", "00 00"}, {"00 00", "00 00"}},
         {1, 2}},
        {"jaalaa",
         {{"02 21 00 00 00", "02 01 00 00 00"},
          {"02 00 00 00 00", "02 00 00 00 00"},
          {"02 20 00 00 00 07 08 09 0a", "02 00 00 00 00 07 08 09 0a"}, // the longest one that is looked at
          {"02 00 00 00 00", "02 00 00 00 00"},
          {"01 02", "01 00"},
          {"01 00", "01 00"},
          {"03 20 00 00 00", "03 20 00 00 00"}}, // a report of no keys
         {1, 1, 2}},
        {"chic",
         {{"03 80 00 00", "03 00 00 00"},
          {"03 00 00 00", "03 00 00 00"},
          {"02 04", "02 00"},
          {"02 00", "02 00"}},
         {1, 2}},
        {"other", {{"02 20 00 00 00", "02 20 00 00 00"}, {"01 02", "01 02"}}, {}},
    };
    for (const auto& kind : kinds) {
        std::string recording;
        Lines expected, events;
        for (size_t i = 0; i < kind.reports.size(); ++i) {
            const auto& [in, out] = kind.reports[i];
            size_t cBytes = (in.size() + 1) / 3;
            recording += "E: " + std::to_string(i) + ".0 " + std::to_string(cBytes) + " " + in + "\n";
            auto joined = [](std::string text) {
                text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
                return text;
            };
            expected.push_back("\"in\":\"" + joined(in) + "\",\"out\":\"" + joined(out) + "\"}");
        }
        for (unsigned uId : kind.events)
            for (int iDown : {1, 0})
                events.push_back("\"id\":" + std::to_string(uId) + ",\"value\":" + std::to_string(iDown) +
                                 ",");
        auto cut = [](Lines lines, const char* pFrom, size_t cMost) {
            for (std::string& line : lines)
                line = line.substr(line.find(pFrom), cMost);
            return lines;
        };
        Lines lines = ReplayedRecording(recording, media, kind.pKind);
        EXPECT_EQ(expected, cut(Only(lines, "\"report\","), "\"in\"", std::string::npos)) << kind.pKind;
        EXPECT_EQ(events, cut(Only(lines, "\"event\""), "\"id\"", strlen("\"id\":1,\"value\":1,")))
            << kind.pKind;
    }
}

// A keyboard with a second interface for its media keys: each is a device of its own, learnt from the capture.
// The mode hotkey and the LED belong to the first one; the second one's reports go on.
TEST(Replay, KnowsBothInterfacesOfOneKeyboard)
{
    DriveFolder folder;
    FileBytes macros = MacroFileHead();
    AppendMacro(macros, 0x3A, {{0, 0, 4}, {}});
    folder.Write("macros.bin", macros);
    UsbmonStory story;
    story.Enumerate(1, 2, ConfigurationOf({Boot, {3, 0, 0}}));
    story.At(1000).Report({0, 0, 0x47, 0, 0, 0, 0, 0}, 0x81).At(1100).Report({0, 0, 0, 0, 0, 0, 0, 0}, 0x81);
    story.At(2000).Report({1, 0xE9, 0}, 0x82).At(2100).Report({1, 0, 0}, 0x82);
    story.At(3000).Report({0, 0, 0x3A, 0, 0, 0, 0, 0}, 0x81).At(3100).Report({0, 0, 0, 0, 0, 0, 0, 0}, 0x81);
    Lines lines = ReplayedCapture(story, "[settings]\nKorvexHotkey = \"Scroll Lock\"\nKorvexLEDDisabled = 0\n"
                                         "KorvexDelay = 5\nKorvexConfigFile = \"" +
                                             folder.Path() + "/macros.bin\"\n");
    ASSERT_LT(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("\"kbd\":0,\"index\":0,\"kbdtype\":1,")) << lines[0];
    EXPECT_NE(std::string::npos, lines[1].find("\"kbd\":1,\"index\":1,\"kbdtype\":2,")) << lines[1];
    EXPECT_EQ((Lines{R"({"type":"macro","t_us":1000,"record":1,"mode":1,"report":""})"}),
              Only(lines, "\"macro\""));
    EXPECT_EQ((Lines{R"({"type":"led","t_us":1000,"kbd":0,"report":4,"flags":1})"}), Only(lines, "\"led\""));
    EXPECT_EQ((Lines{R"({"type":"report","t_us":3000,"kbd":0,"in":null,"out":"0000040000000000"})"}),
              Only(lines, "00040000000000"));
    EXPECT_EQ((Lines{R"({"type":"report","t_us":2000,"kbd":1,"in":"01e900","out":"01e900"})",
                     R"({"type":"report","t_us":2100,"kbd":1,"in":"010000","out":"010000"})"}),
              Only(Only(lines, "\"report\","), "\"kbd\":1"));
}

// Two keyboards play at the same pace. Both wait for the same microsecond: the first one's report and the read
// that follows it come before the second one's timer, which finds nothing left and ends the pacing.
TEST(Replay, LetsTimersOfOneMicrosecondActOneAfterTheOther)
{
    DriveFolder folder;
    FileBytes macros = MacroFileHead();
    AppendMacro(macros, 0x3A, {{1}, {2}, {3}, {4}});
    AppendMacro(macros, 0x3B, {{5}});
    folder.Write("macros.bin", macros);
    Lines lines =
        ReplayedRecording("D: 0\nE: 0.0 8 00 00 47 00 00 00 00 00\nE: 1.0 8 00 00 3a 00 00 00 00 00\n"
                          "D: 1\nE: 1.0 8 00 00 3b 00 00 00 00 00\n",
                          "[settings]\nKorvexHotkey = \"Scroll Lock\"\nKorvexLEDDisabled = 1\n"
                          "KorvexDelay = 8\nKorvexConfigFile = \"" +
                              folder.Path() + "/macros.bin\"\n",
                          "normal");
    Lines played;
    for (const std::string& line : Only(lines, "\"in\":null"))
        played.push_back(line.substr(strlen(R"({"type":"report",)")));
    EXPECT_EQ((Lines{R"("t_us":1000000,"kbd":0,"in":null,"out":"0100000000000000"})",
                     R"("t_us":1008000,"kbd":0,"in":null,"out":"0200000000000000"})",
                     R"("t_us":1008000,"kbd":1,"in":null,"out":"0500000000000000"})",
                     R"("t_us":1016000,"kbd":0,"in":null,"out":"0300000000000000"})",
                     R"("t_us":1024000,"kbd":0,"in":null,"out":"0400000000000000"})"}),
              played);
}

TEST(Replay, SwitchedOffLeavesReportsAlone)
{
    Lines lines = ReplayedRecording("E: 0.0 8 01 00 3a 00 00 00 00 00\n",
                                    std::string("report_processing = false\n") + CtrlF1, "normal");
    EXPECT_EQ(
        (Lines{R"({"type":"report","t_us":0,"kbd":0,"in":"01003a0000000000","out":"01003a0000000000"})"}),
        Only(lines, "\"report\","));
    EXPECT_TRUE(Only(lines, "\"event\"").empty());
}

TEST(Replay, PlaysTheSample)
{
    std::string sample = SAMPLE_FOLDER "/typing.pcap";
    Lines lines = Replayed(ReadInput(sample), CtrlF1);
    Lines events;
    struct {
        const char* pTime;
        int iValue, iEscAbort;
    } expected[] = {
        {"14301076", 1, 0},
        {"14342677", 0, 0},
        {"15222157", 1, 0},
        {"15263761", 0, 0},
        {"15566560", 1, 0},
        // Esc came and went while F1 was held: its release is a key of no hotkey, which ends the hotkey; F1,
        // still there, completes it again and carries the abort.
        {"15659362", 0, 0},
        {"15659362", 1, 1},
        {"15702541", 0, 1},
    };
    for (const auto& event : expected)
        events.push_back(std::string(R"({"type":"event","t_us":)") + event.pTime +
                         R"(,"kbd":0,"id":7,"value":)" + std::to_string(event.iValue) + R"(,"esc_abort":)" +
                         std::to_string(event.iEscAbort) + R"(,"source":0})");
    EXPECT_EQ(events, Only(lines, "\"event\""));
    EXPECT_EQ(R"({"type":"end","t_us":19397246,"keyboards":1,"reports":229,"events":8,"leaks":0})",
              lines.back());
    EXPECT_EQ(5u, Only(lines, "\"led\"").size());
    EXPECT_EQ(
        R"({"type":"keyboard","t_us":200,"kbd":0,"index":0,"kbdtype":1,"vendor":1575,"product":1,"name":"QEMU USB Keyboard"})",
        lines[0]);
}
