// shrink_test.cpp - what is left of a session is the least that shows it, and the stories that it becomes hold.
#include "captures.h"
#include "program.h"

#include "tools/common/failure.h"
#include "tools/replay/input.h"
#include "tools/shrink/shrink.h"

namespace
{

class Shrink : public Program
{
protected:
    void SetUp() override
    {
        Write("f1.toml",
              "[[definition]]\nid = 7\nkeys = [\"ctrl+F1\"]\nswallow = 1\n"
              "[[definition]]\nid = 8\nkeys = [\"shift+A\"]\n[[definition]]\nid = 9\nscans = [0x7F]\n");
        Write("sale.toml", "report_processing = true\n[[definition]]\nid = 5\ntype = 5\n");
        Write("discard.toml", "[[definition]]\nid = 11\ntype = 11\n");
        Write("macros.toml", "[[macro]]\nkey = \"F1\"\nplay = [\"ctrl+c\"]\n");
        Write("mode.toml",
              "[settings]\nKorvexHotkey = \"Scroll Lock\"\nKorvexLEDDisabled = 0\nKorvexDelay = 20\n"
              "KorvexConfigFile = \"macros.toml\"\n");
        Write("typed.hid",
              "D: 0\nN: Desk\nI: 3 1234 5678\nD: 1\nN: Media\nI: 3 1234 5678\n"
              "D: 0\nE: 0.100000 8 00 00 04 00 00 00 00 00\nE: 0.150000 8 00 00 00 00 00 00 00 00\n"
              "D: 1\nE: 0.300000 2 e9 00\nE: 0.310000 2 00 00\n"
              "D: 0\nE: 0.400000 8 01 00 00 00 00 00 00 00\nE: 0.500000 8 01 00 3a 00 00 00 00 00\n"
              "E: 0.600123 8 01 00 00 00 00 00 00 00\nE: 0.700000 8 00 00 00 00 00 00 00 00\n"
              "E: 2.000000 8 00 00 29 00 00 00 00 00\nE: 3.500000 8 00 00 00 00 00 00 00 00\n"
              "E: 4.000000 8 00 00 47 00 00 00 00 00\nE: 4.100000 8 00 00 00 00 00 00 00 00\n"
              "E: 5.000000 8 00 00 3a 00 00 00 00 00\nE: 5.200000 8 00 00 00 00 00 00 00 00\n");
        UsbmonStory story;
        story.Enumerate(0x7A3C, 0x65, ConfigurationOf({{3, 1, 1}, {3, 0, 0, 4}}));
        story.At(100500).Report({0xE9, 0}, 0x82).At(200000).Report({0, 0}, 0x82);
        story.At(300000).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {1});
        story.At(400000).Report({1, 0, 0x3A, 4, 0, 0, 0, 0}).At(700000).Report({0, 0, 0, 0, 0, 0, 0, 0});
        const Bytes file = story.File();
        Write("typed.pcap", {file.begin(), file.end()});
    }
};

} // namespace

TEST_F(Shrink, LeavesTheLeastThatShowsIt)
{
    const std::string head = "D: 0\nN: Desk\nI: 3 1234 5678\n";
    const struct {
        const char *pConfig, *pWhile;
        std::string left;
    } cases[] = {
        {"f1.toml", "event id=7 value=1", head + "D: 0\nE: 000000.000000 8 01 00 3a 00 00 00 00 00\n"},
        {"f1.toml", "event id=7 value=1 and event id=7 value=0",
         head + "D: 0\nE: 000000.000000 8 01 00 3a 00 00 00 00 00\nE: 000000.001000 8 00 00 00 00 00 00 00 "
                "00\n"},
        {"f1.toml", "event id=7 value=1 and not event id=8 and report kbd=1",
         head + "D: 1\nN: Media\nI: 3 1234 5678\nD: 1\nE: 000000.000000 2 00 00\n"
                "D: 0\nE: 000000.001000 8 01 00 3a 00 00 00 00 00\n"},
        {"sale.toml", "event value=1 source=0", // it repeats 567 ms after it was pressed
         head + "D: 0\nE: 000000.000000 8 00 00 29 00 00 00 00 00\n"},
        {"sale.toml", "event value=1 source=0 and event value=129",
         head + "D: 0\nE: 000000.000000 8 00 00 29 00 00 00 00 00\nE: 000001.024000 8 00 00 00 00 00 00 00 "
                "00\n"},
        {"mode.toml", "macro mode=1", head + "D: 0\nE: 000000.000000 8 00 00 47 00 00 00 00 00\n"},
    };
    for (const auto& c : cases) {
        RunOutcome outcome = Run("shrink typed.hid out.hid --keyboard normal,consumer --config " +
                                 std::string(c.pConfig) + " --while '" + c.pWhile + "'");
        EXPECT_EQ(0, outcome.iStatus) << c.pWhile << outcome.err;
        EXPECT_EQ(c.left, ContentOf(Path("out.hid"))) << c.pWhile;
    }
    // Of a capture what tells the kinds of its keyboards stays; a finding of audit is shown too.
    RunOutcome outcome =
        Run("shrink typed.pcap out.pcap --config f1.toml --while 'event id=7 and led report=1'");
    EXPECT_EQ(0, outcome.iStatus) << outcome.err;
    const std::string lines = Run("replay --json out.pcap --config f1.toml").out;
    EXPECT_NE(std::string::npos, lines.find(R"("kbdtype":1,"vendor":31292,"product":101)")) << lines;
    EXPECT_NE(std::string::npos, lines.find(R"("keyboards":1,"reports":1,"events":1,"leaks":0})")) << lines;
    EXPECT_EQ(0, Run("shrink typed.hid out.hid --config f1.toml --while 'refused kbd=1'").iStatus);
}

// Played by the stories' own player, as 64-bit and as 32-bit application.
TEST_F(Shrink, TellsStoriesThatHold)
{
    const struct {
        const char *pInput, *pConfig, *pWhile, *pTold;
    } cases[] = {
        {"typed.hid", "f1.toml", "event id=7 value=0", "hotkey 7 ctrl 3B swallow\n"},
        {"typed.hid", "f1.toml", "definition status=0xc0000001", "refused hotkey 9 - 7F\n"},
        {"typed.hid", "f1.toml", "event id=7 and report kbd=1 and report kbd=0 out=0000000000000000",
         "on 0\n"},
        {"typed.hid", "sale.toml", "event value=1 source=0 and event value=129", "| down 5\n"},
        {"typed.hid", "discard.toml", "event id=11", "| key 01 11\n"},
        {"typed.hid", "mode.toml", "report in=null out=0100060000000000",
         "answer -> 01 00 06 00 00 00 00 00\n"},
        {"typed.hid", "mode.toml", "macro mode=1 and led report=4", "shows 04\n"},
        {"typed.pcap", "f1.toml", "event id=7 and led report=1", "led 01 -> 02\n"},
    };
    int iCases = 0;
    for (const auto& c : cases) {
        const std::string story = "s" + std::to_string(iCases++) + ".story";
        RunOutcome outcome =
            Run("shrink " + std::string(c.pInput) + " " + story +
                " --story --keyboard normal,consumer --config " + c.pConfig + " --while '" + c.pWhile + "'");
        EXPECT_EQ(0, outcome.iStatus) << c.pWhile << outcome.err;
        EXPECT_NE(std::string::npos, ContentOf(Path(story)).find(c.pTold)) << ContentOf(Path(story));
    }
    RunOutcome played = Run("--version; " STORY_PROGRAM " .");
    EXPECT_EQ(0, played.iStatus) << played.out;
    EXPECT_NE(std::string::npos, played.out.find("[  PASSED  ] " + std::to_string(2 * iCases) + " tests."))
        << played.out;
}

TEST_F(Shrink, SaysWhyThereIsNothing)
{
    UsbmonStory bare; // no one knows what it is
    bare.Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    const Bytes file = bare.File();
    Write("bare.pcap", {file.begin(), file.end()});
    Write("out", "as it was");
    const size_t cFiles = FilesThere();
    const struct {
        const char *pArguments, *pWhile, *pSaid;
        int iStatus;
    } cases[] = {
        {"typed.hid out --config f1.toml", "event id=9", "typed.hid: it does not show 'event id=9'", 1},
        {"typed.hid out --config f1.toml --from 0.65", "event id=7",
         "typed.hid: it does not show 'event id=7'", 1},
        {"typed.hid out", "evnt id=9",
         "--while: 'evnt' is no kind of line and no finding (did you mean 'event'?)", 2},
        {"typed.hid out", "event id", "--while: 'id' is no MEMBER=VALUE; conditions have 'and' between them",
         2},
        {"typed.hid out", "event id=1 and", "--while: 'event id=1 and' ends before a condition", 2},
        {"typed.hid out", "", "--while: '' ends before a condition", 2},
        {"typed.hid out", "report inn=00", "--while: a line 'report' has no member 'inn'", 2},
        {"none.hid out", "report", "none.hid: byte 0: cannot be read", 2},
        {"bare.pcap out --story --config f1.toml", "event id=7",
         "bare.pcap: a story cannot tell it: it has no keyboard like keyboard 0", 1},
    };
    for (const auto& c : cases) {
        RunOutcome outcome = Run("shrink " + std::string(c.pArguments) + " --while '" + c.pWhile + "'");
        EXPECT_EQ(c.iStatus, outcome.iStatus) << c.pWhile << outcome.out;
        EXPECT_EQ(0u, outcome.err.find(std::string("tvusb: ") + c.pSaid)) << outcome.err;
        EXPECT_EQ(1, std::count(outcome.err.begin(), outcome.err.end(), '\n')) << outcome.err;
    }
    EXPECT_THROW(StepsOf("typed.hid", ReadInput(Path("typed.hid")), 13), InputError);
    EXPECT_EQ(14u, StepsOf("typed.hid", ReadInput(Path("typed.hid")), 14).size());
    EXPECT_EQ("as it was", ContentOf(Path("out")));
    EXPECT_EQ(cFiles, FilesThere());
}
