// output_test.cpp - the printed lines: JSON to the letter, the table's way of putting things side by side.
#include "tools/common/text.h"
#include "tools/replay/keys.h"
#include "tools/replay/output.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

// What a printer prints for the calls that act() makes.
template <typename Act> std::string Printed(std::unique_ptr<ReplayPrinter> (*make)(FILE*), Act act)
{
    char* pText = nullptr;
    size_t cText = 0;
    FILE* pOut = open_memstream(&pText, &cText);
    {
        std::unique_ptr<ReplayPrinter> printer = make(pOut);
        act(*printer);
    }
    fclose(pOut);
    std::string text(pText, cText);
    free(pText);
    return text;
}

std::unique_ptr<ReplayPrinter> PlainTable(FILE* pOut)
{
    return MakeTablePrinter(pOut, {});
}

std::unique_ptr<ReplayPrinter> ColourTable(FILE* pOut)
{
    return MakeTablePrinter(pOut, {true});
}

const Bytes CtrlF1 = {1, 0, 0x3A, 0, 0, 0, 0, 0};
const Bytes Empty(8);

NotifyRecord Event(uint32_t ulId, uint32_t ulValue, uint32_t ulEscAbort = 0)
{
    NotifyRecord record{};
    record.ulId = ulId;
    record.ulValue = ulValue;
    record.ulEscAbort = ulEscAbort;
    return record;
}

} // namespace

TEST(Json, PrintsEachThingToTheLetter)
{
    std::string text = Printed(MakeJsonPrinter, [](ReplayPrinter& printer) {
        ScriptKeyboard keyboard;
        keyboard.usVendor = 1575;
        keyboard.usProduct = 1;
        keyboard.name = "A \"b\\\" \t\xC3\xA9";
        printer.Keyboard(0, 0, 0, 1, keyboard);
        printer.Definition(0, 0, 7, 0, "");
        printer.Definition(1, 1, 4294967295u, 0xC0000001, "why");
        printer.Report(12030927, 0, CtrlF1, Empty);
        printer.Report(12030928, 0, std::nullopt, {1, 0xAB});
        printer.Event(12030927, 0, Event(7, 1));
        NotifyRecord key = Event(9, 0x1C, 0);
        key.ucSource = NOTIFY_SOURCE_REPORT;
        printer.Event(12030929, 0, key);
        MacroRecord mode{MACRO_RECORD_MODE, 0, 1, 0, {}};
        MacroRecord captured{MACRO_RECORD_REPORT, 0, 0, 3, {1, 2, 3, 4}};
        printer.Macro(5, mode);
        printer.Macro(6, captured);
        printer.Led(7, 0, 4);
        printer.Led(8, 0, 3);
        printer.Note(8, 1, "look");
        printer.End(9, {1, 229, 6, 0});
    });
    EXPECT_EQ(
        "{\"type\":\"keyboard\",\"t_us\":0,\"kbd\":0,\"index\":0,\"kbdtype\":1,\"vendor\":1575,\"product\":1,"
        "\"name\":\"A \\\"b\\\\\\\" \\u0009\xC3\xA9\"}\n"
        "{\"type\":\"definition\",\"t_us\":0,\"kbd\":0,\"id\":7,\"status\":\"0x00000000\"}\n"
        "{\"type\":\"definition\",\"t_us\":1,\"kbd\":1,\"id\":4294967295,\"status\":\"0xc0000001\"}\n"
        "{\"type\":\"report\",\"t_us\":12030927,\"kbd\":0,\"in\":\"01003a0000000000\","
        "\"out\":\"0000000000000000\"}\n"
        "{\"type\":\"report\",\"t_us\":12030928,\"kbd\":0,\"in\":null,\"out\":\"01ab\"}\n"
        "{\"type\":\"event\",\"t_us\":12030927,\"kbd\":0,\"id\":7,\"value\":1,\"esc_abort\":0,\"source\":0}\n"
        "{\"type\":\"event\",\"t_us\":12030929,\"kbd\":0,\"id\":9,\"value\":28,\"esc_abort\":0,\"source\":96}"
        "\n"
        "{\"type\":\"macro\",\"t_us\":5,\"record\":1,\"mode\":1,\"report\":\"\"}\n"
        "{\"type\":\"macro\",\"t_us\":6,\"record\":2,\"mode\":0,\"report\":\"010203\"}\n"
        "{\"type\":\"led\",\"t_us\":7,\"kbd\":0,\"report\":4,\"flags\":1}\n"
        "{\"type\":\"led\",\"t_us\":8,\"kbd\":0,\"report\":3,\"flags\":6}\n"
        "{\"type\":\"note\",\"t_us\":8,\"kbd\":1,\"text\":\"look\"}\n"
        "{\"type\":\"end\",\"t_us\":9,\"keyboards\":1,\"reports\":229,\"events\":6,\"leaks\":0}\n",
        text);
}

TEST(Table, PutsEventsBesideTheirReport)
{
    std::string text = Printed(PlainTable, [](ReplayPrinter& printer) {
        printer.Report(14301076, 0, CtrlF1, Empty);
        printer.Event(14301076, 0, Event(7, 1));
        printer.Event(14301076, 0, Event(8, 0, 1));
        printer.Report(14301080, 0, std::nullopt, {0, 0, 1, 1, 1, 1, 1, 1});
        printer.Event(14301090, 0, Event(9, 1)); // a timer's
        printer.Report(14301091, 1, Bytes{5, 0x29, 0}, {5, 0, 0});
        printer.End(16301091, {2, 3, 3, 0});
    });
    std::vector<std::string> lines;
    for (size_t cAt = 0, cEnd; (cEnd = text.find('\n', cAt)) != text.npos; cAt = cEnd + 1)
        lines.push_back(text.substr(cAt, cEnd - cAt));
    ASSERT_EQ(8u, lines.size()) << text;
    EXPECT_EQ("", lines[0]);
    EXPECT_EQ("  14.301076    0  01 00 3a 00 00 00 00 00  LCtrl+F1        →  00 00 00 00 00 00 00 00"
              "                   hotkey 7 down  hotkey 8 up (Esc)",
              lines[2]);
    EXPECT_EQ("  14.301080    0  (answered by the driver)                 →  00 00 01 01 01 01 01 01  "
              "(overrun)",
              lines[3]);
    EXPECT_EQ("  14.301090    0  hotkey 9 down", lines[4]);
    EXPECT_EQ("  14.301091    1  05 29 00  Esc                            →  05 00 00", lines[5]);
    EXPECT_EQ("  16.301091  2 keyboards, 3 reports, 3 events; left behind by the driver: nothing", lines[7]);
    EXPECT_EQ(text.npos, text.find('\x1b')) << "colours only on a terminal";
}

TEST(Table, NamesTheKeysOfEveryKind)
{
    struct {
        unsigned uType;
        Bytes report;
        const char* pKeys;
    } cases[] = {
        {1, {0x81, 0, 0x3A, 0x04, 0, 0, 0, 0}, "LCtrl+RWin+F1+A"},
        {1, {1, 1, 1, 1, 1, 1, 1, 1}, "(overrun)"},
        {1, {9, 0x3A, 0}, "F1"},
        {1, {9, 0x3A}, ""},
        {2, {1, 0xE9, 0}, "Volume Up"},
        {2, {0x23, 0x02}, "WWW Home"},
        {2, {0, 0}, ""},
        {3, {2, 0x21, 0, 0, 0x01}, "Next Track+Volume Up"}, // the last bit is no key's
        {3, {2, 0x01}, "Next Track"},
        {3, {1, 0x06}, "Sleep+Wake Up"},
        {3, {3, 0x01, 0, 0, 0}, ""},
        {4, {3, 0x80, 0, 0x04}, "Volume Up+WWW Home"},
        {4, {2, 0x04}, "Sleep"},
        {4, {2}, ""},
        {0, {}, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.pKeys, KeysOfReport(c.report, c.uType)) << c.uType << " " << HexOf(c.report, " ");
}

TEST(Table, TellsTheScanCodesOfOneMomentTogether)
{
    std::string text = Printed(PlainTable, [](ReplayPrinter& printer) {
        auto scan = [&](uint64_t ullUs, uint32_t ulId, uint32_t ulByte, uint8_t ucSource) {
            NotifyRecord record = Event(ulId, ulByte);
            record.ucSource = ucSource;
            printer.Event(ullUs, 0, record);
        };
        printer.Report(5, 0, CtrlF1, Empty);
        scan(5, 9, 0xE0, NOTIFY_SOURCE_REPORT);
        scan(5, 9, 0x50, NOTIFY_SOURCE_REPORT);
        printer.Led(5, 0, 0);
        scan(5, 9, 0x1C, NOTIFY_SOURCE_REPORT);
        scan(5, 8, 0x01, NOTIFY_SOURCE_REPORT);
        scan(7, 9, 0xE0, NOTIFY_SOURCE_HOTKEY); // repeated by the timer
        scan(7, 9, 0x50, NOTIFY_SOURCE_HOTKEY);
        printer.End(9, {});
    });
    EXPECT_NE(text.npos, text.find("scan e0 50 of definition 9  LEDs: none  scan 1c of definition 9  "
                                   "scan 01 of definition 8\n"
                                   "   0.000007    0  scan e0 50 of definition 9\n"))
        << text;
}

TEST(Table, ColoursWhatTheDriverChanged)
{
    std::string changed = Printed(ColourTable, [](ReplayPrinter& printer) {
        printer.Report(0, 0, CtrlF1, Empty);
        printer.End(0, {});
    });
    std::string same = Printed(ColourTable, [](ReplayPrinter& printer) {
        printer.Report(0, 0, CtrlF1, CtrlF1);
        printer.End(0, {});
    });
    EXPECT_NE(changed.npos, changed.find("\x1b[33m→")) << changed;
    EXPECT_EQ(same.npos, same.find("\x1b[33m")) << same;
}

// Below 100 columns the parts of a line stand below each other, and the arrow is one that the locale has.
TEST(Table, FitsANarrowTerminal)
{
    auto narrow = [](FILE* pOut) { return MakeTablePrinter(pOut, {false, false, 80}); };
    std::string text = Printed(narrow, [](ReplayPrinter& printer) {
        printer.Report(14301076, 0, CtrlF1, Empty);
        printer.Event(14301076, 0, Event(7, 1));
        printer.End(0, {});
    });
    EXPECT_EQ(0u, text.find("  14.301076    0  01 00 3a 00 00 00 00 00  LCtrl+F1\n"
                            "                  ->  00 00 00 00 00 00 00 00"))
        << text;
    EXPECT_NE(text.npos, text.find("\n                  hotkey 7 down\n")) << text;
}

TEST(Terminal, FollowsItsEnvironment)
{
    const int iTerminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_TRUE(iTerminal >= 0 && grantpt(iTerminal) == 0 && unlockpt(iTerminal) == 0);
    FILE* pTerminal = fopen(ptsname(iTerminal), "w");
    ASSERT_TRUE(pTerminal);
    const winsize size{24, 72, 0, 0};
    ioctl(fileno(pTerminal), TIOCSWINSZ, &size);
    FILE* pFile = tmpfile();
    const struct {
        const char *pTerm, *pNoColor, *pLocale, *pColumns;
        bool bTerminal;
        const char* pIs;
    } cases[] = {
        {"xterm", nullptr, "C.UTF-8", nullptr, true, "colour UTF-8 72"},
        {"xterm", "", "C.UTF-8", "120", true, "colour UTF-8 120"},
        {"xterm", "1", "C", nullptr, true, "72"},
        {"dumb", nullptr, "C.UTF-8", "none", true, "UTF-8 72"},
        {"xterm", nullptr, "C.UTF-8", nullptr, false, "UTF-8 wide"},
    };
    for (const auto& c : cases) {
        const std::pair<const char*, const char*> variables[] = {
            {"TERM", c.pTerm}, {"NO_COLOR", c.pNoColor}, {"LC_ALL", c.pLocale}, {"COLUMNS", c.pColumns}};
        for (const auto& [pName, pText] : variables)
            pText ? setenv(pName, pText, 1) : unsetenv(pName);
        const Terminal is = TerminalOf(c.bTerminal ? pTerminal : pFile);
        EXPECT_EQ(c.pIs, std::string(is.bColour ? "colour " : "") + (is.bUtf8 ? "UTF-8 " : "") +
                             (is.uColumns >= 200 ? "wide" : std::to_string(is.uColumns)));
    }
    for (const char* pName : {"TERM", "NO_COLOR", "LC_ALL", "COLUMNS"})
        unsetenv(pName);
    fclose(pFile);
    fclose(pTerminal);
    close(iTerminal);
}

TEST(Table, KeepsADevicesNameFromDrivingTheTerminal)
{
    std::string text = Printed(PlainTable, [](ReplayPrinter& printer) {
        ScriptKeyboard keyboard;
        keyboard.name = "evil\x1b[2J";
        printer.Keyboard(0, 0, 0, 1, keyboard);
        printer.Definition(0, 0, 7, 0xC0000001, "no key has it");
    });
    EXPECT_EQ("   0.000000    0  keyboard 0000:0000 evil?[2J, normal (device 0)\n"
              "   0.000000    0  definition 7 refused: no key has it (status 0xc0000001)\n",
              text);
}
