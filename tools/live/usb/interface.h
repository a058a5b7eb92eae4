// interface.h - one HID interface of a real keyboard, as its descriptors tell: what the driver's stack is built on, and
// what a HID device above is made of.
#pragma once

#include "emu/keyboard/keyboard.h"
#include "tools/replay/packet.h"

#include <string>
#include <vector>

struct UsbInterface {
    uint8_t ucNumber = 0;
    uint8_t ucEndpoint = 0; // interrupt-IN
    uint16_t usPacketBytes = 0;
    Bytes device, configuration; // the latter of this interface alone
    Bytes report;                // the report descriptor
    std::u16string maker, product, hardwareId;

    uint16_t Vendor() const { return static_cast<uint16_t>(device[8] | device[9] << 8); }
    uint16_t Product() const { return static_cast<uint16_t>(device[10] | device[11] << 8); }
    // The descriptors as a stack is told them; they live as long as this record.
    EmuDescriptors Descriptors() const;
};

// The device with those interfaces that were taken.
struct UsbDevice {
    Bytes device, configuration;
    uint32_t ulSpeed = 2; // 1 low, 2 full, 3 high
};
// The configuration without the other interfaces: as it is when there are none.
Bytes ConfigurationOf(const Bytes& configuration, const std::vector<uint8_t>& interfaces);

// From the device descriptor and the whole configuration. Fails (std::runtime_error): no such interface, no
// interrupt-IN endpoint, a broken descriptor.
UsbInterface InterfaceOf(const Bytes& device, const Bytes& configuration, uint8_t ucNumber);

// What the HID descriptor of an interface says: the version of HID, and the country.
struct HidHead {
    uint16_t usVersion = 0;
    uint8_t ucCountry = 0;
    uint16_t usReportBytes = 0; // of the report descriptor
};
HidHead HidHeadOf(const Bytes& configuration);

// True when the reports begin with an ID.
bool HasReportIds(const Bytes& reportDescriptor);
