// verbs_requests.cpp - what a story's application asks of the driver, apart from definitions.
#include "player.h"

// processing on, processing off
void Player::Processing(const Words& words, const Parts&)
{
    EXPECT_EQ(words.at(1) == "on" ? m_Application->StartReportProcessing(Index())
                                  : m_Application->StopReportProcessing(Index()),
              STATUS_SUCCESS);
}

// scans BYTES
void Player::Scans(const Words& words, const Parts&)
{
    EXPECT_EQ(m_Application->InsertScans(Index(), Bytes(words, 1)), STATUS_SUCCESS);
}

// packet BYTES
void Player::Packet(const Words& words, const Parts&)
{
    FifoEntry entry = {};
    for (UCHAR ucByte : Bytes(words, 1)) {
        entry.ucData[entry.usLength++ % sizeof(entry.ucData)] = ucByte;
    }
    EXPECT_EQ(m_Application->InsertUSBPackets(Index(), {entry}), STATUS_SUCCESS);
}

// modifiers NAMES
void Player::ExpectModifiers(const Words& words, const Parts&)
{
    std::vector<UCHAR> out;
    EXPECT_EQ(m_Application->RequestRecord(IOCTL_TVUSB_GET_MODIFIERS, Index(), nullptr, 0, 4, &out),
              STATUS_SUCCESS);
    ULONG ulFlags = 0;
    memcpy(&ulFlags, out.data(), sizeof(ulFlags));
    EXPECT_EQ(ulFlags, Modifiers(words.at(1)));
}
