// wincapture.cpp - what one record with the Windows capture header holds.
//
// Header, little-endian and packed:
//
//   0 u16 header length   2 u64 request   10 u32 status   14 u16 function   16 info (bit 0: coming back up)
//   17 u16 bus   19 u16 device   21 endpoint   22 transfer type   23 u32 data length   (control: 27 stage)
//
// A control transfer is several records: the setup stage (8 setup bytes, maybe the data that goes out), a
// data stage, and a status or complete stage. The first record that comes back up completes the transfer
// here.
#include "capture.h"

#include <fmt/format.h>

#include <cstring>

namespace
{

constexpr size_t HeaderBytes = 27;
constexpr uint8_t TransferInterrupt = 1, TransferControl = 2;
constexpr uint8_t StageSetup = 0, StageData = 1;

uint64_t LittleEndian(const uint8_t* pBytes, size_t cOffset, size_t cWidth)
{
    uint64_t ullValue = 0;
    for (size_t i = 0; i < cWidth; ++i)
        ullValue |= static_cast<uint64_t>(pBytes[cOffset + i]) << (8 * i);
    return ullValue;
}

// The bus driver's statuses: the two top bits tell success (00), anything else is a failure of some kind.
Outcome OutcomeOf(uint32_t ulStatus)
{
    if (ulStatus >> 30 == 0)
        return Outcome::Ok;
    switch (ulStatus) {
    case 0xC0000004: // stall
    case 0xC0000030: // endpoint halted
        return Outcome::Stalled;
    case 0xC0010000: // cancelled
        return Outcome::Cancelled;
    case 0xC0007000: // device gone
        return Outcome::Gone;
    default:
        return Outcome::Failed;
    }
}

bool SameTransfer(const Packet& a, const Packet& b)
{
    return a.type == b.type && a.ullTransfer == b.ullTransfer && a.usBus == b.usBus &&
           a.usDevice == b.usDevice;
}

// The latest packet of the same transfer, or null.
Packet* LatestOf(const Packet& packet, std::vector<Packet>& packets)
{
    for (auto it = packets.rbegin(); it != packets.rend(); ++it)
        if (SameTransfer(*it, packet))
            return &*it;
    return nullptr;
}

// Folds the record of one stage of a control transfer into the list: a setup stage becomes a submission, data
// going out joins it, and the first record coming back up becomes its completion.
void AddControlStage(const RawRecord& record, uint8_t ucStage, Packet packet, std::vector<Packet>& packets)
{
    packet.ucEndpoint &= 0x80;
    if (packet.bSubmit && ucStage == StageSetup) {
        if (packet.data.size() < 8)
            FailAtPacket(record.file, record.uNumber, "truncated: a setup packet has 8 bytes");
        memcpy(packet.setup.data(), packet.data.data(), 8);
        packet.data.erase(packet.data.begin(), packet.data.begin() + 8);
        packet.ulAsked = packet.setup[6] | packet.setup[7] << 8;
        packets.push_back(std::move(packet));
        return;
    }
    Packet* pLatest = LatestOf(packet, packets);
    if (!pLatest || !pLatest->bSubmit)
        return;
    if (!packet.bSubmit)
        packets.push_back(std::move(packet));
    else if (ucStage == StageData)
        pLatest->data.insert(pLatest->data.end(), packet.data.begin(), packet.data.end());
}

// Checks the lengths that a record claims against what the file holds.
void CheckLengths(const RawRecord& record)
{
    size_t cHeader = record.cBytes >= HeaderBytes ? LittleEndian(record.pBytes, 0, 2) : HeaderBytes;
    if (record.cBytes < cHeader)
        FailAtPacket(record.file, record.uNumber,
                     fmt::format("truncated: {} of {} header bytes", record.cBytes, cHeader));
    bool bControl = record.pBytes[22] == TransferControl;
    if (cHeader < HeaderBytes + (bControl ? 1 : 0))
        FailAtPacket(record.file, record.uNumber, fmt::format("a header of {} bytes is too short", cHeader));
    uint64_t ullData = LittleEndian(record.pBytes, 23, 4);
    if (ullData > record.cBytes - cHeader)
        FailAtPacket(record.file, record.uNumber,
                     fmt::format("truncated: {} of {} data bytes", record.cBytes - cHeader, ullData));
}

} // namespace

// Records of other transfer types are left out.
// Fails (InputError): a record shorter than its header says.
void DecodeWindows(const RawRecord& record, std::vector<Packet>& packets)
{
    const uint8_t* pBytes = record.pBytes;
    uint8_t ucTransfer = record.cBytes >= HeaderBytes ? pBytes[22] : TransferInterrupt;
    if (ucTransfer != TransferInterrupt && ucTransfer != TransferControl)
        return;
    CheckLengths(record);

    Packet packet;
    packet.ullUs = record.ullUs;
    packet.uNumber = record.uNumber;
    packet.ullTransfer = LittleEndian(pBytes, 2, 8);
    packet.bSubmit = (pBytes[16] & 1) == 0;
    packet.usBus = static_cast<uint16_t>(LittleEndian(pBytes, 17, 2));
    packet.usDevice = static_cast<uint16_t>(LittleEndian(pBytes, 19, 2));
    packet.ucEndpoint = pBytes[21];
    packet.outcome =
        packet.bSubmit ? Outcome::Ok : OutcomeOf(static_cast<uint32_t>(LittleEndian(pBytes, 10, 4)));
    const uint8_t* pData = pBytes + LittleEndian(pBytes, 0, 2);
    packet.data.assign(pData, pData + LittleEndian(pBytes, 23, 4));
    if (ucTransfer == TransferControl) {
        packet.type = TransferType::Control;
        AddControlStage(record, pBytes[HeaderBytes], std::move(packet), packets);
    } else {
        packet.type = TransferType::Interrupt;
        packets.push_back(std::move(packet));
    }
}
