// interface.cpp - reads what the descriptors of a real keyboard tell of one interface.
#include "interface.h"

#include "emu/hid/hid.h"
#include "tools/replay/configuration.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace
{
uint16_t WordOf(const uint8_t* pBytes)
{
    return static_cast<uint16_t>(pBytes[0] | pBytes[1] << 8);
}
} // namespace

EmuDescriptors UsbInterface::Descriptors() const
{
    return {device.data(),
            configuration.data(),
            static_cast<ULONG>(configuration.size()),
            report.data(),
            static_cast<ULONG>(report.size()),
            reinterpret_cast<const WCHAR*>(maker.c_str()),
            reinterpret_cast<const WCHAR*>(product.c_str()),
            reinterpret_cast<const WCHAR*>(hardwareId.c_str())};
}

Bytes ConfigurationOf(const Bytes& configuration, const std::vector<uint8_t>& interfaces)
{
    constexpr size_t HeadBytes = 9;
    if (CountInterfaces(configuration) == interfaces.size() || configuration.size() < HeadBytes)
        return configuration;
    Bytes kept(configuration.begin(), configuration.begin() + HeadBytes);
    for (uint8_t ucInterface : interfaces) {
        const Bytes own = OwnConfiguration(configuration, ucInterface);
        kept.insert(kept.end(), own.begin() + HeadBytes, own.end());
    }
    kept[2] = static_cast<uint8_t>(kept.size());
    kept[3] = static_cast<uint8_t>(kept.size() >> 8);
    kept[4] = static_cast<uint8_t>(interfaces.size());
    return kept;
}

UsbInterface InterfaceOf(const Bytes& device, const Bytes& configuration, uint8_t ucNumber)
{
    constexpr size_t DeviceBytes = 18;
    if (device.size() != DeviceBytes || !IsWholeConfiguration(configuration))
        throw std::runtime_error("the keyboard does not tell what it is");
    UsbInterface interface;
    interface.ucNumber = ucNumber;
    interface.device = device;
    interface.configuration = OwnConfiguration(configuration, ucNumber);
    for (const InterfaceEndpoint& endpoint : EndpointsOf(interface.configuration))
        if ((endpoint.ucEndpoint & 0x80) != 0 && interface.ucEndpoint == 0) {
            interface.ucEndpoint = endpoint.ucEndpoint;
            interface.usPacketBytes = std::min<uint16_t>(endpoint.usPacketBytes & 0x7FF, EmuHidMaximumPacket);
        }
    if (interface.ucEndpoint == 0 || interface.usPacketBytes == 0)
        throw std::runtime_error(fmt::format("interface {} of the keyboard sends no reports", ucNumber));
    std::string id = fmt::format("USB\\VID_{:04X}&PID_{:04X}", interface.Vendor(), interface.Product());
    if (CountInterfaces(configuration) > 1)
        id += fmt::format("&MI_{:02X}", ucNumber);
    interface.hardwareId.assign(id.begin(), id.end());
    return interface;
}

HidHead HidHeadOf(const Bytes& configuration)
{
    constexpr uint8_t HidDescriptor = 0x21;
    for (size_t i = 0; i + 9 <= configuration.size() && configuration[i] >= 2; i += configuration[i])
        if (configuration[i + 1] == HidDescriptor)
            return {WordOf(&configuration[i + 2]), configuration[i + 4], WordOf(&configuration[i + 7])};
    return {};
}

bool HasReportIds(const Bytes& reportDescriptor)
{
    constexpr uint8_t ReportId = 0x84, LongItem = 0xFE;
    for (size_t i = 0; i < reportDescriptor.size();) {
        const uint8_t ucItem = reportDescriptor[i];
        if ((ucItem & 0xFC) == ReportId)
            return true;
        if (ucItem == LongItem)
            i += i + 1 < reportDescriptor.size() ? 3 + reportDescriptor[i + 1] : 1;
        else
            i += 1 + (ucItem & 3) + ((ucItem & 3) == 3);
    }
    return false;
}
