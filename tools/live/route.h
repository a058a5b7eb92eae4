// route.h - how a request from above, of the kernel's HID stack or of another machine, travels down to the driver.
#pragma once

#include "emu/hid/hid.h"

#include <cstdint>

// Descriptors and class requests have URBs of their own; all else travels as it is.
inline EmuHidRoute RouteOf(const uint8_t* pSetup)
{
    constexpr uint8_t GetDescriptor = 6;
    if ((pSetup[0] & 0x7F) == 0x21)
        return EmuHidRouteClass;
    return (pSetup[0] & 0xFE) == 0x80 && pSetup[1] == GetDescriptor ? EmuHidRouteDescriptor
                                                                    : EmuHidRouteControl;
}
