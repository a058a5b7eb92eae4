// wincapture.cpp - what one record with the Windows capture header holds.
//
// Header, little-endian and packed:
//
//   0 u16 header length   2 u64 request   10 u32 status   14 u16 function   16 info (bit 0: coming back up)
//   17 u16 bus   19 u16 device   21 endpoint   22 transfer type   23 u32 data length   (control: 27 stage)
//
// A control transfer is several records: the setup stage (8 setup bytes, maybe the data that goes out), a
// data stage, and a status or complete stage. Older writers mark every stage but the first as coming back up, also
// data that goes out. The first record that comes back up, other than such data, completes the transfer here.
#include "capture.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
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

// Checks the lengths that a record claims against what the file holds.
void CheckLengths(const RawRecord& record)
{
    size_t cHeader = record.cBytes >= HeaderBytes ? LittleEndian(record.pBytes, 0, 2) : HeaderBytes;
    if (record.cBytes < cHeader)
        FailAtPacket(record, fmt::format("truncated: {} of {} header bytes", record.cBytes, cHeader));
    bool bControl = record.pBytes[22] == TransferControl;
    if (cHeader < HeaderBytes + (bControl ? 1 : 0))
        FailAtPacket(record, fmt::format("a header of {} bytes is too short", cHeader));
    uint64_t ullData = LittleEndian(record.pBytes, 23, 4);
    if (ullData > record.cBytes - cHeader && !record.bCut)
        FailAtPacket(record, fmt::format("truncated: {} of {} data bytes", record.cBytes - cHeader, ullData));
}

} // namespace

// Records of other transfer types are left out.
// Fails (InputError): a record shorter than its header says.
bool DecodeWindows(const RawRecord& record, RawPacket& raw)
{
    const uint8_t* pBytes = record.pBytes;
    uint8_t ucTransfer = record.cBytes >= HeaderBytes ? pBytes[22] : TransferInterrupt;
    if (ucTransfer != TransferInterrupt && ucTransfer != TransferControl)
        return false;
    CheckLengths(record);

    Packet& packet = raw.packet;
    packet.ullUs = record.ullUs;
    packet.uNumber = record.uNumber;
    packet.ullTransfer = LittleEndian(pBytes, 2, 8);
    packet.bSubmit = (pBytes[16] & 1) == 0;
    packet.usBus = static_cast<uint16_t>(LittleEndian(pBytes, 17, 2));
    packet.usDevice = static_cast<uint16_t>(LittleEndian(pBytes, 19, 2));
    packet.ucEndpoint = pBytes[21];
    packet.outcome =
        packet.bSubmit ? Outcome::Ok : OutcomeOf(static_cast<uint32_t>(LittleEndian(pBytes, 10, 4)));
    size_t cHeader = LittleEndian(pBytes, 0, 2), cData = LittleEndian(pBytes, 23, 4);
    packet.bCut = cData > record.cBytes - cHeader;
    const uint8_t* pData = pBytes + cHeader;
    packet.data.assign(pData, pData + std::min(cData, record.cBytes - cHeader));
    packet.type = ucTransfer == TransferControl ? TransferType::Control : TransferType::Interrupt;
    if (ucTransfer != TransferControl)
        return true;

    packet.ucEndpoint &= 0x80;
    uint8_t ucStage = pBytes[HeaderBytes];
    raw.stage = ucStage == StageData ? RawPacket::Data : RawPacket::Done;
    if (packet.bSubmit && ucStage == StageSetup) {
        raw.stage = RawPacket::Setup;
        if (packet.data.size() < 8)
            FailAtPacket(record, "truncated: a setup packet has 8 bytes");
        memcpy(packet.setup.data(), packet.data.data(), 8);
        packet.data.erase(packet.data.begin(), packet.data.begin() + 8);
        packet.ulAsked = WordAt(packet.setup.data(), 6);
    }
    return true;
}
