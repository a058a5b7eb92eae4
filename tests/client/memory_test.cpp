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
    EXPECT_EQ(*keyboard.GetEepromSize(), 64u);
    ASSERT_TRUE(keyboard.WriteEeprom(10, {1, 2, 3}).Ok());
    EXPECT_EQ(*keyboard.ReadEeprom(9, 5), (Memory{0xFF, 1, 2, 3, 0xFF}));
    EXPECT_EQ(keyboard.ReadEeprom(63, 2)->at(1), 0) << "beyond the end";

    // Longer than a record.
    Memory data(1000);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<uint8_t>(i * 7);
    }
    ASSERT_TRUE(keyboard.WriteDescriptorMemory(0x123, data).Ok());
    EXPECT_EQ(*keyboard.ReadDescriptorMemory(0x123, 1000), data);
    ASSERT_TRUE(keyboard.WriteVendorMemory(0x321, {5, 6}).Ok());
    EXPECT_EQ(*keyboard.ReadVendorMemory(0x321, 2), (Memory{5, 6}));
    EXPECT_EQ(*keyboard.ReadDescriptorMemory(0x321, 1), Memory{data[0x321 - 0x123]}) << "each has its own";
}

TEST_P(MemoryTest, DescriptorsAreRead)
{
    auto descriptor = keyboard.ReadDeviceDescriptor();
    ASSERT_TRUE(descriptor.Ok());
    EXPECT_EQ(descriptor->idVendor, 0x7A3C);
    EXPECT_EQ(descriptor->idProduct, 0x0101);

    EXPECT_EQ(*keyboard.ReadString(0, 0), u"\u0409\u0407\u040C");
    EXPECT_EQ(*keyboard.ReadString(2, 0x0409), u"Boot keyboard");
    EXPECT_EQ(*keyboard.ReadString(2, 0x0407), u"Nachgebildete Tastatur");
    EXPECT_EQ(*keyboard.ReadString(4, 0x0409), u"");
    EXPECT_EQ(keyboard.ReadString(5, 0x0409)->size(), 126u);
    EXPECT_EQ(keyboard.ReadString(6, 0x0409)->size(), 126u) << "255 bytes are 126 characters and a half";
    EXPECT_EQ(keyboard.ReadString(9, 0x0409).Error().Text(),
              "READ_STRING_DESCRIPTOR, keyboard 0: no keyboard has this index, or it gave no such string "
              "(0xC0000001)");

    pPlugged->Unplug(true);
    EXPECT_EQ(keyboard.ReadDeviceDescriptor().Error(), Status::Unsuccessful);
    EXPECT_EQ(keyboard.ReadString(2, 0x0409).Error(), Status::Unsuccessful);
    EXPECT_EQ(keyboard.GetEepromSize().Error(), Status::Unsuccessful);
    EXPECT_TRUE(keyboard.Events().TakeMany(3)->empty());
}

TEST_P(MemoryTest, LedsAndCommandsReachTheKeyboard)
{
    pPlugged->TakenRequests();
    ASSERT_TRUE(keyboard.SetLeds(LED_FLAG_SCROLL | LED_FLAG_CAPS | 0x10).Ok());
    EXPECT_EQ(*keyboard.GetLeds(), LED_FLAG_SCROLL | LED_FLAG_CAPS);
    ASSERT_TRUE(keyboard.SendKeyCommand(1, 0x3B).Ok());
    EXPECT_EQ(keyboard.SendKeyCommand(1, 0x7F7F), Status::Unsuccessful) << "no such key";
    auto requests = pPlugged->TakenRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].Data, EmuBytes{0x06});
    EXPECT_EQ(requests[1].Setup[1], 3);
    EXPECT_EQ(requests[1].Setup[2], 0x3A); // F1

    pPlugged->SetRules({{EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerStatus, 0, STATUS_IO_TIMEOUT, 0, 0}});
    EXPECT_EQ(keyboard.WriteVendorMemory(0, {1}).Text(),
              "WRITE_VENDOR_MEMORY, keyboard 0: the keyboard did not answer in time (0xC00000B5)");
    EXPECT_EQ(keyboard.ReadDeviceDescriptor().Error(), Status::Unsuccessful);
}

INSTANTIATE_TEST_SUITE_P(Processes, MemoryTest, BothProcessSizes, ProcessSizeName);
} // namespace
