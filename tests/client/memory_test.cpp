// memory_test.cpp - the library's requests that a keyboard itself answers: descriptors, memory, LEDs, commands.
#include "tests/client/client_test.h"

namespace
{
using tvusb::Status;
using Memory = std::vector<uint8_t>;

class MemoryTest : public ClientTest
{
};

TEST_P(MemoryTest, WhatIsWrittenIsReadBackInEachMemory)
{
    EXPECT_EQ(64u, *keyboard.GetEepromSize());
    ASSERT_TRUE(keyboard.WriteEeprom(10, {1, 2, 3}).Ok());
    EXPECT_EQ((Memory{0xFF, 1, 2, 3, 0xFF}), *keyboard.ReadEeprom(9, 5));
    EXPECT_EQ(0, keyboard.ReadEeprom(63, 2)->at(1)) << "beyond the end";

    // Longer than a record.
    Memory data(1000);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<uint8_t>(i * 7);
    }
    ASSERT_TRUE(keyboard.WriteDescriptorMemory(0x123, data).Ok());
    EXPECT_EQ(*keyboard.ReadDescriptorMemory(0x123, 1000), data);
    ASSERT_TRUE(keyboard.WriteVendorMemory(0x321, {5, 6}).Ok());
    EXPECT_EQ((Memory{5, 6}), *keyboard.ReadVendorMemory(0x321, 2));
    EXPECT_EQ(Memory{data[0x321 - 0x123]}, *keyboard.ReadDescriptorMemory(0x321, 1)) << "each has its own";
}

TEST_P(MemoryTest, DescriptorsAreRead)
{
    auto descriptor = keyboard.ReadDeviceDescriptor();
    ASSERT_TRUE(descriptor.Ok());
    EXPECT_EQ(0x7A3C, descriptor->idVendor);
    EXPECT_EQ(0x0101, descriptor->idProduct);

    EXPECT_EQ(u"\u0409\u0407\u040C", *keyboard.ReadString(0, 0));
    EXPECT_EQ(u"Boot keyboard", *keyboard.ReadString(2, 0x0409));
    EXPECT_EQ(u"Nachgebildete Tastatur", *keyboard.ReadString(2, 0x0407));
    EXPECT_EQ(u"", *keyboard.ReadString(4, 0x0409));
    EXPECT_EQ(126u, keyboard.ReadString(5, 0x0409)->size());
    EXPECT_EQ(126u, keyboard.ReadString(6, 0x0409)->size()) << "255 bytes are 126 characters and a half";
    EXPECT_EQ("READ_STRING_DESCRIPTOR, keyboard 0: no keyboard has this index, or it gave no such string "
              "(0xC0000001)",
              keyboard.ReadString(9, 0x0409).Error().Text());

    pPlugged->Unplug(true);
    EXPECT_EQ(Status::Unsuccessful, keyboard.ReadDeviceDescriptor().Error());
    EXPECT_EQ(Status::Unsuccessful, keyboard.ReadString(2, 0x0409).Error());
    EXPECT_EQ(Status::Unsuccessful, keyboard.GetEepromSize().Error());
    EXPECT_TRUE(keyboard.Events().TakeMany(3)->empty());
}

TEST_P(MemoryTest, LedsAndCommandsReachTheKeyboard)
{
    pPlugged->TakenRequests();
    ASSERT_TRUE(keyboard.SetLeds(LED_FLAG_SCROLL | LED_FLAG_CAPS | 0x10).Ok());
    EXPECT_EQ(LED_FLAG_SCROLL | LED_FLAG_CAPS, *keyboard.GetLeds());
    ASSERT_TRUE(keyboard.SendKeyCommand(1, 0x3B).Ok());
    EXPECT_EQ(Status::Unsuccessful, keyboard.SendKeyCommand(1, 0x7F7F)) << "no such key";
    auto requests = pPlugged->TakenRequests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(EmuBytes{0x06}, requests[0].Data);
    EXPECT_EQ(3, requests[1].Setup[1]);
    EXPECT_EQ(0x3A, requests[1].Setup[2]); // F1

    pPlugged->SetRules({{EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerStatus, 0, STATUS_IO_TIMEOUT, 0, 0}});
    EXPECT_EQ("WRITE_VENDOR_MEMORY, keyboard 0: the keyboard did not answer in time (0xC00000B5)",
              keyboard.WriteVendorMemory(0, {1}).Text());
    EXPECT_EQ(Status::Unsuccessful, keyboard.ReadDeviceDescriptor().Error());
}

INSTANTIATE_TEST_SUITE_P(Processes, MemoryTest, BothProcessSizes, ProcessSizeName);
} // namespace
