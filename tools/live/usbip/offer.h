// offer.h - an emulated keyboard, with the driver in between, as a device that is offered.
#pragma once

#include "session.h"

#include "emu/app/machine.h"

namespace usbip
{

// The interrupt endpoint of a keyboard's only interface.
uint8_t EndpointOf(const EmuDescriptors& kind);
// What the keyboard of that kind looks like under this bus id. What is asked of it travels down through the driver, as the
// system's own requests do; the keyboard must outlive the export.
std::unique_ptr<Export> Offer(const std::string& bus, const EmuDescriptors& kind, EmuKeyboard& keyboard);

} // namespace usbip
