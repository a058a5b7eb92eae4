// audit_test.cpp - what `audit` finds in sessions.
#include "program.h"
#include "replayed.h"

#include "tests/macro_file.h"
#include "tools/audit/audit.h"
#include "tools/audit/beside.h"

namespace
{

struct Timed {
    unsigned uMs;
    const char* pReport;
};

Script ScriptOf(const std::vector<Timed>& reports)
{
    std::string text = "D: 0\nN: Desk\nI: 3 7a3c 0001\n";
    for (const Timed& report : reports) {
        char time[24];
        snprintf(time, sizeof(time), "E: %u.%03u000 ", report.uMs / 1000, report.uMs % 1000);
        text += time + std::to_string((strlen(report.pReport) + 1) / 3) + " " + report.pReport + "\n";
    }
    return RecordingOf(text);
}

// "sent 2, seen 1, taken 1 by a hotkey; besides 0; 7: 1/1/1; lost 1.000 F", fired/came/armed.
std::string ToldOf(const std::vector<Timed>& reports, const std::string& config, const char* pKind = "normal")
{
    ReplayConfig parsed = ParseConfig("my.toml", config);
    Script script = ScriptOf(reports);
    std::string findings;
    Audit audit = AuditOf("my.hid", script, {DriverEntry, {EmuMachine::FindKind(pKind)}, parsed},
                          [&](const Finding& finding) {
                              findings += "; " + std::string(NameOf(finding.kind)) + " " +
                                          std::to_string(finding.ullUs / 1000) + ": " + finding.text;
                          });
    std::string text = "sent " + std::to_string(audit.uSent) + ", seen " + std::to_string(audit.uSeen);
    for (const auto& [by, uTimes] : audit.taken)
        text += ", " + std::to_string(uTimes) + " taken by " + by;
    text += ", besides " + std::to_string(audit.uMade);
    for (const auto& [ulId, use] : audit.hotkeys)
        text += "; " + std::to_string(ulId) + ": " + std::to_string(use.uFired) + "/" +
                std::to_string(use.uKeysCame) + "/" + std::to_string(use.uArmed);
    return text + findings;
}

const char* const Up = "00 00 00 00 00 00 00 00";
const char* const E = "00 00 08 00 00 00 00 00";
const char* const F = "00 00 09 00 00 00 00 00";
const char* const G = "00 00 0a 00 00 00 00 00";
const std::string HotF = "[[definition]]\nid = 7\nkeys = [\"F\"]\n";
const std::string HotCtrlF1 = "[[definition]]\nid = 7\nkeys = [\"ctrl+F1\"]\nswallow = 1\n";

} // namespace

TEST(Audit, TellsWhatBecameOfPresses)
{
    const struct {
        std::vector<Timed> reports;
        std::string config, told;
        const char* pKind = "normal";
    } cases[] = {
        {{{0, E}, {50, Up}, {100, E}, {150, "00 00 08 0a 00 00 00 00"}, {200, Up}},
         "",
         "sent 3, seen 3, besides 0"},
        {{{0, E}}, "", "sent 1, seen 1, besides 0"}, // held to the end
        {{{0, "01 00 00 00 00 00 00 00"},
          {50, "01 00 3a 00 00 00 00 00"},
          {99, "01 00 00 00 00 00 00 00"},
          {150, Up}},
         HotCtrlF1,
         "sent 2, seen 1, 1 taken by a hotkey, besides 1; 7: 1/1/1"}, // Ctrl comes back
        {{{0, "01 00 3a 00 00 00 00 00"}, {50, "01 00 09 00 00 00 00 00"}, {99, Up}},
         HotCtrlF1,
         "sent 3, seen 1, 1 taken by a hotkey, besides 0; 7: 1/1/1; lost 50: F never reached the system: "
         "taken out by the "
         "release of a hotkey"},
        {{{0, "02 00 3a 00 00 00 00 00"}, {50, Up}}, HotCtrlF1, "sent 2, seen 2, besides 0; 7: 0/1/0"},
        {{{0, E}, {100, Up}, {200, F}, {250, Up}, {300, G}, {350, Up}},
         HotF,
         "sent 3, seen 3, besides 0; 7: 1/1/1; accident 200: hotkey 7 fired between E and G, within ordinary "
         "typing"},
        {{{0, E}, {50, Up}, {300, F}, {350, Up}, {400, G}, {450, Up}},
         HotF,
         "sent 3, seen 3, besides 0; 7: 1/1/1"},
        {{{0, E}, {50, Up}, {100, F}, {150, Up}, {400, G}, {450, Up}},
         HotF,
         "sent 3, seen 3, besides 0; 7: 1/1/1"},
        {{{0, F}, {50, Up}, {100, F}, {150, Up}, {200, F}, {250, Up}},
         HotF,
         "sent 3, seen 3, besides 0; 7: 3/3/3"},
        {{{0, F}, {100, "00 00 09 0a 00 00 00 00"}, {150, Up}, {200, E}, {250, Up}},
         "[[definition]]\nid = 7\nkeys = [\"F\", \"G\"]\n",
         "sent 3, seen 3, besides 0; 7: 1/3/3"}, // its own first key is no typing
        {{{0, "e9 00"}, {50, "00 00"}, {100, "cd 00"}, {150, "00 00"}},
         "[[definition]]\nid = 7\nkeys = [\"Volume Up\", \"Mute\"]\n",
         "sent 2, seen 1, besides 0; 7: 0/1/1; lost 100: Play never reached the system: held back, and no "
         "keyboard of this kind gets keys back",
         "power"},
        {{{0, F}, {50, Up}},
         HotF + HotF,
         "sent 1, seen 1, besides 0; 7: 1/1/1; refused 0: definition 7 refused: the keyboard has it already, "
         "or no room for "
         "it (status 0xc0000001)"},
        {{{0, E}, {50, Up}},
         "[[definition]]\nid = 9\ntype = 5\nswallow = 1\n",
         "sent 1, seen 0, 1 taken by point of sale, besides 0"},
        {{{0, "e9 00"}, {50, "00 00"}},
         "[[definition]]\nid = 7\nkeys = [\"Volume Up\"]\nswallow = 1\n",
         "sent 1, seen 0, 1 taken by a hotkey, besides 0; 7: 1/1/1",
         "power"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.told, ToldOf(c.reports, c.config, c.pKind));
}

// A macro of more reports than the driver queues, whose last one that fits leaves a key down.
TEST(Audit, TellsFullQueuesAndStuckKeys)
{
    DriveFolder folder;
    const std::string macros =
        "[[macro]]\nkey = \"F1\"\nplay = [{ text = \"abcdefg\" }, { report = \"0000040000000000\" }, "
        "{ report = \"0000050000000000\" }, { text = \"h\" }]\n";
    folder.Write("m.toml", FileBytes(macros.begin(), macros.end()));
    const std::string config =
        "[settings]\nKorvexHotkey = \"Scroll Lock\"\nKorvexLEDDisabled = 0\nKorvexDelay = 1\n"
        "KorvexConfigFile = \"" +
        folder.Path() + "/m.toml\"\n";
    EXPECT_EQ("sent 2, seen 0, 2 taken by the macro mode, besides 9; queue_full 500: FifoFull keyboard=0 "
              "report=[00 00 0b 00 "
              "00 00 00 00]; queue_full 500: FifoFull keyboard=0 report=[00 00 00 00 00 00 00 00]; stuck "
              "2500: B is "
              "down at the end, and the keyboard does not hold it",
              ToldOf({{0, "00 00 47 00 00 00 00 00"}, {50, Up}, {500, "00 00 3a 00 00 00 00 00"}}, config));
}

TEST(Audit, ComparesTwoConfigurations)
{
    const Script script =
        ScriptOf({{0, E}, {50, "01 00 00 00 00 00 00 00"}, {99, "01 00 3a 00 00 00 00 00"}, {150, Up}});
    const ReplayConfig none = ParseConfig("no.toml", ""), hot = ParseConfig("my.toml", HotCtrlF1);
    const ReplayConfig eight =
        ParseConfig("my.toml", "[[definition]]\nid = 8\nkeys = [\"ctrl+F1\"]\nswallow = 1\n");
    const ReplaySetup setup{DriverEntry, {EmuMachine::FindKind("normal")}, none};
    auto differences = [&](const ReplayConfig& one, const ReplayConfig& other) {
        std::string told;
        FindDifferences(script, setup, {"a", one}, {"b", other}, [&](const Finding& finding) {
            told += std::to_string(finding.ullUs) + " " + finding.text + " | " + finding.details.at(0) +
                    " | " + finding.details.at(1) + "\n";
        });
        return told;
    };
    EXPECT_EQ("", differences(hot, hot));
    const std::string otherId = differences(hot, eight);
    EXPECT_EQ(2, std::count(otherId.begin(), otherId.end(), '\n')) << otherId;
    EXPECT_EQ("99000 report 3, sent 01 00 3a 00 00 00 00 00 | a: seen 01 00 3a 00 00 00 00 00 | b: seen 00 "
              "00 00 00 00 00 00 "
              "00, hotkey 7 down\n"
              "150000 report 4, sent 00 00 00 00 00 00 00 00 | a: seen 00 00 00 00 00 00 00 00 | b: seen 00 "
              "00 00 00 00 00 00 "
              "00, hotkey 7 up\n",
              differences(none, hot));
}

// Each of two keyboards, whose reports come between each other's; one sends more behind the other's end.
TEST(Audit, ComparesKeyboardByKeyboard)
{
    std::string recording = "D: 0\nE: 1.0 8 00 00 09 00 00 00 00 00\nD: 1\nE: 1.1 8 00 00 08 00 00 00 00 00\n"
                            "D: 0\nE: 1.2 8 00 00 00 00 00 00 00 00\nD: 1\n";
    for (int i = 0; i < 5000; ++i)
        recording += i % 2 ? "E: 2.0 8 00 00 08 00 00 00 00 00\n" : "E: 2.0 8 00 00 09 00 00 00 00 00\n";
    const Script script = RecordingOf(recording);
    const ReplayConfig none = ParseConfig("no.toml", ""), hot = ParseConfig("my.toml", HotF);
    const ReplaySetup setup{DriverEntry, {EmuMachine::FindKind("normal")}, none};
    std::map<unsigned, unsigned> differences;
    FindDifferences(script, setup, {"a", none}, {"b", hot},
                    [&](const Finding& finding) { ++differences[finding.uKeyboard]; });
    EXPECT_EQ((std::map<unsigned, unsigned>{{0, 2}, {1, 5000}}), differences);
}

TEST(Audit, TellsThatTheOtherRunFailed)
{
    std::string line;
    Beside fails([](const LineTeller& tell) {
        tell("one");
        throw std::runtime_error("the driver does not load");
    });
    EXPECT_TRUE(fails.Next(line));
    EXPECT_EQ("one", line);
    EXPECT_THROW(fails.Next(line), std::runtime_error);
    Beside dies([](const LineTeller&) { _exit(0); });
    EXPECT_THROW(dies.Next(line), std::runtime_error);
    Beside unread([](const LineTeller& tell) {
        for (;;)
            tell("more than a pipe holds");
    });
    EXPECT_TRUE(unread.Next(line));
}

// What is wrong in sessions: the page, the lines, the statuses.
TEST_F(Program, AuditsSessions)
{
    Write("f.toml", "[[definition]]\nid = 7\nkeys = [\"F\"]\nswallow = 1\n");
    Write("none.toml", "");
    Write("good.hid", "D: 0\nE: 1.0 8 00 00 09 00 00 00 00 00\nE: 1.1 8 00 00 00 00 00 00 00 00\n");
    Write("bad.hid", "D: 0\nE: 1.0 8 00 00 09 00 00 00 00 00\nE: 1.1 8 00 00 0a 00 00 00 00 00\n"
                     "E: 1.2 8 00 00 00 00 00 00 00 00\n");
    Write("cut.hid", "D: 0\nE: 1.0 8 00 00\n");
    RunOutcome good = Run("audit good.hid --config f.toml --json");
    EXPECT_EQ(0, good.iStatus) << good.err;
    EXPECT_EQ(
        std::string(
            R"({"type":"audit","file":"good.hid","t_us":2100000,"keyboards":1,"reports":2,"sent":1,"seen":0,"taken":1,"besides":0,"slowest_us":0,"findings":0})") +
            "\n" + R"({"type":"hotkey","file":"good.hid","id":7,"fired":1,"came":1,"armed":1})" + "\n",
        good.out);
    RunOutcome bad = Run("audit good.hid bad.hid --config f.toml --json");
    EXPECT_EQ(1, bad.iStatus);
    EXPECT_EQ(0u, bad.out.find(good.out));
    for (
        const char* pLine :
        {R"({"type":"finding","file":"bad.hid","t_us":100000,"kbd":0,"kind":"lost","text":"G never reached the system: taken out by the release of a hotkey"})"})
        EXPECT_NE(std::string::npos, bad.out.find(pLine + std::string("\n"))) << bad.out;
    const std::string page = Run("audit good.hid bad.hid --config f.toml").out;
    for (const char* pPart :
         {"2 inputs with f.toml\n  2 keyboards, 5 reports, 4.300000 s\n", "presses sent               3\n",
          "taken                      2  by a hotkey\n", "lost                       1\n",
          "    7  F                     fired 2 times\n", "    bad.hid     0.100000 s  keyboard 0  G never",
          "\n  1 finding\n"})
        EXPECT_NE(std::string::npos, page.find(pPart)) << pPart << page;
    RunOutcome other = Run("audit good.hid --config f.toml --against none.toml");
    EXPECT_EQ(1, other.iStatus);
    EXPECT_NE(std::string::npos, other.out.find("none.toml: seen 00 00 09 00 00 00 00 00\n")) << other.out;
    EXPECT_EQ(0, Run("audit good.hid --config f.toml --against f.toml").iStatus);
    ExpectBadInput("audit good.hid cut.hid --config f.toml", "cut.hid:2: ");
    ExpectBadInput("audit good.hid --config f.toml --against missing.toml", "missing.toml:1: cannot be read");
}
