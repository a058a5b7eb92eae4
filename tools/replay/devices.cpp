// devices.cpp - learns the devices of a capture from its packets.
#include "devices.h"
#include "tools/common/text.h"

#include <algorithm>

namespace
{

constexpr uint8_t ClassHub = 9;
constexpr uint8_t RequestGetDescriptor = 6;
constexpr uint8_t HubPortRequest = 0x23; // class, other recipient, in either direction

void LearnDescriptor(Device& device, const std::array<uint8_t, 8>& setup, const Bytes& answer)
{
    if (IsGetDescriptor(setup, DescriptorDevice) && answer.size() >= 18 && answer[0] == 18) {
        device.usVendor = WordAt(answer.data(), 8);
        device.usProduct = WordAt(answer.data(), 10);
        device.ucProductString = answer[15];
        device.bHub |= answer[4] == ClassHub;
    } else if (IsGetDescriptor(setup, DescriptorConfiguration)) {
        for (const InterfaceEndpoint& endpoint : EndpointsOf(answer))
            device.endpoints[endpoint.ucEndpoint] = endpoint;
        if (IsWholeConfiguration(answer))
            device.configurations[setup[2]] = answer;
    } else if (IsGetDescriptor(setup, DescriptorString) && setup[2] != 0 && answer.size() > 2 &&
               answer[0] > 2) {
        device.strings[setup[2]] = TextOfUtf16(&answer[2], std::min<size_t>(answer[0], answer.size()) - 2);
    }
}

} // namespace

DeviceKey KeyOf(const Packet& packet)
{
    return {packet.usBus, packet.usDevice};
}

bool IsReport(const Packet& packet)
{
    return packet.type == TransferType::Interrupt && !packet.bSubmit && (packet.ucEndpoint & 0x80) &&
           packet.outcome == Outcome::Ok && !packet.data.empty();
}

bool IsGetDescriptor(const std::array<uint8_t, 8>& setup, uint8_t ucType)
{
    return setup[0] == 0x80 && setup[1] == RequestGetDescriptor && setup[3] == ucType;
}

void Survey(const Packet& packet, Devices& devices)
{
    auto [it, bNew] = devices.try_emplace(KeyOf(packet));
    Device& device = it->second;
    if (bNew)
        device.cOrder = devices.size();
    if (packet.type == TransferType::Interrupt && (packet.ucEndpoint & 0x80)) {
        uint32_t ulBytes = std::max<uint32_t>(packet.ulAsked, static_cast<uint32_t>(packet.data.size()));
        if (IsReport(packet)) {
            auto [endpoint, bFirst] = device.reporting.try_emplace(packet.ucEndpoint);
            if (bFirst) {
                endpoint->second.uFirstReport = packet.uNumber;
                endpoint->second.cFirstReport = packet.data.size();
            }
            if (packet.bCut && endpoint->second.uCutReport == 0)
                endpoint->second.uCutReport = packet.uNumber;
        }
        if (auto endpoint = device.reporting.find(packet.ucEndpoint); endpoint != device.reporting.end()) {
            ReportEndpoint& reporting = endpoint->second;
            reporting.ulReadBytes = std::max(reporting.ulReadBytes, ulBytes);
            if (IsReport(packet))
                reporting.ulLongest =
                    std::max(reporting.ulLongest, static_cast<uint32_t>(packet.data.size()));
        }
    } else if (packet.type == TransferType::Control && !packet.bSubmit && packet.bJoined) {
        device.bHub |= (packet.setup[0] & 0x7F) == HubPortRequest;
        device.bCut |= packet.bCut;
        if (packet.outcome == Outcome::Ok)
            LearnDescriptor(device, packet.setup, packet.data);
    }
}
