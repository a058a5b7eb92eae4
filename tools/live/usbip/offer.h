// offer.h - a keyboard with the driver in between, as a device that is offered.
#pragma once

#include "export.h"

#include "emu/app/machine.h"

namespace usbip
{

// What the driver filters of a keyboard: one of its interfaces.
struct Part {
    uint8_t ucInterface;
    bool bNumbered; // its reports begin with an ID
    EmuKeyboard* pKeyboard;
};

// What is asked of it travels down through the driver, to the interface that is meant, as the system's own requests do. The
// keyboards must not go before the export was withdrawn.
std::shared_ptr<Export> Offer(Device device, std::vector<Part> parts);
// An emulated one, under this bus id.
std::shared_ptr<Export> Offer(const std::string& bus, const EmuDescriptors& kind, EmuKeyboard& keyboard);

// The interrupt endpoint of a keyboard's only interface.
uint8_t EndpointOf(const EmuDescriptors& kind);

} // namespace usbip
