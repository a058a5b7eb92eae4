// macros.h - macro mode and the capture of reports.
#pragma once

#include "client/events.h"

namespace tvusb
{
class MacroMode
{
public:
    explicit MacroMode(Channel channel) : m_Channel(std::move(channel)) {}

    // Whether the macro mode is on; the keyboard's mode key switches it.
    Result<bool> IsOn() const;
    // Reads the macro settings and the macro file again, up to the first setting that is absent, which is reset.
    Status Reload() const;
    // Mode changes and captured reports, of all keyboards.
    MacroQueue Records() const;
    // While 1, and a mode key is set, reports of ordinary keyboards come as records instead of reaching the system.
    // SetCapture takes any byte; the value stays when the driver is closed.
    Result<uint32_t> GetCapture() const;
    Status SetCapture(uint8_t ucValue) const;

private:
    Channel m_Channel;
};
} // namespace tvusb
