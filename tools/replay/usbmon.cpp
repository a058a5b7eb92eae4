// usbmon.cpp - what one usbmon record holds.
//
// Header (byte order of the machine that captured):
//
//   0 u64 id   8 type 'S' 'C' 'E'   9 transfer type   10 endpoint   11 device   12 u16 bus   14 setup flag
//   15 data flag   16 s64 seconds   24 s32 microseconds   28 s32 status   32 u32 length   36 u32 captured
//   length 40 setup packet   (long header only: 48 .. 63)   then the data
#include "capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr uint8_t TypeInterrupt = 1, TypeControl = 2;

template <typename T> T FieldAt(const RawRecord& record, size_t cOffset)
{
    uint8_t bytes[sizeof(T)];
    memcpy(bytes, record.pBytes + cOffset, sizeof(T));
    if (record.bSwapped)
        std::reverse(bytes, bytes + sizeof(T));
    T value;
    memcpy(&value, bytes, sizeof(T));
    return value;
}

// The system's error numbers as they stand in usbmon records, which are those of Linux wherever they are
// read.
Outcome OutcomeOf(int32_t lStatus)
{
    switch (lStatus) {
    case 0:
        return Outcome::Ok;
    case -32: // EPIPE
        return Outcome::Stalled;
    case -2:   // ENOENT
    case -104: // ECONNRESET
        return Outcome::Cancelled;
    case -19:  // ENODEV
    case -108: // ESHUTDOWN
        return Outcome::Gone;
    default:
        return Outcome::Failed;
    }
}

// The number of data bytes behind the header. Some writers (virtual machines) count the header in the captured
// length; the length of the transfer tells.
// Fails (InputError): the record ends before its data.
uint32_t DataBytes(const RawRecord& record, size_t cHeader)
{
    size_t cBehind = record.cBytes - cHeader;
    uint32_t ulLength = FieldAt<uint32_t>(record, 32);
    uint32_t ulCaptured = FieldAt<uint32_t>(record, 36);
    if (ulCaptured == record.cBytes && ulLength == cBehind)
        return ulLength;
    if (ulCaptured > cBehind && record.bCut)
        return static_cast<uint32_t>(cBehind);
    if (ulCaptured > cBehind)
        FailAtPacket(record, fmt::format("truncated: {} of {} data bytes", cBehind, ulCaptured));
    return ulCaptured;
}

} // namespace

// Records of other transfer types are left out; a failed submission ('E') counts as a completion with its
// error. Fails (InputError): a record shorter than its header says.
bool DecodeUsbmon(const RawRecord& record, size_t cHeader, RawPacket& raw)
{
    const uint8_t* pBytes = record.pBytes;
    if (record.cBytes < cHeader)
        FailAtPacket(record, fmt::format("truncated: {} of {} header bytes", record.cBytes, cHeader));
    uint8_t ucTransfer = pBytes[9];
    if (ucTransfer != TypeInterrupt && ucTransfer != TypeControl)
        return false;
    uint32_t ulCaptured = DataBytes(record, cHeader);

    Packet& packet = raw.packet;
    packet.ullUs = record.ullUs;
    packet.uNumber = record.uNumber;
    packet.usBus = FieldAt<uint16_t>(record, 12);
    packet.usDevice = pBytes[11];
    packet.ucEndpoint = pBytes[10];
    packet.type = ucTransfer == TypeControl ? TransferType::Control : TransferType::Interrupt;
    packet.bSubmit = pBytes[8] == 'S';
    packet.ullTransfer = FieldAt<uint64_t>(record, 0);
    packet.data.assign(pBytes + cHeader, pBytes + cHeader + ulCaptured);
    if (packet.bSubmit) {
        packet.ulAsked = FieldAt<uint32_t>(record, 32);
        if (packet.type == TransferType::Control)
            memcpy(packet.setup.data(), pBytes + 40, 8);
        raw.stage = RawPacket::Setup;
    } else {
        packet.outcome = OutcomeOf(FieldAt<int32_t>(record, 28));
        raw.stage = RawPacket::Done;
    }
    packet.bCut = record.bCut;
    return true;
}
