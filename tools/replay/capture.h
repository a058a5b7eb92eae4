// capture.h - reads a USB capture file (pcap or pcapng) into a list of packets.
//
// Link types 189 and 220 (usbmon, short and long header) and 249 (the Windows capture header). Only control
// and interrupt transfers are kept. The whole file is read and checked at once.
#pragma once

#include "packet.h"

#include <cstddef>
#include <string>
#include <vector>

// One captured record as the file holds it, behind the file format's own record header.
struct RawRecord {
    const uint8_t* pBytes;
    size_t cBytes; // bytes that the file holds
    uint64_t ullUs;
    unsigned uNumber;
    const std::string& file;
};

// Reads the file. Fails (InputError): no capture, truncated, unknown link type, a broken record.
std::vector<Packet> ReadCapture(const std::string& file);

// True when the file begins like a pcap or pcapng file, complete or not.
bool LooksLikeCapture(const Bytes& start);

// usbmon.cpp: appends the packet of one usbmon record; cHeader is 48 or 64.
void DecodeUsbmon(const RawRecord& record, size_t cHeader, std::vector<Packet>& packets);

// wincapture.cpp: appends to the packets, or completes the submission a record belongs to.
void DecodeWindows(const RawRecord& record, std::vector<Packet>& packets);

// Throws the InputError for one record of the file.
[[noreturn]] void FailAtPacket(const std::string& file, unsigned uNumber, const std::string& what);
