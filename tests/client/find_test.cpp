// find_test.cpp - which keyboard an application gets, when several are alike, one is not started, or one goes.
#include "tests/client/client_test.h"

namespace
{
using tvusb::Status;

const char16_t BOOT_ID[] = u"usb\\Vid_7a3c&pid_0101&mi_00"; // in upper or lower case

class FindTest : public ClientTest
{
};

TEST_P(FindTest, AKeyboardIsFoundWhenNoOtherFits)
{
    auto only = driver.FindOnly();
    ASSERT_TRUE(only.Ok()) << only.Error().Text();
    EXPECT_EQ(0u, only->Index());
    EXPECT_EQ(only->Name(), NameOf(pPlugged));
    machine.Plug(EmuPowerKeyboard);
    EXPECT_EQ(2u, driver.GetKeyboards()->size());
    EXPECT_EQ(2u, *driver.GetKeyboardCount());
    EXPECT_EQ(2u, driver.ListKeyboards()->size());
    EXPECT_EQ(2u, driver.ListNames()->size());
    EXPECT_EQ(Status::Ambiguous, driver.FindOnly().Error());
    EXPECT_EQ(0u, driver.FindByHardwareId(BOOT_ID)->Index());
    EXPECT_EQ(0u, driver.FindByName(NameOf(pPlugged).substr(4))->Index()) << "without \\??\\";

    EXPECT_EQ("hardware id USB\\VID_1234: there is no such keyboard (0xE0000004)",
              driver.FindByHardwareId(u"USB\\VID_1234").Error().Text());
    EXPECT_EQ("name nobody: there is no such keyboard (0xE0000004)",
              driver.FindByName(u"nobody").Error().Text());
    EXPECT_EQ("keyboard 77: there is no such keyboard (0xE0000004)", driver.FindByIndex(77).Error().Text());
    EXPECT_EQ("FIND_KEYBOARD, name nobody: no keyboard has this name (0xC0000001)",
              driver.FindKeyboardIndex(u"nobody").Error().Text());
    EXPECT_EQ("GET_KEYBOARD_INFO, position 7: there is no such position (0xC0000001)",
              driver.GetKeyboardInfo(7).Error().Text());

    // The system tells two ids, the driver the one with the revision.
    EmuDescriptors revised = EmuBootKeyboard;
    revised.pHardwareId = L"USB\\VID_7A3C&PID_0105&REV_0110&MI_00";
    EmuKeyboard* pRevised = machine.Plug(revised);
    EXPECT_EQ(driver.FindByHardwareId(u"USB\\VID_7A3C&PID_0105&MI_00")->Index(), pRevised->Index());
    EXPECT_EQ(driver.FindByHardwareId(u"USB\\VID_7A3C&PID_0105&REV_0110&MI_00")->Index(), pRevised->Index());
    EXPECT_EQ(Status::NoSuchKeyboard, driver.FindByHardwareId(u"USB\\VID_7A3C&PID_0105").Error());
}

// However it was found: what is pulled out is not found again in its twin, nor in another one at another port.
TEST_P(FindTest, ATwinIsNeverTakenForAnother)
{
    auto byId = driver.FindByHardwareId(BOOT_ID);
    auto byName = driver.FindByName(keyboard.Name());
    EmuKeyboard* pTwin = PlugAt(2);
    EXPECT_EQ(
        "hardware id usb\\Vid_7a3c&pid_0101&mi_00: several keyboards fit, and none was chosen (0xE0000001)",
        driver.FindByHardwareId(BOOT_ID).Error().Text());
    auto twin = driver.FindByIndex(pTwin->Index());
    ASSERT_TRUE(twin.Ok());
    tvusb::Keyboard* const first[] = {&keyboard, &*byId, &*byName};

    pPlugged->Unplug(true);
    for (tvusb::Keyboard* pFound : first) {
        EXPECT_EQ(Status::NoSuchKeyboard, pFound->FindAgain());
        EXPECT_EQ(0u, pFound->Index());
        EXPECT_EQ(
            "WRITE_EEPROM, keyboard 0: no keyboard has this index, or it refused the transfer (0xC0000001)",
            pFound->WriteEeprom(0, {1}).Text());
    }
    PlugAt(3);
    EXPECT_EQ(Status::NoSuchKeyboard, keyboard.FindAgain());
    pPlugged = PlugAt(1);
    for (tvusb::Keyboard* pFound : first) {
        ASSERT_TRUE(pFound->FindAgain().Ok());
        EXPECT_EQ(pFound->Index(), pPlugged->Index());
    }
    ASSERT_TRUE(twin->FindAgain().Ok());
    EXPECT_EQ(twin->Index(), pTwin->Index());
}

// The driver answers for as many positions as are started, and the newest comes first, started or not.
TEST_P(FindTest, AKeyboardThatDoesNotStartHidesAnother)
{
    EmuKeyboard* pLate = PlugAt(2, false);
    auto keyboards = driver.GetKeyboards();
    EXPECT_EQ("GET_KEYBOARD_INFO: not all keyboards are told: one that is not yet started "
              "hides another (0xE0000003)",
              keyboards.Error().Text());
    EXPECT_FALSE(keyboards.Ok());
    EXPECT_EQ(Status::Incomplete, driver.FindByHardwareId(BOOT_ID).Error());
    EXPECT_EQ(Status::Incomplete, driver.FindOnly().Error());
    EXPECT_TRUE(keyboard.FindAgain().Ok()) << "by its name it is found";

    PlugAt(3);
    EXPECT_EQ(1u, driver.GetKeyboards()->size()) << "what can be asked is told";
    HostThread system = HostStartThread([pLate] {
        HANDLE hPause = HostCreateEvent(false);
        HostWaitEvent(hPause, 300000);
        HostCloseHandle(hPause);
        pLate->Start();
    });
    keyboards = driver.GetKeyboards();
    HostJoinThread(system);
    EXPECT_TRUE(keyboards.Ok()) << "it was asked until the keyboard had started";
    ASSERT_EQ(3u, keyboards->size());
    EXPECT_EQ(keyboards->at(1).ulDeviceIndex, pLate->Index());
}

// Pulls a keyboard in three seconds and tells how long after that the listener's wait of an hour ended.
template <class Listener>
unsigned long long EndAfterUs(EmuKeyboard* pPulled, const Listener& listener, Status* pStatus)
{
    unsigned long long ullPulled = 0;
    HostThread person = HostStartThread([&] {
        HANDLE hPause = HostCreateEvent(false);
        HostWaitEvent(hPause, 3100000);
        HostCloseHandle(hPause);
        ullPulled = HostNowUs();
        pPulled->Unplug(true);
    });
    *pStatus = listener.Wait(3600000).Error();
    unsigned long long ullEnded = HostNowUs();
    HostJoinThread(person);
    return ullEnded - ullPulled;
}

TEST_P(FindTest, AListenerEndsWithItsKeyboard)
{
    auto listener = keyboard.Events().Listen();
    ASSERT_TRUE(listener.Ok());
    EmuKeyboard* pOther = PlugAt(2);
    Status status;
    EXPECT_LE(EndAfterUs(pPlugged, *listener, &status), 1000000u);
    EXPECT_EQ("GET_NOTIFY_COUNT, keyboard 0: the keyboard was pulled out (0xE0000002)", status.Text());
    EXPECT_EQ(Status::KeyboardGone, listener->Wait(0).Error());

    // Macro records are of all keyboards.
    auto records = driver.Macros().Records().Listen();
    ASSERT_TRUE(records.Ok());
    EXPECT_EQ(Status::Timeout, records->Wait(1200).Error());
    EXPECT_LE(EndAfterUs(pOther, *records, &status), 1000000u);
    EXPECT_EQ("GET_MACRO_COUNT, every keyboard: the keyboard was pulled out (0xE0000002)", status.Text());
}

INSTANTIATE_TEST_SUITE_P(Processes, FindTest, BothProcessSizes, ProcessSizeName);
} // namespace
