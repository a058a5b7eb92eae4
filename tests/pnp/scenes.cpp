// scenes.cpp - what a person at the keyboard and an application see while the system's own Plug and Play brings
// keyboards and takes them away.
#include <stdio.h>

#include <fstream>
#include <sstream>

#include "wine/pnp/install.h"
#include "scene.h"
#include "wine/program.h"

using tvusb::Status;

static const char CtrlDown[] = "01 00 00 00 00 00 00 00";
static const char CtrlF1[] = "01 00 3A 00 00 00 00 00";
static const char NoKey[] = "00 00 00 00 00 00 00 00";

static KeyDefinition CtrlF1Hotkey(uint32_t ulId)
{
    return tvusb::MakeHotkey(ulId, MODIFIER_ANY_CONTROL, {0x3B}, true);
}

TEST_F(PlugAndPlay, AKeyboardComesUp)
{
    tvusb::Driver driver;
    EXPECT_EQ(driver.Open(), Status::NameNotFound);
    Plug();
    ASSERT_EQ(driver.Open(), Status::Success);
    EXPECT_EQ(*driver.GetVersion(), 0x00010300u);
    auto info = driver.GetKeyboardInfo(0);
    ASSERT_TRUE(info.Ok()) << info.Error().Text();
    EXPECT_EQ(info->ulDeviceIndex, 0u);
    EXPECT_EQ(tvusb::ToUtf8(tvusb::TextOf(info->HardwareId)), "USB\\VID_7A3C&PID_0101&MI_00");
    EXPECT_EQ(tvusb::ToUtf8(tvusb::TextOf(info->Description)), "Emulated keyboard"); // as tvhid.inf names it
    EXPECT_EQ(tvusb::ToUtf8(tvusb::TextOf(info->DeviceObjectName)).substr(0, 8), "\\Device\\");
}

TEST_F(PlugAndPlay, AnApplicationFindsAKeyboardByItsInterface)
{
    tvusb::Driver driver;
    std::vector<std::string> names[2];
    for (auto& seen : names) {
        Plug();
        seen = InterfaceNames();
    }
    ASSERT_EQ(names[0].size(), 1u);
    ASSERT_EQ(names[1].size(), 2u);
    ASSERT_EQ(driver.Open(), Status::Success);
    for (const std::string& name : names[1]) {
        const uint32_t ulIndex = name == names[0][0] ? 0 : 1;
        auto found = driver.FindKeyboardIndex(std::u16string(name.begin(), name.end()));
        EXPECT_EQ(found.Error(), Status::Success);
        EXPECT_EQ(*found, ulIndex) << name;
    }
}

TEST_F(PlugAndPlay, TheSystemReadsWhatIsTyped)
{
    TestKeyboard& keyboard = Plug();
    for (const char* pszReport : {"02 00 0B 00 00 00 00 00", "00 00 04 05 06 07 08 09", NoKey}) {
        EXPECT_EQ(keyboard.Type(pszReport), pszReport);
    }
    char szReport[] = "00 00 00 00 00 00 00 00"; // a burst: more than the reads that wait
    for (unsigned uKey = 4; uKey < 104; uKey++) {
        snprintf(szReport + 6, 3, "%02X", uKey);
        szReport[8] = ' ';
        keyboard.Send(szReport);
    }
    for (unsigned uKey = 4; uKey < 104; uKey++) {
        snprintf(szReport + 6, 3, "%02X", uKey);
        szReport[8] = ' ';
        EXPECT_EQ(keyboard.Read(), szReport);
    }
}

// The sample as it is shipped, in a process of its own. It ends when it was told of four events.
TEST_F(PlugAndPlay, TheListenerIsToldOfCtrlF1)
{
    TestKeyboard& keyboard = Plug();
    Program listener("hotkey_listener.exe 4");
    EXPECT_EQ(keyboard.Type(CtrlDown), CtrlDown);
    WaitUntil("the listener has its hotkey", 10000, [&] {
        const bool bSwallowed = keyboard.Type(CtrlF1) == NoKey;
        EXPECT_EQ(keyboard.Type(CtrlDown), CtrlDown);
        return bSwallowed;
    });
    EXPECT_EQ(keyboard.Type(CtrlF1), NoKey);
    EXPECT_EQ(keyboard.Type(CtrlDown), CtrlDown);
    for (const char* pszLine :
         {"keyboard 0", "hotkey 7 down", "hotkey 7 up", "hotkey 7 down", "hotkey 7 up", ""}) {
        EXPECT_EQ(listener.ReadLine(), pszLine);
    }
    EXPECT_EQ(listener.Status(), 0);
    EXPECT_EQ(keyboard.Type(CtrlF1), CtrlF1); // the hotkey went with the listener
}

TEST_F(PlugAndPlay, ASecondKeyboardHasItsOwnIndexAndHotkeys)
{
    TestKeyboard& first = Plug();
    Application one(0);
    one.Define(CtrlF1Hotkey(7));
    TestKeyboard& second = Plug();
    TestKeyboard& chic = Plug(CHIC_KEYBOARD);
    Application two(1);
    Application three(2);
    two.Define(tvusb::MakeHotkey(8, 0, {0x3C}, true));
    three.Define(tvusb::MakeHotkey(9, 0, {0xE0, 0x5F}, true));
    EXPECT_EQ(Indexes(one.driver), "0 1 2");

    EXPECT_EQ(second.Type(CtrlF1), CtrlF1);
    EXPECT_EQ(second.Type("00 00 3B"), NoKey);
    EXPECT_EQ(first.Type("01 00 3B"), "01 00 3B 00 00 00 00 00");
    EXPECT_EQ(first.Type(CtrlF1), NoKey);
    EXPECT_EQ(chic.Type("02 04", 2), "02 00"); // its power keys come in a report of their own
    EXPECT_EQ(one.Events(), "down 7");
    EXPECT_EQ(two.Events(), "down 8");
    EXPECT_EQ(three.Events(), "down 9");
}

TEST_F(PlugAndPlay, OrderlyRemovalLeavesTheOtherKeyboard)
{
    TestKeyboard& first = Plug();
    TestKeyboard& second = Plug();
    Application one(0);
    Application two(1);
    one.Define(CtrlF1Hotkey(7));
    EXPECT_TRUE(second.AskRemove());
    EXPECT_EQ(second.Type(CtrlF1), CtrlF1); // asked only
    second.Pull();
    EXPECT_LT(WaitGone(second), 3000u); // nobody is waited for while another keyboard is there
    EXPECT_EQ(Indexes(one.driver), "0");
    EXPECT_EQ(InterfaceNames().size(), 1u);
    EXPECT_EQ(two.keyboard.StopProcessing(), Status::Unsuccessful);
    EXPECT_EQ(first.Type(CtrlF1), NoKey);
    EXPECT_EQ(one.Events(), "down 7");

    one.driver.Close();
    two.driver.Close();
    EXPECT_TRUE(first.AskRemove());
    first.Pull();
    EXPECT_LT(WaitGone(first), 3000u);
    EXPECT_EQ(one.driver.Open(), Status::NameNotFound);
}

// A key is held, so its repeat is running, when the keyboard is pulled; the application closes when it is told.
TEST_F(PlugAndPlay, PulledWhileAKeyIsHeld)
{
    TestKeyboard& keyboard = Plug();
    Application application(0);
    auto gone = application.driver.MakeEvent();
    ASSERT_EQ(application.driver.RegisterApplicationEvent(*gone), Status::Success);
    KeyDefinition every = {}; // tells of every key and of its repeats
    every.ulId = 5;
    every.ulType = DEFINITION_POINT_OF_SALE;
    application.Define(every);

    EXPECT_EQ(keyboard.Type("00 00 04"), "00 00 04 00 00 00 00 00");
    EXPECT_EQ(application.Events(), "key 1E 5");
    EXPECT_EQ(application.Events(3000), "repeat 1E 5");
    EXPECT_EQ(gone->Wait(0), Status::Timeout);
    keyboard.Pull();
    EXPECT_EQ(gone->Wait(3000), Status::Success);
    EXPECT_TRUE(keyboard.IsThere()); // the driver waits for the application
    application.driver.Close();
    EXPECT_LT(WaitGone(keyboard), 3000u);
}

// An application that does not care: the driver waits five seconds for it, no longer. Plugged in again, the keyboard
// is another one.
TEST_F(PlugAndPlay, PulledFromAnApplicationThatStaysAndPluggedInAgain)
{
    TestKeyboard& keyboard = Plug();
    Application application(0);
    auto gone = application.driver.MakeEvent();
    ASSERT_EQ(application.driver.RegisterApplicationEvent(*gone), Status::Success);
    application.Define(CtrlF1Hotkey(7));
    EXPECT_EQ(keyboard.Type(CtrlF1), NoKey);
    keyboard.Pull();
    const unsigned uWaitedMs = WaitGone(keyboard);
    EXPECT_GT(uWaitedMs, 4500u);
    EXPECT_LT(uWaitedMs, 8000u);

    TestKeyboard& again = Plug();
    EXPECT_FALSE(application.driver.GetKeyboards().Ok());
    ASSERT_EQ(application.driver.Open(), Status::Success);
    EXPECT_EQ(Indexes(application.driver), "1");
    ASSERT_EQ(application.keyboard.FindAgain(), Status::Success);
    EXPECT_EQ(application.keyboard.Index(), 1u);
    EXPECT_EQ(application.keyboard.StartProcessing(), Status::Success);
    EXPECT_EQ(again.Type(CtrlF1), CtrlF1); // it has no definitions
    application.Define(CtrlF1Hotkey(8));
    EXPECT_EQ(again.Type(CtrlDown), CtrlDown);
    EXPECT_EQ(again.Type(CtrlF1), NoKey);
}

TEST_F(PlugAndPlay, LoadedAnewItBeginsFromNothing)
{
    TestKeyboard& first = Plug();
    first.Pull();
    WaitGone(first);
    TestKeyboard& second = Plug();
    EXPECT_EQ(Indexes(Application(1).driver), "1"); // as long as it is loaded, no index comes twice
    second.Pull();
    WaitGone(second);
    Unload();
    Plug();
    EXPECT_EQ(Indexes(Application(0).driver), "0");
}

static std::string ContentOf(const char* pszFile)
{
    std::ostringstream content;
    content << std::ifstream(pszFile).rdbuf();
    return content.str();
}

TEST_F(PlugAndPlay, TheLogIsWritten)
{
    SetSetting("LogFile", "\\??\\C:\\tv64usb.log");
    SetSetting("LogLevel", 3);
    TestKeyboard& keyboard = Plug();
    RemoveSetting("LogFile");
    RemoveSetting("LogLevel");
    EXPECT_EQ(keyboard.Type(CtrlF1), CtrlF1);
    keyboard.Pull();
    WaitGone(keyboard);
    Unload();
    const std::string log = ContentOf("C:\\tv64usb.log");
    EXPECT_NE(log.find("Save Product and Device ID"), std::string::npos) << "the log: " << log;
    Plug(); // without a log file the log is off
    EXPECT_EQ(ContentOf("C:\\tv64usb.log"), log);
}
