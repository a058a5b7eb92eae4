// why_test.cpp - what `why` tells of a report: the first reason of each definition.
#include "program.h"
#include "replayed.h"

#include "tools/why/why.h"

namespace
{

// Reports a second apart, from second 0.
std::string Recording(const std::vector<std::string>& reports)
{
    std::string text = "D: 0\nN: Desk\nI: 3 7a3c 0001\n";
    for (size_t i = 0; i < reports.size(); ++i)
        text += "E: " + std::to_string(i) + ".0 " + std::to_string((reports[i].size() + 1) / 3) + " " +
                reports[i] + "\n";
    return text;
}

// "reason: words" of the definition at the last of the reports.
std::string ReasonOf(const std::vector<std::string>& reports, const std::string& config, uint32_t ulId,
                     const char* pKind = "normal")
{
    ReplayConfig parsed = ParseConfig("my.toml", config);
    WhySession session =
        CollectWhy(RecordingOf(Recording(reports)), {DriverEntry, {EmuMachine::FindKind(pKind)}, parsed},
                   {static_cast<unsigned>(reports.size()), 0});
    EXPECT_EQ(0u, session.uLeaks);
    if (session.reports.size() != 1)
        return "no report";
    for (const Verdict& verdict : VerdictsOf(session, session.reports[0], parsed))
        if (verdict.ulId == ulId)
            return std::string(NameOf(verdict.reason)) + ": " + verdict.words;
    return "no verdict";
}

const std::string Desk = R"(
[[definition]]
id = 1
keys = ["ctrl+A", "B"]
swallow = 1
[[definition]]
id = 2
keys = ["prefix1+X"]
[[definition]]
id = 3
modifiers = ["lshift", "lalt"]
[[definition]]
id = 4
keys = ["F5"]
[[definition]]
id = 4
keys = ["F5"]
[[definition]]
id = 0
keys = ["F7"]
[settings]
Prefix1 = 0x58
)";
const std::string Up = "00 00 00 00 00 00 00 00";
const std::string Simple = "RunDiagNormalPacket02 = 1\n";
const std::string Sale = "[[definition]]\nid = 9\ntype = 5\n[[definition]]\nid = 10\nkeys = [\"F1\"]\n";
const std::string Volume = "[[definition]]\nid = 5\nkeys = [\"Volume Up\"]\n";

} // namespace

TEST(Why, TellsTheFirstReason)
{
    const struct {
        std::vector<std::string> reports;
        std::string config;
        uint32_t ulId;
        const char* pVerdict;
        const char* pKind = "normal";
    } cases[] = {
        {{"01 00 04 00 00 00 00 00"}, Desk, 1, "key_missing: key missing: B"},
        {{"01 00 04 05 00 00 00 00"}, Desk, 1, "fired: fired with B, armed by ctrl; its keys were swallowed"},
        {{"01 00 04 05 00 00 00 00"}, Desk, 4, "no_key: not looked at: none of its keys is in the report"},
        {{"01 00 04 05 00 00 00 00", "01 00 04 05 00 00 00 00"}, Desk, 1, "stays: is down already"},
        {{"01 00 04 05 00 00 00 00", "01 00 04 05 06 00 00 00"}, Desk, 1, "ended: ended by C, another key"},
        {{"01 00 04 05 00 00 00 00", "01 00 04 00 00 00 00 00"}, Desk, 1, "ended: ended: B was released"},
        {{"01 00 04 05 06 00 00 00"},
         Desk,
         1,
         "fired: fired with B, armed by ctrl; its keys were swallowed; ended by C, another key"},
        {{"01 00 06 04 00 00 00 00"},
         Desk,
         1,
         "not_in_row: not armed any more: a key that is none of its own stands before its keys in the "
         "report"},
        {{"02 00 04 00 00 00 00 00"}, Desk, 1, "mask: mask not matched: ctrl is missing"},
        {{"01 00 06 00 00 00 00 00"}, Desk, 1, "no_key: not looked at: none of its keys is in the report"},
        {{"00 00 45 00 00 00 00 00", Up, "00 00 1b 00 00 00 00 00"},
         Desk,
         2,
         "fired: fired with X, armed by prefix1"},
        {{"00 00 1b 00 00 00 00 00"}, Desk, 2, "mask: mask not matched: prefix1 is missing"},
        {{"00 00 45 00 00 00 00 00", Up, "02 00 1b 00 00 00 00 00"},
         Desk,
         2,
         "mask: mask not matched: left shift must not be there"},
        {{"06 00 00 00 00 00 00 00"}, Desk, 3, "fired: fired, armed by left shift + left alt"},
        {{"04 00 00 00 00 00 00 00"}, Desk, 3, "mask: mask not matched: left shift is missing"},
        {{"06 00 00 00 00 00 00 00", Up}, Desk, 3, "ended: ended: its keys or modifiers are gone"},
        {{"00 00 3e 00 00 00 00 00"}, Desk, 4, "fired: fired with F5, which asks for no modifier"},
        {{"02 00 3e 00 00 00 00 00"}, Desk, 4, "mask: mask not matched: left shift must not be there"},
        {{"02 00 3e 00 00 00 00 00", Up}, Desk, 4, "released: F5 was released; it was not down"},
        {{Up}, Desk, 0, "no_hotkey: the driver made no hotkey of it"},
        {{"00 00 01 01 01 01 01 01"},
         Desk,
         4,
         "no_report: not looked at: too many keys at once, or a report of another kind"},
        {{"01 02 03 04 05"}, Desk, 4, "no_report: not looked at: the hotkeys know no such report"},
        {{"00 00 3e 00 00 00 00 00"},
         Desk + Simple,
         4,
         "fired: fired, which asks for no modifier; its keys were swallowed"},
        {{"00 00 3e 00 00 00 00 00"},
         "report_processing = false\n" + Desk,
         4,
         "other_mode: not looked at: report processing is off"},
        {{"00 00 3a 00 00 00 00 00"},
         Sale,
         9,
         "took_report: took the report: its keys are told as scan codes"},
        {{"00 00 3a 00 00 00 00 00"}, Sale, 10, "other_mode: not looked at: the report is the sale mode's"},
        {{"00 00 3a 00 00 00 00 00"},
         "[[definition]]\nid = 9\ntype = 11\n",
         9,
         "took_report: took the report: the system sees none of its keys"},
        {{"00 00 3e 00 00 00 00 00"},
         Desk + "KorvexHotkey = \"Scroll Lock\"\nKorvexLEDDisabled = 0\n",
         4,
         "other_mode: not looked at: the report is the macro mode's"},
        {{"00 00 3a 00 00 00 00 00"},
         "[[definition]]\nid = 8\nscans = [0x7F]\n",
         8,
         "refused: the driver refused it: no key has the scan code 7f (status 0xc0000001)"},
        {{"e9 00"}, Volume, 5, "fired: fired with Volume Up, which asks for no modifier", "power"},
        {{"02 20 00 00 00"}, Volume, 5, "fired: fired, which asks for no modifier", "jaalaa"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.pVerdict, ReasonOf(c.reports, c.config, c.ulId, c.pKind))
            << c.reports.back() << " " << c.ulId;
}

// What the driver did with a report and why, line by line, and which reports can be asked for.
TEST_F(Program, TellsWhy)
{
    Write("desk.toml", "[[definition]]\nid = 7\nname = \"help\"\nkeys = [\"ctrl+F1\"]\nswallow = 1\n"
                       "[[definition]]\nid = 9\ntype = 99\n");
    Write("desk.hid", "D: 0\nE: 1.0 8 01 00 00 00 00 00 00 00\nE: 2.0 8 01 00 3a 00 00 00 00 00\n"
                      "E: 3.0 8 01 00 00 00 00 00 00 00\n");
    const std::string ask = "why desk.hid --config desk.toml ";
    RunOutcome json = Run(ask + "--at 1 --json");
    EXPECT_EQ(0, json.iStatus) << json.err;
    for (
        const char* pLine :
        {R"({"type":"why","t_us":1000000,"kbd":0,"report":2,"in":"01003a0000000000","out":"0000000000000000"})",
         R"({"type":"step","report":2,"event":"KeyHeldBack","trace":"KeyHeldBack keyboard=0 key=0x3a","text":"F1 is held back"})",
         R"({"type":"verdict","report":2,"index":0,"id":7,"reason":"fired","text":"fired with F1, armed by ctrl; its keys were swallowed"})",
         R"({"type":"verdict","report":2,"index":null,"id":9,"reason":"no_hotkey","text":"the driver made no hotkey of it"})",
         R"({"type":"event","t_us":1000000,"kbd":0,"id":7,"value":1,"esc_abort":0,"source":0})"})
        EXPECT_NE(std::string::npos, json.out.find(pLine + std::string("\n"))) << pLine << json.out;
    EXPECT_EQ(json.out, Run(ask + "--report 2 --json").out);
    EXPECT_EQ(json.out, Run(ask + "--at 1.9 --json").out); // the last one before
    EXPECT_EQ(std::string::npos, Run(ask + "--report 1").out.find("TakesPart"))
        << "traced before the session";
    const std::string text = Run(ask + "--at 2").out;
    for (const char* pPart :
         {"report 3, 2.000000 s, keyboard 0\n", "  the application    hotkey 7 up\n",
          "    F1 has left the report\n", "7  ctrl+F1 (help)        ended: F1 was released\n"})
        EXPECT_NE(std::string::npos, text.find(pPart)) << pPart << text;
    // The first other key after a hotkey's, at another keyboard, which gets no key back.
    Write("two.hid", "D: 0\nE: 1.0 8 01 00 3a 00 00 00 00 00\nD: 1\nE: 2.0 3 01 ea 00\n");
    const std::string lost = Run("why two.hid --config desk.toml --keyboard normal,power --report 2").out;
    for (const char* pPart :
         {"    Volume Down is held back, as the first key of no hotkey after a hotkey's key, at",
          "    Volume Down is not given back: no keyboard of this kind gets keys back\n"})
        EXPECT_NE(std::string::npos, lost.find(pPart)) << pPart << lost;
    ExpectBadInput(ask + "--report 4", "desk.hid: there is no report 4: it has 3\n");
    for (const char* pBad : {"", "--report 0", "--at nan", "--at 1 --report 1", "--report -1"})
        EXPECT_EQ(2, Run(ask + pBad).iStatus) << pBad;
}
