// packet.h - one USB event of a capture, whatever the capture's format.
//
// The capture readers turn their formats into a list of these, in capture order; everything behind them knows
// this record only. Times are microseconds since the first packet of the capture.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

enum class TransferType { Control, Interrupt };

// How a transfer ended; the replay turns it into the statuses that the driver's world knows.
enum class Outcome { Ok, Stalled, Cancelled, Gone, Failed };

struct Packet {
    uint64_t ullUs = 0;
    unsigned uNumber = 0; // counted from 1, as capture viewers do
    uint16_t usBus = 0;
    uint16_t usDevice = 0;  // address on the bus
    uint8_t ucEndpoint = 0; // with the direction bit 0x80
    TransferType type = TransferType::Control;
    bool bSubmit = false;           // true: on its way to the device; false: completed
    uint64_t ullTransfer = 0;       // ties a completion to its submission
    std::array<uint8_t, 8> setup{}; // control
    Bytes data;
    uint32_t ulAsked = 0; // submissions: bytes asked for, or 0 when the format does not tell
    Outcome outcome = Outcome::Ok;
    bool bJoined = false; // control: its other half was found, and a completion's setup packet is that one's
    bool bCut = false;    // a snap length cut the data
};
