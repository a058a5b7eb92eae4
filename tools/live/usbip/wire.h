// wire.h - USB/IP as it travels: protocol 1.1.1, as the kernel's Documentation/usb/usbip_protocol.rst tells it. Every
// number is big-endian; a setup packet and data are as on the bus.
//
//   before a device is imported    OP_REQ_DEVLIST ──► the list       OP_REQ_IMPORT, its bus id ──► the device, or an error
//   afterwards                     USBIP_CMD_SUBMIT ──► USBIP_RET_SUBMIT      USBIP_CMD_UNLINK ──► USBIP_RET_UNLINK
#pragma once

#include "tools/replay/packet.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace usbip
{

constexpr size_t OperationBytes = 8, BusIdBytes = 32, HeadBytes = 48;
constexpr uint32_t MostBytes = 0xFFFF; // of a transfer: as much as a setup packet can ask for

enum class Operation : uint16_t { Import = 0x8003, DeviceList = 0x8005 };

// A request's result, as Linux numbers errors; others map it.
enum Result : int32_t { Good = 0, Stalled = -32, Unlinked = -104 };

// What a device is told as.
struct Device {
    std::string bus;      // "1-1", at most 31 bytes
    uint32_t ulSpeed = 2; // 1 low, 2 full, 3 high
    Bytes device;         // its device descriptor, 18 bytes
    Bytes configuration;  // its only configuration, whole
};

// The first word of a connection; nothing for another version or operation.
std::optional<Operation> ReadOperation(const std::array<uint8_t, OperationBytes>& bytes);
Bytes ListAnswer(const std::vector<const Device*>& devices);
// Null: no such device, or somebody has it.
Bytes ImportAnswer(const Device* pDevice);

// A request for a transfer, or the end of one (bUnlink) that is to be told under ulUnlinked.
struct Request {
    bool bUnlink = false;
    uint32_t ulSequence = 0, ulUnlinked = 0;
    bool bIn = false;
    uint8_t ucEndpoint = 0;
    uint32_t ulBytes = 0; // that go out behind the head, or that there is room for
    std::array<uint8_t, 8> setup{};
};

// Nothing for what no peer sends that keeps to the protocol, and for isochronous transfers, which no keyboard has.
std::optional<Request> ReadRequest(const std::array<uint8_t, HeadBytes>& bytes);
// Of a transfer that went out, `data` has as many bytes as went.
Bytes SubmitAnswer(const Request& request, Result result, const Bytes& data);
Bytes UnlinkAnswer(const Request& request, Result result);

} // namespace usbip
