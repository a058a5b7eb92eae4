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
    EXPECT_EQ(Status::Unsuccessful, keyboard.AddDefinition(hotkey));
    hotkey = tvusb::MakeHotkey(8, 0, std::vector<uint8_t>(33, 0x1E), true);
    EXPECT_EQ(Status::Unsuccessful, keyboard.AddDefinition(hotkey)) << "it is not cut to 32 bytes";
    auto listener = keyboard.Events().Listen();
    ASSERT_TRUE(listener.Ok());
    EXPECT_EQ(Status::Unsuccessful, keyboard.Events().Listen().Error()) << "one event a keyboard";
    ASSERT_TRUE(keyboard.StartProcessing().Ok());
    EXPECT_EQ(Status::Unsuccessful, keyboard.StartProcessing());

    auto none = listener->Wait(10);
    EXPECT_EQ(Status::Timeout, none.Error());
    EXPECT_TRUE(none->empty());
    PressHotkey();
    auto records = listener->Wait(10);
    ASSERT_EQ(2u, records->size());
    EXPECT_EQ(7u, records->at(0).ulId);
    EXPECT_EQ(1u, records->at(0).ulValue);
    EXPECT_EQ(0u, records->at(1).ulValue);
    EXPECT_EQ(Status::Timeout, listener->Wait(10).Error()) << "the event was for what was taken";

    EXPECT_TRUE(keyboard.RemoveDefinition(7).Ok());
    EXPECT_EQ(Status::Unsuccessful, keyboard.RemoveDefinition(7));
    EXPECT_TRUE(keyboard.StopProcessing().Ok());
    PressHotkey();
    EXPECT_EQ(0u, *keyboard.Events().Count());
}

TEST_P(ClientTest, AQueueIsCountedPeekedTakenAndCleared)
{
    ASSERT_TRUE(keyboard.AddDefinition(tvusb::MakeHotkey(7, MODIFIER_ANY_CONTROL, {0x3B}, true)).Ok());
    ASSERT_TRUE(keyboard.StartProcessing().Ok());
    tvusb::NotifyQueue queue = keyboard.Events();
    EXPECT_EQ(Status::Unsuccessful, queue.Take().Error());
    EXPECT_TRUE(queue.TakeMany(0)->empty());
    PressHotkey();
    PressHotkey();
    EXPECT_EQ(4u, *queue.Count());
    EXPECT_EQ(1u, queue.Peek()->ulValue);
    EXPECT_EQ(1u, queue.Take()->ulValue);
    EXPECT_EQ(0u, queue.Take()->ulValue);
    EXPECT_EQ(2u, queue.TakeMany(9)->size()) << "only those that were there";
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
    EXPECT_EQ(Status::Unsuccessful, macros.Records().Listen().Error());
    EXPECT_EQ(Status::Timeout, listener->Wait(10).Error());
    EXPECT_EQ(Status::Unsuccessful, macros.Records().Take().Error());

    // A captured report comes as a record and never reaches the system.
    EXPECT_TRUE(macros.SetCapture(1).Ok());
    EXPECT_EQ(1u, *macros.GetCapture());
    ASSERT_TRUE(keyboard.StartProcessing().Ok());
    pPlugged->Taken();
    pPlugged->Report({0, 0, 4, 0, 0, 0, 0, 0});
    auto records = listener->Wait(10);
    ASSERT_EQ(1u, records->size());
    EXPECT_EQ(MACRO_RECORD_REPORT, records->at(0).usType);
    EXPECT_EQ(4, records->at(0).ucReport[2]);
    EXPECT_EQ(pPlugged->Taken().at(0).Bytes, EmuBytes(8));
    pPlugged->Report({0, 0, 0x39, 0, 0, 0, 0, 0});
    EXPECT_EQ(1, listener->Wait(10)->at(0).ucMode);
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
    ASSERT_EQ(2u, received.size());
    EXPECT_EQ((EmuBytes{0, 0, 4, 0, 0, 0, 0, 0}), received[0].Bytes);
    EXPECT_EQ(Status::Unsuccessful,
              keyboard.InsertPackets({tvusb::MakeReport(std::vector<uint8_t>(11))}, true));

    EXPECT_TRUE(keyboard.InsertScans({0x1D, 0x9D}, true).Ok());
    received = pPlugged->Taken();
    ASSERT_EQ(2u, received.size());
    EXPECT_EQ(0x01, received[0].Bytes[0]);
    EXPECT_EQ(0x00, received[1].Bytes[0]);
}

TEST_P(ClientTest, KeyRepeatIsTheSystems)
{
    EXPECT_EQ("GET_TYPEMATIC, keyboard 0: the system has no such device (0xC0000034)",
              keyboard.GetTypematic().Error().Text());
    EmuClassDevice* pSystem = machine.AddClassDevice(2);
    pSystem->SetTypematic(30, 500);
    auto typematic = keyboard.GetTypematic();
    ASSERT_TRUE(typematic.Ok());
    EXPECT_EQ(30, typematic->usRate);
    EXPECT_EQ(500, typematic->usDelayMs);
    ASSERT_TRUE(keyboard.SetTypematic(31, 3).Ok());
    typematic = keyboard.GetTypematic();
    EXPECT_EQ(20, typematic->usRate);
    EXPECT_EQ(1000, typematic->usDelayMs);
}

// The last keyboard goes: the application is told, closes, and opens again when it is back.
TEST_P(ClientTest, TheLastKeyboardIsPulledOutAndPluggedInAgain)
{
    auto event = driver.MakeEvent();
    ASSERT_TRUE(event.Ok());
    ASSERT_TRUE(driver.RegisterApplicationEvent(*event).Ok());
    EXPECT_EQ(Status::Timeout, event->Wait(0));
    Status told = Status::Timeout;
    HostThread application = HostStartThread([&] {
        told = event->Wait(tvusb::WAIT_FOREVER);
        driver.Close();
    });
    pPlugged->Unplug(true);
    HostJoinThread(application);
    EXPECT_EQ(Status::Success, told);
    EXPECT_EQ(Status::NameNotFound, driver.Open());
    EXPECT_EQ(Status::NotOpen, keyboard.FindAgain());

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
    EXPECT_EQ(Status::NotOpen, listener->Wait(0).Error());
    EXPECT_EQ(Status::Timeout, moved.Wait(0).Error());
    listener->Stop(); // of nothing: the registration is the other's
    EXPECT_EQ(Status::Unsuccessful, keyboard.Events().Listen().Error());
    moved = tvusb::NotifyListener();
    moved = std::move(*keyboard.Events().Listen());
    EXPECT_EQ(Status::Timeout, moved.Wait(0).Error());
    moved.Stop();
    EXPECT_TRUE(keyboard.Events().Listen().Ok()) << "each end releases the registration";

    tvusb::Event event = std::move(*driver.MakeEvent());
    tvusb::Event other = std::move(event);
    EXPECT_EQ(Status::NotOpen, event.Wait(0));
    EXPECT_EQ(Status::Timeout, other.Wait(0));
    EXPECT_EQ(Status::InvalidHandle, keyboard.Events().Register(event));

    tvusb::Keyboard taken = std::move(keyboard);
    EXPECT_EQ(Status::NotOpen, keyboard.SetLeds(0));
    EXPECT_EQ(Status::NotOpen, keyboard.FindAgain());
    tvusb::Driver second = std::move(driver);
    EXPECT_FALSE(driver.IsOpen());
    EXPECT_EQ(Status::NotOpen, driver.Open());
    EXPECT_EQ(Status::NotOpen, driver.GetVersion().Error());
    EXPECT_EQ(Status::NotOpen, driver.MakeEvent().Error());
    EXPECT_EQ(0x00010300u, *second.GetVersion());
    second.Close();
    second.Close();
    EXPECT_EQ(Status::NotOpen, taken.GetLeds().Error()) << "a keyboard of a closed driver";
    tvusb::NotifyQueue events = taken.Events();
    EXPECT_TRUE(second.Open().Ok());
    EXPECT_EQ("GET_LEDS, keyboard 0: the driver was opened anew, and the keyboard was "
              "not found again since (0xE0000005)",
              taken.GetLeds().Error().Text());
    EXPECT_EQ(Status::OpenedAnew, events.Count().Error());
    ASSERT_TRUE(taken.FindAgain().Ok());
    EXPECT_TRUE(taken.GetLeds().Ok());
    EXPECT_EQ(0u, *taken.Events().Count());
}

INSTANTIATE_TEST_SUITE_P(Processes, MacroTest, BothProcessSizes, ProcessSizeName);
INSTANTIATE_TEST_SUITE_P(Processes, ClientTest, BothProcessSizes, ProcessSizeName);
} // namespace
