// capture.cpp - from the records of a capture file to whole packets in order.
//
// A clock that steps back inside the capture is held still: time never runs backwards in a replay. The window holds
// what was read and waits behind a request whose end has not been seen:
//
//   handed out | SET_REPORT (waits for its end)  report  report  completion | not read yet
#include "capture.h"
#include "tools/common/failure.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

constexpr uint16_t LinkUsbmonShort = 189, LinkUsbmonLong = 220, LinkWindows = 249;
constexpr size_t MostWaiting = 4096; // packets behind a request that does not end
constexpr size_t MostOpen = 4096;    // requests that never ended
constexpr uint64_t CopyUs = 1000;

bool IsUsb(uint16_t usLink)
{
    return usLink == LinkUsbmonShort || usLink == LinkUsbmonLong || usLink == LinkWindows;
}

bool Waits(const Packet& packet)
{
    return packet.type == TransferType::Control && packet.bSubmit && !(packet.setup[0] & 0x80) &&
           !packet.bJoined;
}

} // namespace

void FailAtPacket(const RawRecord& record, const std::string& what)
{
    throw InputError(
        fmt::format("{}: packet {}: {} (byte {})", record.file, record.uNumber, what, record.ullAt));
}

CaptureReader::CaptureReader(SharedInput pInput, Reading reading) : m_blocks(std::move(pInput), reading) {}

unsigned CaptureReader::UsbInterfaces() const
{
    return static_cast<unsigned>(std::count(m_used.begin(), m_used.end(), true));
}

bool CaptureReader::Next(Packet& packet)
{
    while (m_window.empty() || (Waits(m_window.front()) && m_window.size() < MostWaiting && !m_bEnded)) {
        if (m_bEnded)
            return false;
        bool bTaken = false;
        m_bEnded = !ReadRecord(bTaken);
        if (bTaken && m_window.empty() && m_raw.packet.type != TransferType::Control) {
            std::swap(packet, m_raw.packet);
            ++m_ullHanded;
            return true;
        }
        if (bTaken)
            Join(m_raw);
    }
    packet = std::move(m_window.front());
    m_window.pop_front();
    ++m_ullHanded;
    return true;
}

// Reads the next record of the file, into m_raw if it is to be taken. False at its end.
bool CaptureReader::ReadRecord(bool& bTaken)
{
    Block block;
    if (!m_blocks.Next(block))
        return false;
    uint16_t usLink = m_blocks.Interface(block.uInterface).usLink;
    if (!IsUsb(usLink)) {
        ++m_leftOut[usLink];
        return true;
    }
    if (m_uRecords++ == 0)
        m_ullFirst = block.ullUs;
    m_ullLatest = std::max(m_ullLatest, block.ullUs > m_ullFirst ? block.ullUs - m_ullFirst : 0);
    if (m_used.size() <= block.uInterface)
        m_used.resize(block.uInterface + 1);
    m_used[block.uInterface] = true;
    RawRecord record{block.pBytes,
                     block.cBytes,
                     m_ullLatest,
                     block.uNumber,
                     m_blocks.Name(),
                     block.ullAt,
                     block.cOriginal > block.cBytes,
                     block.bSwapped};
    Bytes memory = std::move(m_raw.packet.data);
    memory.clear();
    m_raw = {};
    m_raw.packet.data = std::move(memory);
    bTaken = usLink == LinkWindows ? DecodeWindows(record, m_raw)
                                   : DecodeUsbmon(record, usLink == LinkUsbmonLong ? 64 : 48, m_raw);
    if (bTaken && IsCopy(m_raw, block)) {
        ++m_uCopies;
        bTaken = false;
    }
    return true;
}

// True when another interface of the file has just shown the same packet: the same request, kind and endpoint.
bool CaptureReader::IsCopy(const RawPacket& raw, const Block& block)
{
    if (m_blocks.Interfaces() < 2)
        return false;
    if (m_seen.size() > MostWaiting)
        m_seen.clear();
    const Packet& packet = raw.packet;
    uint64_t ullKey = packet.ullTransfer * 0x9E3779B97F4A7C15ull;
    ullKey ^= static_cast<uint64_t>(packet.ucEndpoint) | packet.bSubmit << 8 |
              (packet.type == TransferType::Control) << 9 | static_cast<uint64_t>(raw.stage) << 10;
    auto [seen, bNew] = m_seen.try_emplace(ullKey, Seen{block.ullUs, block.uInterface});
    uint64_t ullApart = block.ullUs > seen->second.ullUs ? block.ullUs - seen->second.ullUs
                                                         : seen->second.ullUs - block.ullUs;
    if (!bNew && seen->second.uInterface != block.uInterface && ullApart <= CopyUs)
        return true;
    seen->second = {block.ullUs, block.uInterface};
    return false;
}

void CaptureReader::Join(RawPacket& raw)
{
    Packet& packet = raw.packet;
    if (packet.type != TransferType::Control) {
        m_window.push_back(std::move(packet));
        return;
    }
    TransferKey key{static_cast<uint32_t>(packet.usBus) << 16 | packet.usDevice, packet.ullTransfer};
    if (raw.stage == RawPacket::Setup) {
        if (m_open.size() > MostOpen)
            m_open.clear();
        m_open[key] = {m_ullHanded + m_window.size(), packet.setup};
        m_window.push_back(std::move(packet));
        return;
    }
    auto open = m_open.find(key);
    if (open == m_open.end())
        return;
    bool bWaiting = open->second.ullPlace >= m_ullHanded;
    Packet* pRequest = bWaiting ? &m_window[open->second.ullPlace - m_ullHanded] : nullptr;
    bool bComesIn = (open->second.setup[0] & 0x80) != 0;
    if (raw.stage == RawPacket::Data &&
        (!bComesIn || packet.bSubmit)) { // data going out, whichever way it is marked
        if (pRequest && !bComesIn)
            pRequest->data.insert(pRequest->data.end(), packet.data.begin(), packet.data.end());
        if (pRequest && !packet.bSubmit) { // it has been sent; a status stage may say more
            pRequest->bJoined = true;
            pRequest->outcome = packet.outcome;
        }
        return;
    }
    if (packet.bSubmit)
        return;
    packet.setup = open->second.setup;
    packet.bJoined = true;
    if (pRequest) {
        pRequest->bJoined = true;
        pRequest->outcome = packet.outcome;
    }
    m_open.erase(open);
    m_window.push_back(std::move(packet));
}

std::vector<Packet> ReadCapture(const std::string& file)
{
    CaptureReader reader(std::make_shared<InputFile>(file));
    std::vector<Packet> packets;
    for (Packet packet; reader.Next(packet);)
        packets.push_back(std::move(packet));
    return packets;
}
