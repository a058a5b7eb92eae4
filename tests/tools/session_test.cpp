// session_test.cpp - the verbs that look at a whole session: what they write holds what was told.
#include "replayed.h"

#include "tools/common/files.h"
#include "tools/session/session.h"

#include <gtest/gtest.h>

namespace
{

const char* const CtrlF1 = "[[definition]]\nid = 7\nmodifiers = 0x400\nscans = [0x3B]\nswallow = 1\n";

// What write() makes of the replay of an input.
template <typename Write> std::string Written(const Bytes& input, const char* pConfig, Write write)
{
    TestFile from(input), to({});
    ReplayConfig config = ParseConfig("my.toml", pConfig);
    EXPECT_EQ(0u, write(to.Path(), ReadInput(from.Path()),
                        {DriverEntry, {EmuMachine::FindKind("normal")}, config}));
    Bytes content = ReadWholeFile(to.Path());
    return {content.begin(), content.end()};
}

unsigned WriteMyPage(const std::string& file, const Script& script, const ReplaySetup& setup)
{
    return WritePage(file, "my <b>.hid", script, setup);
}

} // namespace

// Read as any capture: what was below is one keyboard, what was above another.
TEST(Session, BecomesACaptureOfBothSides)
{
    UsbmonStory story; // Ctrl down, F1 to it, both up; an LED report between
    story.Enumerate(0x1234, 0x5678, ConfigurationOf({{3, 1, 1}}));
    story.At(1000).Report({1, 0, 0, 0, 0, 0, 0, 0});
    story.At(2000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(2500).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {4});
    story.At(3000).Report({0, 0, 0, 0, 0, 0, 0, 0});
    std::string capture = Written(story.File(), CtrlF1, WritePcapng);
    TestFile file(BytesOf(capture), ".pcapng");
    Script script = ReadInput(file.Path());
    ASSERT_EQ(2u, script.keyboards.size());
    std::vector<Bytes> sides[2];
    std::vector<uint64_t> times[2];
    unsigned uLeds = 0;
    for (const ScriptStep& step : script.AllSteps())
        if (step.kind == StepKind::Report) {
            sides[step.uKeyboard].push_back(step.data);
            times[step.uKeyboard].push_back(step.ullUs);
        } else {
            EXPECT_EQ(Bytes{4}, step.data);
            EXPECT_EQ(0u, step.uKeyboard);
            ++uLeds;
        }
    EXPECT_EQ(1u, uLeds);
    EXPECT_EQ((std::vector<Bytes>{{1, 0, 0, 0, 0, 0, 0, 0}, {1, 0, 0x3A, 0, 0, 0, 0, 0}, Bytes(8)}),
              sides[0]);
    EXPECT_EQ((std::vector<Bytes>{{1, 0, 0, 0, 0, 0, 0, 0}, Bytes(8), Bytes(8)}), sides[1]);
    EXPECT_EQ((std::vector<uint64_t>{0, 1000, 2000}), times[0]); // counted from the first packet
    EXPECT_EQ(times[0], times[1]);
    for (const char* pComment : {"keyboard 0: 1234:5678", "rewritten by the driver", "hotkey 7 down",
                                 "hotkey 7 up", "LEDs: Scroll", "below", "above"})
        EXPECT_NE(std::string::npos, capture.find(pComment)) << pComment;
}

// Bars from press to release on either side; a swallowed key has none above, a held one lasts to the end.
TEST(Session, BecomesAPageOfBars)
{
    std::string page = Written(BytesOf("N: </script>\nI: 3 1234 5678\nE: 0.001 8 01 00 3a 00 00 00 00 00\n"
                                       "E: 0.003 8 00 00 04 00 00 00 00 00\n"),
                               CtrlF1, WriteMyPage);
    std::string bars;
    for (const std::string& line : Only(LinesOf(page), R"({"kbd":0,"above":)"))
        bars += line.substr(line.find("above")) + "\n";
    EXPECT_EQ(R"(above":false,"own":false,"held":false,"key":"F1","from":0,"to":2000},
above":false,"own":false,"held":false,"key":"LCtrl","from":0,"to":2000},
above":false,"own":false,"held":true,"key":"A","from":2000,"to":2002000},
above":true,"own":false,"held":true,"key":"A","from":2000,"to":2002000}
)",
              bars);
    EXPECT_NE(std::string::npos, page.find(R"("title":"my \u003cb>.hid")"));
    EXPECT_NE(std::string::npos, page.find(R"({"t":0,"kbd":0,"text":"hotkey 7 down"})"));
    EXPECT_NE(std::string::npos, page.find(R"("name":"1234:5678 \u003c/script>")")); // a name ends no script
    for (const char* pOutside : {"http:", "https:", "src=", "href=", "@SESSION@"})
        EXPECT_EQ(std::string::npos, page.find(pOutside)) << pOutside;
}

// A key of a cashier's keyboard that repeats tells its byte as a hotkey tells its state; Esc's is 1.
TEST(Session, TellsAHeldEscOfACashierAsAScanCode)
{
    std::string page =
        Written(BytesOf("E: 0.1 8 00 00 29 00 00 00 00 00\nE: 0.7 8 00 00 00 00 00 00 00 00\n"),
                "[[definition]]\nid = 5\ntype = 5\n[[definition]]\nid = 7\nkeys = [\"F1\"]\n", WriteMyPage);
    std::string told;
    for (const std::string& line : Only(LinesOf(page), "of definition"))
        told += line.substr(line.find("text")) + "\n";
    EXPECT_EQ(R"(text":"scan 01 of definition 5"},
text":"scan 01 of definition 5"},
text":"scan 81 of definition 5"}
)",
              told);
}
