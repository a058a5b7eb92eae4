// trace_macro_test.cpp - what the macro mode traces, each in its situation.
#include "machine.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "trace_decoder.h"

namespace
{
using Lines = std::vector<std::string>;

class TraceMacroTest : public MacroTest
{
protected:
    void SetUp() override
    {
        MacroTest::SetUp();
        Plug({});
        Listener.Begin(0, TRACE_MACRO);
    }
    static FileBytes Number(UCHAR ucLow, UCHAR ucHigh = 0)
    {
        return {ucLow, 0, static_cast<UCHAR>(ucHigh ? 1 : 0), ucHigh};
    }
    void SetPath(const std::string& path)
    {
        FileBytes bytes;
        for (const char c : path + '\0') {
            AppendWord(bytes, static_cast<UCHAR>(c));
        }
        SetValue("KorvexConfigFile", REG_SZ, bytes);
    }
    TraceListener Listener;
};

TEST_F(TraceMacroTest, SettingsAndFile)
{
    const std::string path = "MacroSettings registryPath=\\Registry\\Machine\\System\\CurrentControlSet\\"
                             "Services\\Tv64USB";
    SetValue("KorvexHotkey", REG_DWORD, {0x47, 0, 1, 0});
    SetValue("KorvexLEDDisabled", REG_DWORD, Number(0));
    SetValue("KorvexDelay", REG_DWORD, Number(9));
    SetPath("\\??\\C:\\none");
    EXPECT_EQ(OK, ReadKorvexParameters(&Globals.RegistryPathCopy));
    EXPECT_EQ((Lines{path, "TakesPart keyboard=0 on=1", "ModeHotkey kind=normal hotkey=0x10047",
                     "MacroFileNotOpened path=\\??\\C:\\none status=0xc0000034"}),
              Listener.Take());
    FileBytes file = MacroFileHead();
    AppendMacro(file, 0x3A, {{0, 0, 4}, {}});
    file[50 + 4 + 10] = 0x77; // of the second action, the byte that nobody interprets
    file[50 + 4 + 11] = 3;
    Drive.Write("m", file);
    SetPath("\\??\\C:\\m");
    SetValue("KorvexHotkey", REG_DWORD, {0x02, 0, 1, 2});
    EXPECT_EQ(OK, ReadKorvexParameters(&Globals.RegistryPathCopy));
    EXPECT_EQ((Lines{path, "TakesPart keyboard=0 on=0", "ModeHotkey kind=extended hotkey=0x2010002",
                     "MacroAction macro=0x3a index=0 first=0x1 length=8",
                     "MacroAction macro=0x3a index=1 first=0x77 length=3",
                     "MacroFileRead path=\\??\\C:\\m status=0x0"}),
              Listener.Take());
    Drive.Write("m", {1, 2, 3});
    SetValue("KorvexHotkey", REG_DWORD, {0, 0, 0, 0});
    SetValue("KorvexLEDDisabled", REG_DWORD, Number(1));
    EXPECT_EQ(OK, ReadKorvexParameters(&Globals.RegistryPathCopy));
    EXPECT_EQ(
        (Lines{path, "TakesPart keyboard=0 on=0", "ModeShown mode=0", "ModeHotkey kind=normal hotkey=0x0",
               "MacroFileRead path=\\??\\C:\\m status=0xc0000001"}),
        Listener.Take());
    EXPECT_EQ(OK, SetKorvexLed(1));
    EXPECT_EQ((Lines{"ModeShown mode=1", "LedNotUsed mode=0"}), Listener.Take());
}

TEST_F(TraceMacroTest, MacrosAndTheModeHotkey)
{
    UCHAR ucReport[8] = {2, 0, 0x3A}, ucFound = 0;
    EXPECT_EQ(CheckForKorvexModeSwitch(Keyboard->Filter(), 8, ucReport, &ucFound), Unsuccessful);
    EXPECT_EQ((Lines{"ModeHotkeyNotSought hotkey=0x0 length=8"}), Listener.Take());
    FileBytes file = MacroFileHead();
    AppendMacro(file, 0x3A, {{0, 0, 4}});
    AppendMacro(file, 0x0102, {{0, 0, 5}});
    EXPECT_EQ(OK, ReadFile(file));
    Listener.Take();
    CheckForKorvexHotkey(Keyboard->Filter(), ucReport, 8);
    EXPECT_EQ((Lines{"ModifierMacro keyboard=0 macro=0x102", "KeyMacro keyboard=0 macro=0x3a"}),
              Listener.Take());
}

// Two reads are parked one after the other; the timer takes the first.
TEST_F(TraceMacroTest, TheListOfParkedReads)
{
    EmuPlugOptions options;
    options.Manual = true;
    options.Reads = 2;
    Plug(options);
    Settings.ulKorvexDelay = 100;
    Globals.ucKorvexTimerRunning = 1;
    const FifoEntry entry = {0, 8, {0, 0, 4}};
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(OK, InsertUSBPacketFifin(Keyboard->Filter(), &entry));
    }
    Listener.Take();
    Keyboard->Read();
    Keyboard->Read();
    std::vector<std::string> names;
    for (ULONG i = 0; i < 2; i++) {
        char text[40];
        snprintf(text, sizeof(text), "request=0x%llx",
                 static_cast<ULONGLONG>(reinterpret_cast<ULONG_PTR>(Context()->ParkedRequests[i])));
        names.push_back(text);
    }
    EXPECT_EQ((Lines{"ReadParked keyboard=1 " + names[0], "ParkedRead keyboard=1 index=0 count=1 " + names[0],
                     "ReadParked keyboard=1 " + names[1], "ParkedRead keyboard=1 index=0 count=2 " + names[0],
                     "ParkedRead keyboard=1 index=1 count=2 " + names[1]}),
              Listener.Take());
    HostAdvanceToUs(HostNowUs() + 150000);
    EXPECT_EQ(
        (Lines{"ReadUnparked keyboard=1 " + names[0], "ParkedRead keyboard=1 index=0 count=1 " + names[1]}),
        Listener.Take());
}
} // namespace
