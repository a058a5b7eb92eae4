// found.cpp - which interfaces of which devices are keyboards.
#include "found.h"
#include "tools/common/text.h"

#include <algorithm>
#include <tuple>

namespace
{

constexpr uint8_t ClassHid = 3;
constexpr uint8_t ProtocolMouse = 2;
constexpr uint8_t RecipientMask = 0x1F, RecipientDevice = 0, RecipientInterface = 1, RecipientEndpoint = 2;

} // namespace

// Hubs tell their port changes over an interrupt endpoint too; those are no reports.
std::vector<Found> FindKeyboards(const Devices& devices, unsigned& uOthers)
{
    std::vector<Found> found;
    for (const auto& [key, device] : devices) {
        if (device.bHub)
            continue;
        for (const auto& [ucEndpoint, reporting] : device.reporting) {
            auto endpoint = device.endpoints.find(ucEndpoint);
            if (endpoint != device.endpoints.end() && endpoint->second.ucClass != ClassHid) {
                ++uOthers;
                continue;
            }
            unsigned uInterface =
                endpoint != device.endpoints.end() ? endpoint->second.ucInterface : NoInterface + ucEndpoint;
            auto same = std::find_if(found.begin(), found.end(), [&, pKey = &key](const Found& other) {
                return other.key == *pKey && other.uInterface == uInterface;
            });
            if (same == found.end())
                found.push_back({&device, key, uInterface, {ucEndpoint}, 0, 1});
            else
                same->endpoints.push_back(ucEndpoint);
        }
    }
    // Endpoints of which no descriptor was captured stand in the order of their first reports.
    auto order = [](const Found& keyboard) {
        bool bKnown = keyboard.uInterface < NoInterface;
        unsigned uFirst = bKnown ? 0 : keyboard.pDevice->reporting.at(keyboard.endpoints[0]).uFirstReport;
        return std::make_tuple(keyboard.pDevice->cOrder, bKnown ? keyboard.uInterface : NoInterface, uFirst);
    };
    std::sort(found.begin(), found.end(),
              [&](const Found& a, const Found& b) { return order(a) < order(b); });
    for (Found& keyboard : found) {
        auto ofDevice = [&](const Found& other) { return other.key == keyboard.key; };
        keyboard.uSiblings = static_cast<unsigned>(std::count_if(found.begin(), found.end(), ofDevice));
        for (const Found& other : found)
            keyboard.uOrdinal += &other < &keyboard && ofDevice(other);
    }
    return found;
}

ScriptKeyboard DescribeKeyboard(const Found& found)
{
    const Device& device = *found.pDevice;
    ScriptKeyboard keyboard;
    keyboard.usVendor = device.usVendor;
    keyboard.usProduct = device.usProduct;
    if (auto name = device.strings.find(device.ucProductString); name != device.strings.end())
        keyboard.name = name->second;
    keyboard.ulReadBytes = 0;
    keyboard.ucEndpoint = found.endpoints[0];
    size_t cFirst = device.reporting.at(found.endpoints[0]).cFirstReport;
    keyboard.pGuess = cFirst == 8 ? "normal" : cFirst <= 4 ? "power" : "other";
    keyboard.bTold = !device.configurations.empty();
    keyboard.bCut = device.bCut;
    for (uint8_t ucEndpoint : found.endpoints) {
        auto known = device.endpoints.find(ucEndpoint);
        if (known != device.endpoints.end())
            keyboard.bMouse |= known->second.ucProtocol == ProtocolMouse;
        uint32_t ulPacket = known != device.endpoints.end() ? known->second.usPacketBytes : 0;
        const ReportEndpoint& reporting = device.reporting.at(ucEndpoint);
        // A report may take several packets.
        const uint32_t ulBytes = ulPacket ? std::max(ulPacket, reporting.ulLongest) : reporting.ulReadBytes;
        keyboard.ulReadBytes = std::max(keyboard.ulReadBytes, ulBytes);
    }
    return keyboard;
}

// Where no descriptor was captured, interfaces are taken to be numbered as the keyboards are.
bool Concerns(const std::array<uint8_t, 8>& setup, const Found& found)
{
    switch (setup[0] & RecipientMask) {
    case RecipientDevice:
        return true;
    case RecipientInterface:
        if (found.uInterface < NoInterface)
            return setup[4] == found.uInterface;
        return found.uOrdinal == (setup[4] < found.uSiblings ? setup[4] : 0);
    case RecipientEndpoint:
        return std::count(found.endpoints.begin(), found.endpoints.end(), setup[4]) != 0;
    default:
        return false;
    }
}

Bytes OwnAnswer(const std::array<uint8_t, 8>& setup, const Bytes& answer, const Found& found)
{
    if (!IsGetDescriptor(setup, DescriptorConfiguration) || answer.empty() || found.uInterface >= NoInterface)
        return answer;
    auto whole = found.pDevice->configurations.find(setup[2]);
    if (whole == found.pDevice->configurations.end() || CountInterfaces(whole->second) < 2)
        return answer;
    Bytes own = OwnConfiguration(whole->second, static_cast<uint8_t>(found.uInterface));
    own.resize(std::min<size_t>(own.size(), WordAt(setup.data(), 6)));
    return own;
}
