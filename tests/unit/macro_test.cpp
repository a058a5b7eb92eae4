// macro_test.cpp - the macro mode's closed things: the file's layout, the settings, the mode hotkey in a report,
// the LED update.
#include <gtest/gtest.h>

#include <functional>

#include "machine.h"
#include "urbs.h"
#include "control/control.h"
#include "emu/app/application.h"
#include "hotkeys/hotkeys.h"

namespace
{
constexpr NTSTATUS NoResources = STATUS_INSUFFICIENT_RESOURCES;
constexpr NTSTATUS NotFound = STATUS_OBJECT_NAME_NOT_FOUND;

// The macros in force as text: "3A:2 102:0", key and actions each.
std::string Macros()
{
    std::string text;
    MacroTable* pTable = AcquireMacroTable();
    for (ULONG i = 0; pTable != nullptr && i < MACRO_TABLE_SIZE && pTable->Records[i] != nullptr; i++) {
        char macro[32];
        snprintf(macro, sizeof(macro), "%s%X:%u", i == 0 ? "" : " ", pTable->Records[i]->usKey,
                 pTable->Records[i]->usActionCount);
        text += macro;
    }
    ReleaseMacroTable(pTable);
    return text;
}

FileBytes Dword(ULONG ulValue)
{
    return {static_cast<unsigned char>(ulValue), static_cast<unsigned char>(ulValue >> 8),
            static_cast<unsigned char>(ulValue >> 16), static_cast<unsigned char>(ulValue >> 24)};
}

// UTF-16 text, with its NUL unless told otherwise.
FileBytes Wide(const std::string& text, bool bEnded = true)
{
    FileBytes bytes;
    for (char c : text) {
        AppendWord(bytes, static_cast<unsigned char>(c));
    }
    if (bEnded) {
        AppendWord(bytes, 0);
    }
    return bytes;
}

// A file with so many macros on key 1, without actions.
FileBytes ManyMacros(unsigned uCount)
{
    FileBytes bytes = MacroFileHead();
    for (unsigned u = 0; u < uCount; u++) {
        AppendMacro(bytes, 1, {});
    }
    return bytes;
}

// A file with one macro, then the bytes given.
FileBytes MacroAnd(std::initializer_list<unsigned char> rest)
{
    FileBytes bytes = MacroFileHead();
    AppendMacro(bytes, 0x3A, {{1}});
    bytes.insert(bytes.end(), rest);
    return bytes;
}

FileBytes Sized(FileBytes bytes, size_t size)
{
    bytes.resize(size);
    return bytes;
}

std::string Repeated(const std::string& text, int times)
{
    std::string all;
    for (int i = 0; i < times; i++) {
        all += (i == 0 ? "" : " ") + text;
    }
    return all;
}
} // namespace

TEST_F(MacroTest, FileLayout)
{
    const std::string Kept = "99:1"; // the macros that were there before
    FileBytes before = MacroFileHead();
    AppendMacro(before, 0x99, {{1}});
    FileBytes odd = MacroFileHead(); // 25 bytes of actions, then another record
    AppendWord(odd, 0x3A);
    AppendWord(odd, 25);
    odd.resize(odd.size() + 25, 7);
    AppendMacro(odd, 0x0102, {{2}, {3}, {4}});
    FileBytes largest = MacroFileHead();
    AppendWord(largest, 0x3A);
    AppendWord(largest, 0xFFFF);
    largest.resize(largest.size() + 0xFFFF, 1);
    FileBytes tooMany = ManyMacros(101);
    FileBytes other = MacroFileHead("Korvex Configuration File V1.0.0.1");
    AppendMacro(other, 0x3A, {{1}});
    const size_t MiB = 1024 * 1024;
    struct Case {
        const char* pszName;
        FileBytes Bytes;
        NTSTATUS Status;
        std::string Macros;
    };
    const Case cases[] = {
        {"nothing", {}, Unsuccessful, Kept},
        {"less than a header", Sized(MacroFileHead(), 33), Unsuccessful, Kept},
        {"another version", other, Unsuccessful, Kept},
        {"a header alone", Sized(MacroFileHead(), 34), OK, ""},
        {"50 bytes", MacroFileHead(), OK, ""},
        {"a macro without actions", ManyMacros(1), OK, "1:0"},
        {"25 bytes of actions", odd, OK, "3A:2 102:3"},
        {"the longest macro", largest, OK, "3A:6553"},
        {"half a record header", MacroAnd({0x3B, 0, 10}), OK, "3A:1"},
        {"actions that are cut", MacroAnd({0x3B, 0, 10, 0, 1, 8, 1, 2, 3, 4, 5, 6, 7}), OK, "3A:1"},
        {"filler that is cut", MacroAnd({0x3B, 0, 12, 0, 1, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9}), OK, "3A:1"},
        {"a record behind a cut one", MacroAnd({0x3B, 0, 0xFF, 0xFF, 0x3C, 0, 0, 0}), OK, "3A:1"},
        {"a length byte above 8", MacroAnd({0x3B, 0, 10, 0, 1, 255, 1, 2, 3, 4, 5, 6, 7, 8}), OK,
         "3A:1 3B:1"},
        {"100 macros", ManyMacros(100), OK, Repeated("1:0", 100)},
        {"101 macros", tooMany, NoResources, Repeated("1:0", 100)},
        {"100 macros and a cut one", Sized(tooMany, tooMany.size() - 1), OK, Repeated("1:0", 100)},
        {"1 MiB", Sized(largest, MiB), NoResources, "3A:6553 " + Repeated("0:0", 99)},
        {"more than 1 MiB", Sized(largest, MiB + 1), Unsuccessful, Kept},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.pszName);
        ASSERT_EQ(OK, ReadFile(before));
        EXPECT_EQ(row.Status, ReadFile(row.Bytes));
        EXPECT_EQ(row.Macros, Macros());
    }
}

TEST_F(MacroTest, ReportsOfAFile)
{
    FileBytes bytes = MacroFileHead();
    {
        KeptLog log(LOG_TRAFFIC); // an action's own length is not believed
        EXPECT_EQ(OK, ReadFile(MacroAnd({0x3A, 0, 10, 0, 1, 255, 1, 2, 3, 4, 5, 6, 7, 8})));
        EXPECT_NE(log.Take().find("Record:[00-07]: 01 02 03 04 05 06 07 08 "), std::string::npos);
    }
    AppendMacro(bytes, 0x3A, {{1, 2, 3, 4, 5, 6, 7, 8}, {9, 10, 11, 12, 13, 14, 15, 16}});
    ASSERT_EQ(OK, ReadFile(bytes));
    MacroTable* pTable = AcquireMacroTable();
    ASSERT_NE(nullptr, pTable);
    for (unsigned char uc = 0; uc < 16; uc++) {
        EXPECT_EQ(pTable->Records[0]->Action(uc / 8u)[uc % 8], uc + 1);
    }
    FreeMacroTable(); // a walk that is under way keeps what it reads
    EXPECT_EQ("", Macros());
    EXPECT_EQ(16, pTable->Records[0]->Action(1)[7]);
    ReleaseMacroTable(pTable);
}

TEST_F(MacroTest, AFullTablePlaysItsLastMacro)
{
    EmuPlugOptions options;
    options.Manual = true;
    Plug(options);
    FileBytes bytes = MacroFileHead();
    for (unsigned uKey = 1; uKey <= 101; uKey++) {
        AppendMacro(bytes, uKey, {{static_cast<uint8_t>(uKey)}});
    }
    (void)ReadFile(bytes); // the table is full; what becomes of the last record is told elsewhere
    for (UCHAR ucKey : {101, 100}) {
        UCHAR ucReport[8] = {0, 0, ucKey};
        ULONG ulCount = 0;
        CheckForKorvexHotkey(FilterOf(Keyboard), ucReport, 8);
        EXPECT_EQ(ucReport[2], ucKey == 100 ? 0 : 101);
        EXPECT_EQ(OK, GetFifoCount(Keyboard->Index(), &ulCount));
        EXPECT_EQ(ulCount, ucKey == 100 ? 1u : 0u);
    }
}

// Each call that can fail, in turn: the old macros stay until there are new ones.
TEST_F(MacroTest, FailuresWhileAFileIsRead)
{
    FileBytes before = MacroFileHead();
    AppendMacro(before, 0x99, {{1}});
    FileBytes bytes = MacroFileHead();
    for (unsigned uKey = 1; uKey <= 6; uKey++) { // 134 bytes: 67 of them hold one macro
        AppendMacro(bytes, uKey, {{1}});
    }
    struct Case {
        const char* pszKind;
        unsigned uNth;
        NTSTATUS Status;
        std::string Macros;
    };
    const Case cases[] = {
        {"fileinfo", 1, NoResources, "99:1"}, {"read", 1, NoResources, "99:1"},
        {"pool", 1, NoResources, "99:1"},     {"pool", 2, NoResources, "99:1"},
        {"pool", 3, NoResources, ""},         {"pool", 4, NoResources, "1:1"},
        {"shortread", 1, OK, "1:1"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(std::string(row.pszKind) + " " + std::to_string(row.uNth));
        ASSERT_EQ(OK, ReadFile(before));
        HostFailNth(row.pszKind, row.uNth);
        EXPECT_EQ(row.Status, ReadFile(bytes));
        HostFailNth(nullptr, 0);
        EXPECT_EQ(row.Macros, Macros());
    }
    ASSERT_EQ(OK, ReadFile(before));
    bytes.resize(0x100001); // above 1 MiB
    EXPECT_EQ(ReadFile(bytes), Unsuccessful);
    EXPECT_EQ("99:1", Macros());
}

TEST_F(MacroTest, Settings)
{
    FileBytes file = MacroFileHead();
    AppendMacro(file, 0x3A, {{1}});
    const std::string root = "\\??\\C:\\";
    const std::string fits = root + std::string(93 - root.size(), 'm');
    const std::string tooLong = fits + "m";
    Drive.Write(fits.substr(root.size()), file);
    Drive.Write(tooLong.substr(root.size()), file);
    struct Value {
        ULONG ulType;
        FileBytes Bytes;
    };
    const Value none = {0, {}};
    const Value one = {REG_DWORD, Dword(1)};
    const Value path = {REG_SZ, Wide(fits)};
    struct Case {
        const char* pszName;
        Value Hotkey, LedDisabled, Delay, File;
        NTSTATUS Status;
        ULONG ulHotkey, ulLedDisabled, ulDelay;
        bool bRead; // the macros are the file's
    };
    // Before each: hotkey 5, LED disabled 7, delay 9, no macros.
    const Case cases[] = {
        {"all", one, one, one, path, OK, 1, 1, 1, true},
        {"no hotkey", none, one, one, path, NotFound, 5, 7, 9, false},
        {"a text as hotkey", {REG_SZ, Wide("x")}, one, one, path, OK, 5, 1, 1, true},
        {"three bytes of a hotkey", {REG_DWORD, {1, 2, 3}}, one, one, path, OK, 5, 1, 1, true},
        {"no LED value", one, none, one, path, NotFound, 1, 0, 9, false},
        {"LED value 0x101", one, {REG_DWORD, Dword(0x101)}, one, path, OK, 1, 1, 1, true},
        {"a LED value of 8 bytes", one, {REG_DWORD, FileBytes(8, 3)}, one, path, OK, 1, 7, 1, true},
        {"no delay", one, one, none, path, NotFound, 1, 1, 0, false},
        {"delay 0", one, one, {REG_DWORD, Dword(0)}, path, OK, 1, 1, 1, true},
        {"a delay of another type", one, one, {REG_BINARY, Dword(3)}, path, OK, 1, 1, 9, true},
        {"the longest delay", one, one, {REG_DWORD, Dword(~0u)}, path, OK, 1, 1, ~0u, true},
        {"no file", one, one, one, none, NotFound, 1, 1, 1, false},
        {"a number as file", one, one, one, one, OK, 1, 1, 1, false},
        {"a file that is not there", one, one, one, {REG_SZ, Wide(root + "x")}, OK, 1, 1, 1, false},
        {"94 characters", one, one, one, {REG_SZ, Wide(tooLong)}, NotFound, 1, 1, 1, false},
        {"94 characters without an end", one, one, one, {REG_SZ, Wide(tooLong, false)}, OK, 1, 1, 1, false},
        {"93 characters without an end", one, one, one, {REG_SZ, Wide(fits, false)}, OK, 1, 1, 1, false},
        {"an odd byte behind the end",
         one,
         one,
         one,
         {REG_SZ, Sized(Wide(root + "x"), 21)},
         OK,
         1,
         1,
         1,
         false},
        {"a value beyond 188 bytes",
         {REG_BINARY, FileBytes(189, 1)},
         one,
         one,
         path,
         NotFound,
         5,
         7,
         9,
         false},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.pszName);
        Settings.ulKorvexHotkey = 5;
        Settings.ucKorvexLEDDisabled = 7;
        Settings.ulKorvexDelay = 9;
        FreeMacroTable();
        SetValue("KorvexHotkey", row.Hotkey.ulType, row.Hotkey.Bytes);
        SetValue("KorvexLEDDisabled", row.LedDisabled.ulType, row.LedDisabled.Bytes);
        SetValue("KorvexDelay", row.Delay.ulType, row.Delay.Bytes);
        SetValue("KorvexConfigFile", row.File.ulType, row.File.Bytes);
        EXPECT_EQ(row.Status, ReadKorvexParameters(&Globals.RegistryPathCopy));
        EXPECT_EQ(row.ulHotkey, Settings.ulKorvexHotkey);
        EXPECT_EQ(row.ulLedDisabled, Settings.ucKorvexLEDDisabled);
        EXPECT_EQ(row.ulDelay, Settings.ulKorvexDelay);
        EXPECT_EQ(row.bRead ? "3A:1" : "", Macros());
    }
}

TEST_F(MacroTest, UnreadableValuesAreAbsent)
{
    for (const char* pszName : {"KorvexHotkey", "KorvexLEDDisabled", "KorvexDelay", "KorvexConfigFile"}) {
        SetValue(pszName, REG_DWORD, Dword(1));
    }
    for (unsigned uNth = 1; uNth <= 5; uNth++) {
        HostFailNth("value", uNth);
        EXPECT_EQ(ReadKorvexParameters(&Globals.RegistryPathCopy), uNth <= 4 ? NotFound : OK) << uNth;
    }
    HostFailNth("key", 1);
    EXPECT_EQ(ReadKorvexParameters(&Globals.RegistryPathCopy), NoResources);
    HostFailNth(nullptr, 0);
}

// Which keyboards take part; those of another kind keep what they had, unless the feature is off.
TEST_F(MacroTest, KeyboardsThatTakePart)
{
    EmuKeyboard* pNormal = Machine->Plug(EmuBootKeyboard);
    EmuKeyboard* pPower = Machine->Plug(EmuPowerKeyboard);
    EmuKeyboard* pJaalaa = Machine->Plug(EmuJaalaaKeyboard);
    auto marks = [&] {
        std::string text;
        for (EmuKeyboard* pKeyboard : {pNormal, pPower, pJaalaa}) {
            text += ContextOf(pKeyboard)->ulKeyDefTypes & KEYDEF_MACRO_MODE ? '1' : '0';
        }
        return text;
    };
    SetKorvexKeyboard(FilterOf(pJaalaa), 1);
    const std::pair<ULONG, const char*> cases[] = {
        {0x00010039, "101"}, {0x02010023, "011"}, {0xFFFFFF, "101"},
        {0x1000000, "011"},  {0, "000"},          {0x00010039, "100"},
    };
    for (const auto& [ulHotkey, pszMarks] : cases) {
        SetValue("KorvexHotkey", REG_DWORD, Dword(ulHotkey));
        (void)ReadKorvexParameters(&Globals.RegistryPathCopy); // the other values are absent
        EXPECT_EQ(marks(), pszMarks) << std::hex << ulHotkey;
    }
}

TEST_F(MacroTest, ModeHotkeyInAReport)
{
    struct Case {
        ULONG ulHotkey;
        EmuBytes Report;
        int Found; // -1: refused
        EmuBytes Left;
    };
    const Case cases[] = {
        {0, {0, 0, 0x39, 0, 0, 0, 0, 0}, -1, {0, 0, 0x39, 0, 0, 0, 0, 0}},
        {0x00010039, {}, -1, {}},
        {0x00010039, {0, 0, 4, 0x39, 0, 0, 0, 0}, 1, {0, 0, 4, 0, 0, 0, 0, 0}},
        {0x00010039, {0, 0, 0x39, 4, 5, 0, 9, 9}, 1, {0, 0, 4, 5, 0, 0, 9, 9}}, // up to the first 0
        {0x00010039, {1, 0, 4, 5, 6, 7, 8, 0x39}, 1, {1, 0, 4, 5, 6, 7, 8, 0}},
        {0x00010039, {1, 0, 0x39, 5, 6, 7, 8, 9}, 1, {1, 0, 5, 6, 7, 8, 9, 0}},
        {0x00010039, {0x39, 0x39, 0, 0, 0, 0, 0, 0}, 0, {0x39, 0x39, 0, 0, 0, 0, 0, 0}},
        {0x00010039, {0, 0x39, 0}, 0, {0, 0x39, 0}},
        {0x00010039, {0, 0, 0x39, 0, 0, 0, 0}, 0, {0, 0, 0x39, 0, 0, 0, 0}},
        {0x00010039, {0, 0, 0, 0, 0, 0, 0, 0, 0x39}, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0x39}},
        // two bytes: one of them is removed
        {0x00020504, {0, 0, 9, 4, 5, 6, 0, 0}, 1, {0, 0, 9, 5, 6, 0, 0, 0}},
        {0x00020504, {0, 0, 9, 9, 9, 9, 4, 5}, 1, {0, 0, 9, 9, 9, 9, 0, 5}},
        {0x00020504, {0, 0, 9, 9, 9, 9, 9, 4}, 0, {0, 0, 9, 9, 9, 9, 9, 4}},
        // no bytes: found at once, and nothing behind the report is touched
        {0x00000039, {1, 2, 3, 4, 5, 6, 7, 8}, 1, {1, 2, 4, 5, 6, 7, 8, 0}},
        {0x01000039, {1, 2, 3}, 1, {1, 0, 0}},
        {0x02000039, {1, 2}, 1, {1, 0}},
        // more bytes than there are
        {0x00030039, {0, 0, 0x39, 0, 3, 0, 0, 0}, 0, {0, 0, 0x39, 0, 3, 0, 0, 0}},
        {0x00FF0039, {0, 0, 0x39, 0, 0, 0, 0, 0}, 0, {0, 0, 0x39, 0, 0, 0, 0, 0}},
        {0x02030023, {0x23, 0}, 0, {0x23, 0}},
        // the other interface
        {0x01010023, {3, 0x23, 7}, 1, {3, 0, 0}},
        {0x01020123, {3, 0x23, 1}, 1, {3, 0, 0}},
        {0x01010023, {0x23, 3, 7}, 0, {0x23, 3, 7}},
        {0x01010023, {3, 0x23}, 0, {3, 0x23}},
        {0x02010023, {0x23, 2}, 1, {0x23, 0}},
        {0x02020223, {0x23, 2}, 1, {0x23, 0}},
        {0x02010023, {2, 0x23}, 0, {2, 0x23}},
        {0x02010023, {0x23, 2, 0}, 0, {0x23, 2, 0}},
        {0x03010039, {0, 0, 0x39, 0, 0, 0, 0, 0}, 0, {0, 0, 0x39, 0, 0, 0, 0, 0}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(testing::Message()
                     << std::hex << row.ulHotkey << " " << testing::PrintToString(row.Report));
        Settings.ulKorvexHotkey = row.ulHotkey;
        EmuBytes report(row.Report.begin(), row.Report.end()); // exactly so long: nothing lies behind it
        report.shrink_to_fit();
        const ULONG ulLen = static_cast<ULONG>(report.size());
        UCHAR ucFound = 0;
        EXPECT_EQ(row.Found < 0 ? Unsuccessful : OK,
                  CheckForKorvexModeSwitch(nullptr, ulLen, report.data(), &ucFound));
        EXPECT_EQ(row.Found > 0 ? 1 : 0, ucFound);
        EXPECT_EQ(row.Found < 0 ? Unsuccessful : OK,
                  RemoveKorvexHotkeyFromPacket(nullptr, ulLen, report.data()));
        EXPECT_EQ(row.Left, report);
    }
    Settings.ulKorvexHotkey = 0x00010039;
    UCHAR ucReport[8] = {0, 0, 0x39};
    EXPECT_EQ(OK, CheckForKorvexModeSwitch(nullptr, 8, ucReport, nullptr));
    EXPECT_EQ(CheckForKorvexModeSwitch(nullptr, 8, nullptr, nullptr), Unsuccessful);
    Settings.ulKorvexHotkey = 0;
}

// A switch as the report road makes it.
static void Switch(UCHAR ucMode)
{
    Globals.ucKorvexMode = ucMode;
    EXPECT_EQ(OK, SetKorvexLed(ucMode));
}

// The LED follows switches that come faster than the work item runs.
TEST_F(MacroTest, LedUpdatesInARow)
{
    EmuBytes leds;
    EmuPlugOptions options;
    options.OnLed = [&](const EmuBytes& report) { leds.push_back(report.at(0)); };
    Plug(options);
    auto switchModes = [](std::initializer_list<UCHAR> modes) {
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        for (UCHAR ucMode : modes) {
            Switch(ucMode);
        }
        KeLowerIrql(irql);
        HostSettle();
    };
    switchModes({1});
    EXPECT_EQ((EmuBytes{4}), leds);
    switchModes({0, 1, 0});
    EXPECT_EQ((EmuBytes{4, 0}), leds);
    switchModes({0, 1});
    EXPECT_EQ((EmuBytes{4, 0, 4}), leds);
    HostFailNth("workitem", 1);
    switchModes({0});
    HostFailNth(nullptr, 0);
    EXPECT_EQ(3u, leds.size()); // this update is left out, and the next one comes
    switchModes({0});
    EXPECT_EQ(0, leds.back());
    Settings.ucKorvexLEDDisabled = 1;
    switchModes({1});
    Switch(1);
    EXPECT_EQ(4u, leds.size());
}

// A switch at PASSIVE_LEVEL is shown at once, and an update that was queued before it does not undo it; nor does
// one of two threads that were both on their way.
TEST_F(MacroTest, TheNewestModeShowsInTheEnd)
{
    EmuBytes leds;
    EmuPlugOptions options;
    options.OnLed = [&](const EmuBytes& report) { leds.push_back(report.at(0)); };
    Plug(options);
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    Switch(1);
    KeLowerIrql(irql);
    Switch(0);
    EXPECT_EQ((EmuBytes{0}), leds);
    HostSettle();
    EXPECT_EQ(0, leds.back());
    EXPECT_EQ(OK, SetKorvexLed(1)); // whoever switched it on was overtaken
    EXPECT_EQ(0, leds.back());
    EXPECT_EQ(0, Context()->usLedFlags);
}
