// keyboard_test.cpp - the library against a running driver and emulated keyboards, as processes of both sizes:
// hotkeys, queues, insertions, handles.
#include "tests/client/client_test.h"

namespace
{
using tvusb::Status;
TEST_P(ClientTest, AHotkeyIsTold)
{
    KeyDefinition hotkey = tvusb::MakeHotkey(7, MODIFIER_ANY_CONTROL, {0x3B}, true);
    ASSERT_TRUE(keyboard.AddDefinition(hotkey).Ok());
    EXPECT_EQ(keyboard.AddDefinition(hotkey), Status::Unsuccessful);
    hotkey = tvusb::MakeHotkey(8, 0, std::vector<uint8_t>(33, 0x1E), true);
    EXPECT_EQ(keyboard.AddDefinition(hotkey), Status::Unsuccessful) << "it is not cut to 32 bytes";
    auto listener = keyboard.Events().Listen();
    ASSERT_TRUE(listener.Ok());
    EXPECT_EQ(keyboard.Events().Listen().Error(), Status::Unsuccessful) << "one event a keyboard";
    ASSERT_TRUE(keyboard.StartProcessing().Ok());
    EXPECT_EQ(keyboard.StartProcessing(), Status::Unsuccessful);

    auto none = listener->Wait(10);
    EXPECT_EQ(none.Error(), Status::Timeout);
    EXPECT_TRUE(none->empty());
    PressHotkey();
    auto records = listener->Wait(10);
    ASSERT_EQ(records->size(), 2u);
    EXPECT_EQ(records->at(0).ulId, 7u);
    EXPECT_EQ(records->at(0).ulValue, 1u);
    EXPECT_EQ(records->at(1).ulValue, 0u);
    EXPECT_EQ(listener->Wait(10).Error(), Status::Timeout) << "the event was for what was taken";

    EXPECT_TRUE(keyboard.RemoveDefinition(7).Ok());
    EXPECT_EQ(keyboard.RemoveDefinition(7), Status::Unsuccessful);
    EXPECT_TRUE(keyboard.StopProcessing().Ok());
    PressHotkey();
    EXPECT_EQ(*keyboard.Events().Count(), 0u);
}

TEST_P(ClientTest, AQueueIsCountedPeekedTakenAndCleared)
{
    ASSERT_TRUE(keyboard.AddDefinition(tvusb::MakeHotkey(7, MODIFIER_ANY_CONTROL, {0x3B}, true)).Ok());
    ASSERT_TRUE(keyboard.StartProcessing().Ok());
    tvusb::NotifyQueue queue = keyboard.Events();
    EXPECT_EQ(queue.Take().Error(), Status::Unsuccessful);
    EXPECT_TRUE(queue.TakeMany(0)->empty());
    PressHotkey();
    PressHotkey();
    EXPECT_EQ(*queue.Count(), 4u);
    EXPECT_EQ(queue.Peek()->ulValue, 1u);
    EXPECT_EQ(queue.Take()->ulValue, 1u);
    EXPECT_EQ(queue.Take()->ulValue, 0u);
    EXPECT_EQ(queue.TakeMany(9)->size(), 2u) << "only those that were there";
    PressHotkey();
    EXPECT_TRUE(queue.Clear().Ok());
    EXPECT_TRUE(queue.TakeAll()->empty());
}

class MacroTest : public ClientTest
{
protected:
    MacroTest() : ClientTest({{"KorvexHotkey", 0x00010039u}}) {} // Caps Lock switches the mode
};

TEST_P(MacroTest, MacroModeIsAskedAndItsQueueHasOneEvent)
{
    auto macros = driver.Macros();
    EXPECT_FALSE(*macros.IsOn());
    EXPECT_TRUE(macros.Reload().Ok());
    EXPECT_TRUE(macros.Records().Clear().Ok());
    auto listener = macros.Records().Listen();
    ASSERT_TRUE(listener.Ok());
    EXPECT_EQ(macros.Records().Listen().Error(), Status::Unsuccessful);
    EXPECT_EQ(listener->Wait(10).Error(), Status::Timeout);
    EXPECT_EQ(macros.Records().Take().Error(), Status::Unsuccessful);

    // A captured report comes as a record and never reaches the system.
    EXPECT_TRUE(macros.SetCapture(1).Ok());
    EXPECT_EQ(*macros.GetCapture(), 1u);
    ASSERT_TRUE(keyboard.StartProcessing().Ok());
    pPlugged->Taken();
    pPlugged->Report({0, 0, 4, 0, 0, 0, 0, 0});
    auto records = listener->Wait(10);
    ASSERT_EQ(records->size(), 1u);
    EXPECT_EQ(records->at(0).usType, MACRO_RECORD_REPORT);
    EXPECT_EQ(records->at(0).ucReport[2], 4);
    EXPECT_EQ(pPlugged->Taken().at(0).Bytes, EmuBytes(8));
    pPlugged->Report({0, 0, 0x39, 0, 0, 0, 0, 0});
    EXPECT_EQ(listener->Wait(10)->at(0).ucMode, 1);
    EXPECT_TRUE(*macros.IsOn());
    EXPECT_TRUE(macros.SetCapture(0).Ok());
    listener->Stop();
    EXPECT_TRUE(macros.Records().Listen().Ok());
}

TEST_P(ClientTest, InsertedReportsReachTheSystem)
{
    pPlugged->Taken();
    EXPECT_TRUE(keyboard
                    .InsertPackets({tvusb::MakeReport({0, 0, 4, 0, 0, 0, 0, 0}),
                                    tvusb::MakeReport({0, 0, 0, 0, 0, 0, 0, 0})},
                                   true)
                    .Ok());
    auto received = pPlugged->Taken();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].Bytes, (EmuBytes{0, 0, 4, 0, 0, 0, 0, 0}));
    EXPECT_EQ(keyboard.InsertPackets({tvusb::MakeReport(std::vector<uint8_t>(11))}, true),
              Status::Unsuccessful);

    EXPECT_TRUE(keyboard.InsertScans({0x1D, 0x9D}, true).Ok());
    received = pPlugged->Taken();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].Bytes[0], 0x01);
    EXPECT_EQ(received[1].Bytes[0], 0x00);
}

TEST_P(ClientTest, KeyRepeatIsTheSystems)
{
    EXPECT_EQ(keyboard.GetTypematic().Error().Text(),
              "GET_TYPEMATIC, keyboard 0: the system has no such device (0xC0000034)");
    EmuClassDevice* pSystem = machine.AddClassDevice(2);
    pSystem->SetTypematic(30, 500);
    auto typematic = keyboard.GetTypematic();
    ASSERT_TRUE(typematic.Ok());
    EXPECT_EQ(typematic->usRate, 30);
    EXPECT_EQ(typematic->usDelayMs, 500);
    ASSERT_TRUE(keyboard.SetTypematic(31, 3).Ok());
    typematic = keyboard.GetTypematic();
    EXPECT_EQ(typematic->usRate, 20);
    EXPECT_EQ(typematic->usDelayMs, 1000);
}

// The last keyboard goes: the application is told, closes, and opens again when it is back.
TEST_P(ClientTest, TheLastKeyboardIsPulledOutAndPluggedInAgain)
{
    auto event = driver.MakeEvent();
    ASSERT_TRUE(event.Ok());
    ASSERT_TRUE(driver.RegisterApplicationEvent(*event).Ok());
    EXPECT_EQ(event->Wait(0), Status::Timeout);
    Status told = Status::Timeout;
    HostThread application = HostStartThread([&] {
        told = event->Wait(tvusb::WAIT_FOREVER);
        driver.Close();
    });
    pPlugged->Unplug(true);
    HostJoinThread(application);
    EXPECT_EQ(told, Status::Success);
    EXPECT_EQ(driver.Open(), Status::NameNotFound);
    EXPECT_EQ(keyboard.FindAgain(), Status::NotOpen);

    pPlugged = PlugAt(1);
    ASSERT_TRUE(driver.Open().Ok());
    ASSERT_TRUE(keyboard.FindAgain().Ok());
    EXPECT_EQ(keyboard.Index(), pPlugged->Index());
    EXPECT_TRUE(keyboard.StartProcessing().Ok());
}

TEST_P(ClientTest, HandlesCloseOnceAndMovedFromOnesAnswer)
{
    auto listener = keyboard.Events().Listen();
    ASSERT_TRUE(listener.Ok());
    tvusb::NotifyListener moved = std::move(*listener);
    EXPECT_EQ(listener->Wait(0).Error(), Status::NotOpen);
    EXPECT_EQ(moved.Wait(0).Error(), Status::Timeout);
    listener->Stop(); // of nothing: the registration is the other's
    EXPECT_EQ(keyboard.Events().Listen().Error(), Status::Unsuccessful);
    moved = tvusb::NotifyListener();
    moved = std::move(*keyboard.Events().Listen());
    EXPECT_EQ(moved.Wait(0).Error(), Status::Timeout);
    moved.Stop();
    EXPECT_TRUE(keyboard.Events().Listen().Ok()) << "each end releases the registration";

    tvusb::Event event = std::move(*driver.MakeEvent());
    tvusb::Event other = std::move(event);
    EXPECT_EQ(event.Wait(0), Status::NotOpen);
    EXPECT_EQ(other.Wait(0), Status::Timeout);
    EXPECT_EQ(keyboard.Events().Register(event), Status::InvalidHandle);

    tvusb::Keyboard taken = std::move(keyboard);
    EXPECT_EQ(keyboard.SetLeds(0), Status::NotOpen);
    EXPECT_EQ(keyboard.FindAgain(), Status::NotOpen);
    tvusb::Driver second = std::move(driver);
    EXPECT_FALSE(driver.IsOpen());
    EXPECT_EQ(driver.Open(), Status::NotOpen);
    EXPECT_EQ(driver.GetVersion().Error(), Status::NotOpen);
    EXPECT_EQ(driver.MakeEvent().Error(), Status::NotOpen);
    EXPECT_EQ(*second.GetVersion(), 0x00010300u);
    second.Close();
    second.Close();
    EXPECT_EQ(taken.GetLeds().Error(), Status::NotOpen) << "a keyboard of a closed driver";
    tvusb::NotifyQueue events = taken.Events();
    EXPECT_TRUE(second.Open().Ok());
    EXPECT_EQ(taken.GetLeds().Error().Text(),
              "GET_LEDS, keyboard 0: the driver was opened anew, and the keyboard was "
              "not found again since (0xE0000005)");
    EXPECT_EQ(events.Count().Error(), Status::OpenedAnew);
    ASSERT_TRUE(taken.FindAgain().Ok());
    EXPECT_TRUE(taken.GetLeds().Ok());
    EXPECT_EQ(*taken.Events().Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Processes, MacroTest, BothProcessSizes, ProcessSizeName);
INSTANTIATE_TEST_SUITE_P(Processes, ClientTest, BothProcessSizes, ProcessSizeName);
} // namespace
