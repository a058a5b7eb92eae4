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
    EXPECT_EQ(Status::NameNotFound, driver.Open());
    Plug();
    ASSERT_EQ(Status::Success, driver.Open());
    EXPECT_EQ(0x00010300u, *driver.GetVersion());
    auto info = driver.GetKeyboardInfo(0);
    ASSERT_TRUE(info.Ok()) << info.Error().Text();
    EXPECT_EQ(0u, info->ulDeviceIndex);
    EXPECT_EQ("USB\\VID_7A3C&PID_0101&MI_00", tvusb::ToUtf8(tvusb::TextOf(info->HardwareId)));
    EXPECT_EQ("Emulated keyboard", tvusb::ToUtf8(tvusb::TextOf(info->Description))); // as tvhid.inf names it
    EXPECT_EQ("\\Device\\", tvusb::ToUtf8(tvusb::TextOf(info->DeviceObjectName)).substr(0, 8));
}

TEST_F(PlugAndPlay, AnApplicationFindsAKeyboardByItsInterface)
{
    tvusb::Driver driver;
    std::vector<std::string> names[2];
    for (auto& seen : names) {
        Plug();
        seen = InterfaceNames();
    }
    ASSERT_EQ(1u, names[0].size());
    ASSERT_EQ(2u, names[1].size());
    ASSERT_EQ(Status::Success, driver.Open());
    for (const std::string& name : names[1]) {
        const uint32_t ulIndex = name == names[0][0] ? 0 : 1;
        auto found = driver.FindKeyboardIndex(std::u16string(name.begin(), name.end()));
        EXPECT_EQ(Status::Success, found.Error());
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
    EXPECT_EQ(0, listener.Status());
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
    EXPECT_EQ("0 1 2", Indexes(one.driver));

    EXPECT_EQ(second.Type(CtrlF1), CtrlF1);
    EXPECT_EQ(second.Type("00 00 3B"), NoKey);
    EXPECT_EQ("01 00 3B 00 00 00 00 00", first.Type("01 00 3B"));
    EXPECT_EQ(first.Type(CtrlF1), NoKey);
    EXPECT_EQ("02 00", chic.Type("02 04", 2)); // its power keys come in a report of their own
    EXPECT_EQ("down 7", one.Events());
    EXPECT_EQ("down 8", two.Events());
    EXPECT_EQ("down 9", three.Events());
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
    EXPECT_EQ("0", Indexes(one.driver));
    EXPECT_EQ(1u, InterfaceNames().size());
    EXPECT_EQ(Status::Unsuccessful, two.keyboard.StopProcessing());
    EXPECT_EQ(first.Type(CtrlF1), NoKey);
    EXPECT_EQ("down 7", one.Events());

    one.driver.Close();
    two.driver.Close();
    EXPECT_TRUE(first.AskRemove());
    first.Pull();
    EXPECT_LT(WaitGone(first), 3000u);
    EXPECT_EQ(Status::NameNotFound, one.driver.Open());
}

// A key is held, so its repeat is running, when the keyboard is pulled; the application closes when it is told.
TEST_F(PlugAndPlay, PulledWhileAKeyIsHeld)
{
    TestKeyboard& keyboard = Plug();
    Application application(0);
    auto gone = application.driver.MakeEvent();
    ASSERT_EQ(Status::Success, application.driver.RegisterApplicationEvent(*gone));
    KeyDefinition every = {}; // tells of every key and of its repeats
    every.ulId = 5;
    every.ulType = DEFINITION_POINT_OF_SALE;
    application.Define(every);

    EXPECT_EQ("00 00 04 00 00 00 00 00", keyboard.Type("00 00 04"));
    EXPECT_EQ("key 1E 5", application.Events());
    EXPECT_EQ("repeat 1E 5", application.Events(3000));
    EXPECT_EQ(Status::Timeout, gone->Wait(0));
    keyboard.Pull();
    EXPECT_EQ(Status::Success, gone->Wait(3000));
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
    ASSERT_EQ(Status::Success, application.driver.RegisterApplicationEvent(*gone));
    application.Define(CtrlF1Hotkey(7));
    EXPECT_EQ(keyboard.Type(CtrlF1), NoKey);
    keyboard.Pull();
    const unsigned uWaitedMs = WaitGone(keyboard);
    EXPECT_GT(uWaitedMs, 4500u);
    EXPECT_LT(uWaitedMs, 8000u);

    TestKeyboard& again = Plug();
    EXPECT_FALSE(application.driver.GetKeyboards().Ok());
    ASSERT_EQ(Status::Success, application.driver.Open());
    EXPECT_EQ("1", Indexes(application.driver));
    ASSERT_EQ(Status::Success, application.keyboard.FindAgain());
    EXPECT_EQ(1u, application.keyboard.Index());
    EXPECT_EQ(Status::Success, application.keyboard.StartProcessing());
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
    EXPECT_EQ("1", Indexes(Application(1).driver)); // as long as it is loaded, no index comes twice
    second.Pull();
    WaitGone(second);
    Unload();
    Plug();
    EXPECT_EQ("0", Indexes(Application(0).driver));
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
