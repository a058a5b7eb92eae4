// usbmonrecord.cpp - the bytes of a usbmon record; tools/replay/usbmon.cpp reads them and draws the header.
#include "usbmonrecord.h"

#include <algorithm>

void PutNumber(Bytes& bytes, uint64_t ullValue, size_t cWidth)
{
    for (size_t i = 0; i < cWidth; ++i)
        bytes.push_back(static_cast<uint8_t>(ullValue >> (8 * i)));
}

Bytes UsbmonRecord::Encode() const
{
    Bytes bytes;
    bytes.reserve(64 + data.size());
    PutNumber(bytes, ullTransfer, 8);
    bytes.insert(bytes.end(), {static_cast<uint8_t>(cType), ucTransfer, ucEndpoint, ucDevice});
    PutNumber(bytes, usBus, 2);
    bytes.push_back(setup.empty() ? '-' : 0);
    bytes.push_back(data.empty() ? '<' : 0);
    PutNumber(bytes, ullUs / 1000000, 8);
    PutNumber(bytes, ullUs % 1000000, 4);
    PutNumber(bytes, static_cast<uint32_t>(cType == 'S' ? InProgress : lStatus), 4);
    PutNumber(bytes, std::max(cLength, data.size()), 4);
    PutNumber(bytes, data.size(), 4);
    bytes.insert(bytes.end(), setup.begin(), setup.end());
    bytes.resize(64);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}
