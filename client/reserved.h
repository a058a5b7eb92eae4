// reserved.h - requests that exist and do nothing; for whoever tests a driver.
#pragma once

#include "client/channel.h"

namespace tvusb
{
class Reserved
{
public:
    explicit Reserved(Channel channel) : m_Channel(std::move(channel)) {}

    // Each always fails with InvalidDeviceRequest.
    Status Refused806() const { return Nothing(IOCTL_TVUSB_REFUSED_806); }
    Status Refused807() const { return Nothing(IOCTL_TVUSB_REFUSED_807); }
    Status Refused808() const { return Nothing(IOCTL_TVUSB_REFUSED_808); }
    Status Refused809() const { return Nothing(IOCTL_TVUSB_REFUSED_809); }
    Status Refused812() const { return Nothing(IOCTL_TVUSB_REFUSED_812); }
    // Always fails with Unsuccessful.
    Status Fail() const;
    // 0.
    Result<uint32_t> GetZero() const { return m_Channel.Ask<uint32_t>(IOCTL_TVUSB_GET_ZERO); }
    // 0. A 64-bit process is refused with InvalidDeviceRequest when bit 1 or 2 of the value is set.
    Result<uint32_t> CheckZero(uint32_t ulValue) const;

private:
    Status Nothing(uint32_t ulCode) const;

    Channel m_Channel;
};
} // namespace tvusb
