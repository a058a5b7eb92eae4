// verbs_requests.cpp - what a story's application asks of the driver, apart from definitions.
#include "player.h"

void Player::ExpectStatus(NTSTATUS status)
{
    EXPECT_EQ(status, m_bRefused ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS) << std::hex << status;
}

// refused REQUEST
void Player::Refused(const Words& words, const Parts& parts)
{
    m_bRefused = true;
    PlayVerb(Words(words.begin() + 1, words.end()), parts);
    m_bRefused = false;
}

// processing on, processing off
void Player::Processing(const Words& words, const Parts&)
{
    ExpectStatus(words.at(1) == "on" ? m_Application->StartReportProcessing(Index())
                                     : m_Application->StopReportProcessing(Index()));
}

// scans BYTES
void Player::Scans(const Words& words, const Parts&)
{
    ExpectStatus(m_Application->InsertScans(Index(), Bytes(words, 1)));
}

// packet BYTES
void Player::Packet(const Words& words, const Parts&)
{
    FifoEntry entry = {};
    for (UCHAR ucByte : Bytes(words, 1)) {
        entry.ucData[entry.usLength++ % sizeof(entry.ucData)] = ucByte;
    }
    ExpectStatus(m_Application->InsertUSBPackets(Index(), {entry}));
}

// modifiers NAMES
void Player::ExpectModifiers(const Words& words, const Parts&)
{
    std::vector<UCHAR> out;
    EXPECT_EQ(STATUS_SUCCESS,
              m_Application->RequestRecord(IOCTL_TVUSB_GET_MODIFIERS, Index(), nullptr, 0, 4, &out));
    ULONG ulFlags = 0;
    memcpy(&ulFlags, out.data(), sizeof(ulFlags));
    EXPECT_EQ(ulFlags, Modifiers(words.at(1)));
}
