// session_test.cpp - the verbs that look at a whole session: what they write holds what was told.
#include "captures.h"

#include "tools/replay/input.h"
#include "tools/session/session.h"

#include <gtest/gtest.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

const char* const CtrlF1 = "[[definition]]\nid = 7\nmodifiers = 0x400\nscans = [0x3B]\nswallow = 1\n";

Session Taken(const UsbmonStory& story, const std::string& config)
{
    TestFile file(story.File());
    ReplayConfig parsed = ParseConfig("my.toml", config);
    return TakeSession(ReadInput(file.Path()), {DriverEntry, {EmuMachine::FindKind("normal")}, parsed});
}

// Ctrl down, F1 to it, both up; an LED report between.
Session HotkeySession()
{
    UsbmonStory story;
    story.Enumerate(0x1234, 0x5678, ConfigurationOf({{3, 1, 1}}));
    story.At(1000).Report({1, 0, 0, 0, 0, 0, 0, 0});
    story.At(2000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(2500).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {4});
    story.At(3000).Report({0, 0, 0, 0, 0, 0, 0, 0});
    return Taken(story, CtrlF1);
}

std::string TextOf(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

} // namespace

// Read as any capture: what was below is one keyboard, what was above another.
TEST(Session, BecomesACaptureOfBothSides)
{
    Session session = HotkeySession();
    Bytes capture = PcapngOf(session);
    TestFile file(capture, ".pcapng");
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
        EXPECT_NE(std::string::npos, TextOf(capture).find(pComment)) << pComment;
}

// Bars from press to release on either side; a swallowed key has none above, a held one lasts to the end.
TEST(Session, BecomesAPageOfBars)
{
    UsbmonStory story;
    story.Enumerate(0x1234, 0x5678, ConfigurationOf({{3, 1, 1}}));
    story.At(1000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    story.At(3000).Report({0, 0, 4, 0, 0, 0, 0, 0});
    Session session = Taken(story, CtrlF1);
    session.keyboards[0].script.name = "</script>";
    std::string bars;
    for (const KeyBar& bar : BarsOf(session))
        bars += std::string(bar.bAbove ? "above " : "below ") + bar.key + " " +
                std::to_string(bar.ullFromUs) + "-" + std::to_string(bar.ullToUs) +
                (bar.bHeld ? " held\n" : "\n");
    EXPECT_EQ("below F1 1000-3000\n"
              "below LCtrl 1000-3000\n"
              "below A 3000-2003000 held\n"
              "above A 3000-2003000 held\n",
              bars);
    std::string page = HtmlOf(session);
    EXPECT_NE(std::string::npos, page.find(R"("held":true,"key":"A","from":3000,"to":2003000)"));
    EXPECT_NE(std::string::npos, page.find(R"({"t":1000,"kbd":0,"text":"hotkey 7 down"})"));
    EXPECT_EQ(std::string::npos, page.find("1234:5678 </script>")); // a name ends no script
    for (const char* pOutside : {"http:", "https:", "src=", "href=", "@SESSION@"})
        EXPECT_EQ(std::string::npos, page.find(pOutside)) << pOutside;
}

// A key of a cashier's keyboard that repeats tells its byte as a hotkey tells its state; Esc's is 1.
TEST(Session, TellsAHeldEscOfACashierAsAScanCode)
{
    UsbmonStory story;
    story.Enumerate(0x1234, 0x5678, ConfigurationOf({{3, 1, 1}}));
    story.At(1000).Report({0, 0, 0x29, 0, 0, 0, 0, 0});
    story.At(600000).Report({0, 0, 0, 0, 0, 0, 0, 0});
    Session session = Taken(story, "[[definition]]\nid = 5\ntype = 5\n" + std::string(CtrlF1));
    std::string told;
    for (const SessionLine& line : session.lines)
        if (line.kind == LineKind::Event)
            told += WordsOf(session.kinds, line) + "\n";
    EXPECT_EQ("scan 01 of definition 5\nscan 01 of definition 5\nscan 81 of definition 5\n", told);
}
