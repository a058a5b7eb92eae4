// usbmonrecord.h - one record with the long usbmon header (link type 220), for captures that are written.
#pragma once

#include "tools/replay/packet.h"

#include <cstddef>

struct UsbmonRecord {
    static constexpr uint8_t Interrupt = 1, Control = 2;
    static constexpr int32_t InProgress = -115;

    char cType = 'C'; // 'S' submitted, 'C' completed
    uint8_t ucTransfer = Interrupt;
    uint8_t ucEndpoint = 0x81;
    uint8_t ucDevice = 1;
    uint16_t usBus = 1;
    uint64_t ullTransfer = 0; // a submission and its completion share it
    uint64_t ullUs = 0;
    int32_t lStatus = 0;
    size_t cLength = 0; // asked for, where nothing goes out; else the data's
    Bytes setup;        // of a control transfer that is submitted
    Bytes data;

    Bytes Encode() const;
};

// Appends the value, least significant byte first.
void PutNumber(Bytes& bytes, uint64_t ullValue, size_t cWidth);
