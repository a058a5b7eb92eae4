// capture.h - the USB packets of a capture, one after the other.
//
// Link types 189 and 220 (usbmon, short and long header) and 249 (the Windows capture header), several interfaces
// and kinds in one file; what other interfaces hold is left out and counted. Only control and interrupt transfers
// are kept. A control transfer is made whole on the way: a completion carries its setup packet, a submission that
// sends data carries all of it and how it ended, for which the packets behind it wait a moment. Memory does not
// grow with the file.
#pragma once

#include "blocks.h"
#include "packet.h"

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

// One captured record as the file holds it, behind the file format's own record header.
struct RawRecord {
    const uint8_t* pBytes;
    size_t cBytes; // bytes that the file holds
    uint64_t ullUs;
    unsigned uNumber;
    const std::string& file;
    uint64_t ullAt = 0;    // byte of the file
    bool bCut = false;     // by a snap length
    bool bSwapped = false; // written on a machine of the other byte order
};

// What a record tells, whatever its format; nothing is joined yet.
struct RawPacket {
    Packet packet;
    enum {
        Whole,
        Setup,
        Data,
        Done
    } stage = Whole; // Setup begins, Data adds to, Done ends a control transfer
};

// usbmon.cpp: cHeader is 48 or 64. False for other transfer types. Fails (InputError): shorter than it says.
bool DecodeUsbmon(const RawRecord& record, size_t cHeader, RawPacket& raw);
// wincapture.cpp: likewise.
bool DecodeWindows(const RawRecord& record, RawPacket& raw);

// Throws the InputError for one record of the file.
[[noreturn]] void FailAtPacket(const RawRecord& record, const std::string& what);

class CaptureReader
{
public:
    // Fails (InputError): no capture.
    explicit CaptureReader(SharedInput pInput, Reading reading = Reading::Whole);

    // False at the end. Fails (InputError): truncated, a broken record.
    bool Next(Packet& packet);

    unsigned Copies() const { return m_uCopies; }
    const std::map<uint16_t, unsigned>& LeftOut() const { return m_leftOut; } // records by link type
    unsigned Records() const { return m_uRecords; }
    unsigned UsbInterfaces() const; // that had a record
    const BlockReader& Blocks() const { return m_blocks; }

private:
    using TransferKey = std::pair<uint32_t, uint64_t>; // bus and device, request

    bool ReadRecord(bool& bTaken);
    bool IsCopy(const RawPacket& raw, const Block& block);
    void Join(RawPacket& raw);

    struct OpenTransfer {
        uint64_t ullPlace; // of its submission, counted over all packets
        std::array<uint8_t, 8> setup;
    };
    struct Seen {
        uint64_t ullUs;
        unsigned uInterface;
    };

    BlockReader m_blocks;
    RawPacket m_raw;             // of the record that was read last
    std::deque<Packet> m_window; // read and not handed out
    uint64_t m_ullHanded = 0;    // packets handed out
    std::map<TransferKey, OpenTransfer> m_open;
    std::unordered_map<uint64_t, Seen> m_seen;
    std::map<uint16_t, unsigned> m_leftOut;
    std::vector<bool> m_used; // interfaces with a USB record
    unsigned m_uCopies = 0, m_uRecords = 0;
    uint64_t m_ullFirst = 0, m_ullLatest = 0;
    bool m_bEnded = false;
};

// All packets of a capture.
std::vector<Packet> ReadCapture(const std::string& file);
