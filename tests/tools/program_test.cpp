// program_test.cpp - the program itself: exit statuses, what goes to which stream, files written or left alone.
#include "program.h"

namespace
{

const std::string GoodMacro = "[[macro]]\nkey = \"F1\"\nplay = [\"ctrl+c\"]\n";
const std::string HeldMacro = "\n[[macro]]\nkey = \"F2\"\nplay = [{ report = \"0000040000000000\" }]\n";

} // namespace

TEST_F(Program, CompilesShowsAndChecksMacros)
{
    Write("good.toml", GoodMacro);
    Write("held.toml", GoodMacro + HeldMacro);
    RunOutcome compiled = Run("macro compile good.toml good.bin");
    EXPECT_EQ(0, compiled.iStatus);
    EXPECT_EQ("", compiled.out + compiled.err);
    EXPECT_EQ("# good.bin: 1 macro.\n\n" + GoodMacro, Run("macro show good.bin").out);
    RunOutcome checked = Run("macro check good.bin");
    EXPECT_EQ(0, checked.iStatus);
    EXPECT_EQ("good.bin: 1 macro, nothing to warn of\n", checked.out);

    compiled = Run("macro compile held.toml good.bin"); // over the old one, with a warning
    EXPECT_EQ(0, compiled.iStatus);
    EXPECT_EQ("held.toml:5: warning: macro 2 (F2): its last report leaves a down\n", compiled.err);
    checked = Run("macro check good.bin");
    EXPECT_EQ(1, checked.iStatus);
    EXPECT_EQ("good.bin: byte 74: warning: macro 2 (F2): its last report leaves a down\n", checked.out);
    checked = Run("macro check held.toml");
    EXPECT_EQ(1, checked.iStatus);
    EXPECT_EQ("held.toml:5: warning: macro 2 (F2): its last report leaves a down\n", checked.out);
    EXPECT_EQ(3u, FilesThere());
}

TEST_F(Program, LeavesNoHalfFiles)
{
    Write("good.toml", GoodMacro);
    Write("bad.toml", GoodMacro + "play = 1\n");
    Write("old.bin", "as it was");
    ExpectBadInput("macro compile bad.toml old.bin", "bad.toml:4: ");
    ExpectBadInput("macro compile bad.toml new.bin", "bad.toml:4: ");
    Write("worse.toml", GoodMacro + "\n[[macro]]\nplay = [\"ctr+c\", \"F99\"]\nmark = 1\n");
    RunOutcome all = Run("macro compile worse.toml new.bin"); // all mistakes, each with its line
    EXPECT_EQ(2, all.iStatus);
    EXPECT_EQ(3, std::count(all.err.begin(), all.err.end(), '\n')) << all.err;
    std::filesystem::remove(Path("worse.toml"));
    ExpectBadInput("macro compile none.toml new.bin", "none.toml:1: cannot be read");
    EXPECT_EQ("as it was", ContentOf(Path("old.bin")));
    EXPECT_EQ(3u, FilesThere());

    ExpectBadInput("macro compile good.toml none/new.bin", "none/new.bin: cannot be written");
    ExpectBadInput("macro compile good.toml .", ".: cannot be written");
    EXPECT_EQ(3u, FilesThere());

    std::filesystem::create_symlink("old.bin", Path("link.bin"));
    EXPECT_EQ(0, Run("macro compile good.toml link.bin").iStatus);
    EXPECT_TRUE(std::filesystem::is_symlink(Path("link.bin")));
    EXPECT_EQ(50u + 24, ContentOf(Path("old.bin")).size());
    EXPECT_EQ(50u + 24, Run("macro compile good.toml /dev/stdout").out.size());
}

TEST_F(Program, SaysWhatIsWrongWithAnInput)
{
    Write("other.bin", "something else");
    Write("bad.toml", "[settings]\nPrefix1 = -1\nPrefix3 = 1\n");
    Write("warn.toml", "[[definition]]\nid = 0\nkeys = [\"F1\"]\n");
    Write("bad.hid", "E: 0.0 8 00 00\n");
    ExpectBadInput("macro show other.bin", "other.bin: byte 0: ");
    ExpectBadInput("macro check other.bin", "other.bin: byte 0: ");
    ExpectBadInput("replay bad.hid", "bad.hid:1: ");
    ExpectBadInput("replay other.bin", "other.bin:1: ");
    ExpectBadInput("replay bad.hid --config bad.toml", "bad.hid:1: ");
    EXPECT_EQ(2, Run("replay bad.hid --keyboard typewriter").iStatus);
    EXPECT_EQ(2, Run("replay bad.hid --keyboard normal,typewriter").iStatus);
    EXPECT_EQ(2, Run("macro").iStatus);
    EXPECT_EQ(2, Run("").iStatus);

    RunOutcome checked = Run("check bad.toml"); // all mistakes, each with its line
    EXPECT_EQ(2, checked.iStatus);
    EXPECT_EQ("bad.toml:2: Prefix1 is a number from 0 to 0xFFFFFFFF, not -1\n"
              "bad.toml:3: unknown key 'Prefix3' in [settings] (did you mean 'Prefix1'?)\n",
              checked.err);
    checked = Run("check warn.toml");
    EXPECT_EQ(1, checked.iStatus);
    EXPECT_EQ("warn.toml:1: warning: definition 0: it never fires: the driver makes no hotkey of id 0\n",
              checked.out);
}

TEST_F(Program, NamesTheNearestOfWrongNames)
{
    const std::pair<const char*, const char*> cases[] = {
        {"rplay", "there is no verb 'rplay' (did you mean 'replay'?); tvusb --help lists them"},
        {"macro shwo x", "there is no verb 'shwo' (did you mean 'show'?); tvusb macro --help lists them"},
        {"replay --jsn x",
         "there is no option --jsn (did you mean '--json'?); tvusb replay --help lists them"},
        {"replay --config c.toml --keybord=power x",
         "there is no option --keybord (did you mean '--keyboard'?)"},
        {"--verison", "there is no option --verison (did you mean '--version'?); tvusb --help lists them"},
        {"", "a verb is missing; tvusb --help lists them"},
        {"macro", "a verb is missing; tvusb macro --help lists them"},
        {"replay", "INPUT is required"},
        {"replay a --from 9 --to 8.5", "--from 9 is behind --to 8.5"},
        {"replay a b", "The following argument was not expected: b"},
    };
    for (const auto& [pArguments, pSaid] : cases)
        ExpectBadInput(pArguments, pSaid);
    RunOutcome version = Run("--version");
    EXPECT_EQ(0, version.iStatus);
    EXPECT_TRUE(isdigit(static_cast<unsigned char>(version.out[0]))) << version.out;
}

// Made from the same declarations as --help: every verb and option of it is there, and the shell finds them.
TEST_F(Program, MakesItsPageAndItsCompletion)
{
    const std::string page = Run("--man").out;
    for (const char* pPart : {".TH tvusb 1", ".SH tvusb macro compile\n",
                              "\\-\\-keyboard normal|power|consumer|jaalaa|chic|other"})
        EXPECT_NE(page.npos, page.find(pPart)) << pPart << "\n" << page;
    const std::pair<const char*, const char*> cases[] = {
        {"tvusb ma", "macro"},
        {"tvusb macro co", "compile"},
        {"tvusb replay --js", "--json"},
        {"tvusb check --keyboard j", "jaalaa"},
        {"tvusb replay --json --conf", "--config"},
    };
    for (const auto& [pLine, pWord] : cases) {
        Write("complete.sh", Run("--completion").out + "COMP_WORDS=(" + pLine +
                                 "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                                 "_tvusb; printf '%s\\n' \"${COMPREPLY[@]}\"\n");
        RunOutcome said = Run("--version >/dev/null; bash complete.sh");
        EXPECT_EQ(pWord + std::string("\n"), said.out) << pLine << said.err;
    }
}

TEST_F(Program, ListsKeys)
{
    RunOutcome all = Run("keys");
    EXPECT_EQ(0, all.iStatus);
    EXPECT_NE(
        std::string::npos,
        all.out.find(
            "Sleep                 media     0x202  E0 5F        0x01020000  0x02040000  System Sleep\n"));
    EXPECT_NE(std::string::npos, all.out.find("Pause                 keyboard  0x048  E1 1D 45 "));
    RunOutcome some = Run("keys 'VOLUME up'");
    EXPECT_EQ(3, std::count(some.out.begin(), some.out.end(), '\n')) << some.out;
    EXPECT_EQ(1, Run("keys xyzzy").iStatus);
}

TEST_F(Program, GivesEachKeyboardOfARecordingItsKind)
{
    Write("two.hid", "D: 0\nE: 0.1 8 00 00 04 00 00 00 00 00\nD: 1\nE: 0.2 2 23 02\nD: 2\nE: 0.3 2 23 02\n");
    RunOutcome outcome = Run("replay --json --keyboard normal,power two.hid");
    EXPECT_EQ(0, outcome.iStatus) << outcome.err;
    for (const char* pPart :
         {R"("index":0,"kbdtype":1,)", R"("index":1,"kbdtype":2,)", R"("index":2,"kbdtype":2,)"})
        EXPECT_NE(std::string::npos, outcome.out.find(pPart)) << outcome.out;
}

// The options that leave out: what is printed of two keyboards, of which one has a hotkey, and of a broken line.
TEST_F(Program, ReplaysAPartOfItsInput)
{
    Write("f1.toml", "[[definition]]\nid = 3\nkeys = [\"F1\"]\nswallow = 1\n");
    const std::string two = "D: 0\nN: Old Desk\nI: 3 0627 0001\nE: 0.0 8 00 00 04 00 00 00 00 00\n"
                            "E: 1.0 8 00 00 3a 00 00 00 00 00\n"
                            "D: 1\nN: Till\nI: 3 04d9 00a2\nE: 1.5 8 00 00 05 00 00 00 00 00\n"
                            "D: 0\nE: 2.0 8 00 00 00 00 00 00 00 00\n";
    Write("two.hid", two);
    Write("cut.hid", two + "E: 2.5 8 00\n");
    const struct {
        const char *pOptions, *pReports; // kbd@t_us
        int iStatus;
    } cases[] = {
        {"two.hid", "0@0 0@1000000 1@1500000 0@2000000 ", 0},
        {"two.hid --changed", "0@1000000 0@2000000 ", 0},
        {"two.hid --from 1", "0@1000000 1@1500000 0@2000000 ", 0},
        {"two.hid --from 1.2 --to 1.5", "1@1500000 ", 0},
        {"two.hid --to 0", "0@0 ", 0},
        {"two.hid --from nan", "", 2},
        {"two.hid --to -1", "", 2},
        {"two.hid --device 04D9:00a2", "0@1500000 ", 0},
        {"two.hid --device desk --to 1", "0@0 0@1000000 ", 0},
        {"two.hid --device till --device 0627:0001 --from 1.5", "1@1500000 0@2000000 ", 0},
        {"two.hid --device 04d9:00a3", "", 2},
        {"cut.hid", "", 2},
        {"cut.hid --partial", "0@0 0@1000000 1@1500000 0@2000000 ", 2},
    };
    for (const auto& c : cases) {
        RunOutcome outcome = Run("replay --json --config f1.toml " + std::string(c.pOptions));
        EXPECT_EQ(c.iStatus, outcome.iStatus) << c.pOptions << "\n" << outcome.err;
        EXPECT_EQ(c.iStatus ? 1 : 0, std::count(outcome.err.begin(), outcome.err.end(), '\n')) << outcome.err;
        std::istringstream lines(outcome.out);
        std::string reports;
        for (std::string line; std::getline(lines, line);) {
            unsigned uTime, uKeyboard;
            if (sscanf(line.c_str(), R"({"type":"report","t_us":%u,"kbd":%u)", &uTime, &uKeyboard) == 2)
                reports += std::to_string(uKeyboard) + "@" + std::to_string(uTime) + " ";
        }
        EXPECT_EQ(c.pReports, reports) << c.pOptions << "\n" << outcome.out;
    }
}

// The shipped samples: their configurations are clean, and a replay shows what they promise.
TEST_F(Program, PlaysTheSamples)
{
    const std::string samples = SAMPLE_FOLDER "/";
    for (const char* pName : {"hotkeys.toml", "macromode.toml", "cashier.toml"})
        EXPECT_EQ(0, Run("check " + samples + pName).iStatus) << pName;
    EXPECT_EQ(0, Run("macro check " + samples + "macros.toml").iStatus);

    RunOutcome macro =
        Run("replay --json " + samples + "macromode.hid --config " + samples + "macromode.toml");
    EXPECT_EQ(0, macro.iStatus);
    for (const char* pLine :
         {R"({"type":"macro","t_us":0,"record":1,"mode":1,"report":""})",
          R"({"type":"led","t_us":0,"kbd":0,"report":4,"flags":1})",
          R"({"type":"report","t_us":1000000,"kbd":0,"in":"00003a0000000000","out":"0000000000000000"})",
          R"({"type":"report","t_us":1000000,"kbd":0,"in":null,"out":"02000b0000000000"})",
          R"({"type":"report","t_us":1240000,"kbd":0,"in":null,"out":"0000280000000000"})",
          R"({"type":"macro","t_us":2000000,"record":1,"mode":0,"report":""})",
          R"({"type":"led","t_us":2000000,"kbd":0,"report":0,"flags":0})",
          R"({"type":"report","t_us":3000000,"kbd":0,"in":"00003a0000000000","out":"00003a0000000000"})"})
        EXPECT_NE(std::string::npos, macro.out.find(pLine)) << pLine << "\n" << macro.out;
    EXPECT_EQ(14, [&] {
        int iCount = 0;
        for (size_t cAt = 0; (cAt = macro.out.find("\"in\":null", cAt)) != std::string::npos; ++cAt)
            ++iCount;
        return iCount;
    }());

    RunOutcome till = Run("replay --json " + samples + "cashier.hid --config " + samples + "cashier.toml");
    EXPECT_EQ(0, till.iStatus);
    std::string scans; // the application's, in order
    for (size_t cAt = 0; (cAt = till.out.find("\"value\":", cAt)) != std::string::npos; ++cAt) {
        char text[8];
        snprintf(text, sizeof(text), "%02x ", atoi(till.out.c_str() + cAt + 8));
        scans += text;
    }
    EXPECT_EQ(0u, scans.find("50 d0 37 b7 e0 1c e0 9c e0 50 e0 50 ")) << scans; // the arrow repeats
    EXPECT_EQ(scans.size() - 6, scans.rfind("e0 d0 ")) << scans;
    EXPECT_EQ(std::string::npos, till.out.find(R"("out":"00005)"));
}
