// keyboards.cpp - from the packets of a capture to the keyboards and their script.
//
// Two passes. Survey learns each device: its descriptors and strings, and which interrupt-IN endpoints
// deliver reports. Then the keyboards are numbered by the device first seen and the interface, and the second
// pass deals the packets out: requests to the device go to each of its keyboards, others to the one they
// name.
#include "keyboards.h"
#include "capture.h"
#include "configuration.h"
#include "tools/common/text.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace
{

constexpr uint8_t ClassHub = 9;
constexpr uint8_t RequestGetDescriptor = 6;
constexpr uint8_t DescriptorDevice = 1, DescriptorConfiguration = 2, DescriptorString = 3;
constexpr uint8_t RecipientMask = 0x1F, RecipientDevice = 0, RecipientInterface = 1, RecipientEndpoint = 2;
constexpr uint8_t HubPortRequest = 0x23; // class, other recipient, in either direction

using DeviceKey = std::pair<uint16_t, uint16_t>; // bus, address

DeviceKey KeyOf(const Packet& packet)
{
    return {packet.usBus, packet.usDevice};
}

struct ReportEndpoint {
    unsigned uFirstReport = 0;
    uint32_t ulReadBytes = 0; // what the stack asked for, or the longest report
};

struct Device {
    size_t cOrder = 0; // in which the devices are first seen
    bool bHub = false;
    uint16_t usVendor = 0, usProduct = 0;
    uint8_t ucProductString = 0;
    std::map<uint8_t, std::string> strings;
    std::map<uint8_t, Bytes> configurations; // by index, the whole ones
    std::map<uint8_t, InterfaceEndpoint> endpoints;
    std::map<uint8_t, ReportEndpoint> reporting;
};

// One keyboard found: which interface of which device.
struct Found {
    const Device* pDevice;
    DeviceKey key;
    unsigned uInterface; // of the configuration, or NoInterface + endpoint when none was captured
    std::vector<uint8_t> endpoints;
};

constexpr unsigned NoInterface = 0x100;

bool IsReport(const Packet& packet)
{
    return packet.type == TransferType::Interrupt && !packet.bSubmit && (packet.ucEndpoint & 0x80) &&
           packet.outcome == Outcome::Ok && !packet.data.empty();
}

bool IsGetDescriptor(const std::array<uint8_t, 8>& setup, uint8_t ucType)
{
    return setup[0] == 0x80 && setup[1] == RequestGetDescriptor && setup[3] == ucType;
}

// Which submission a control completion answers, and the reverse, by index in the packet list.
std::map<size_t, size_t> PairTransfers(const std::vector<Packet>& packets)
{
    std::map<size_t, size_t> pairs;
    std::map<std::pair<DeviceKey, uint64_t>, size_t> open;
    for (size_t i = 0; i < packets.size(); ++i) {
        if (packets[i].type != TransferType::Control)
            continue;
        auto key = std::make_pair(KeyOf(packets[i]), packets[i].ullTransfer);
        if (packets[i].bSubmit) {
            open[key] = i;
        } else if (auto it = open.find(key); it != open.end()) {
            pairs[it->second] = i;
            pairs[i] = it->second;
            open.erase(it);
        }
    }
    return pairs;
}

void LearnDescriptor(Device& device, const std::array<uint8_t, 8>& setup, const Bytes& answer)
{
    if (IsGetDescriptor(setup, DescriptorDevice) && answer.size() >= 18 && answer[0] == 18) {
        device.usVendor = static_cast<uint16_t>(answer[8] | answer[9] << 8);
        device.usProduct = static_cast<uint16_t>(answer[10] | answer[11] << 8);
        device.ucProductString = answer[15];
        device.bHub |= answer[4] == ClassHub;
    } else if (IsGetDescriptor(setup, DescriptorConfiguration)) {
        for (const InterfaceEndpoint& endpoint : EndpointsOf(answer))
            device.endpoints[endpoint.ucEndpoint] = endpoint;
        if (IsWholeConfiguration(answer))
            device.configurations[setup[2]] = answer;
    } else if (IsGetDescriptor(setup, DescriptorString) && setup[2] != 0 && answer.size() > 2) {
        device.strings[setup[2]] = TextOfUtf16(&answer[2], std::min<size_t>(answer[0], answer.size()) - 2);
    }
}

std::map<DeviceKey, Device> SurveyDevices(const std::vector<Packet>& packets,
                                          const std::map<size_t, size_t>& pairs)
{
    std::map<DeviceKey, Device> devices;
    for (size_t i = 0; i < packets.size(); ++i) {
        const Packet& packet = packets[i];
        auto [it, bNew] = devices.try_emplace(KeyOf(packet));
        Device& device = it->second;
        if (bNew)
            device.cOrder = i;
        if (packet.type == TransferType::Interrupt && (packet.ucEndpoint & 0x80)) {
            uint32_t ulBytes = std::max<uint32_t>(packet.ulAsked, static_cast<uint32_t>(packet.data.size()));
            if (IsReport(packet) && !device.reporting.count(packet.ucEndpoint))
                device.reporting[packet.ucEndpoint].uFirstReport = packet.uNumber;
            if (auto endpoint = device.reporting.find(packet.ucEndpoint); endpoint != device.reporting.end())
                endpoint->second.ulReadBytes = std::max(endpoint->second.ulReadBytes, ulBytes);
        } else if (auto pair = pairs.find(i); pair != pairs.end() && !packet.bSubmit) {
            const Packet& request = packets[pair->second];
            device.bHub |= (request.setup[0] & 0x7F) == HubPortRequest;
            if (packet.outcome == Outcome::Ok)
                LearnDescriptor(device, request.setup, packet.data);
        }
    }
    return devices;
}

// The keyboards in the order of their numbers. Hubs tell their port changes over an interrupt endpoint too;
// those are no reports.
std::vector<Found> FindKeyboards(const std::map<DeviceKey, Device>& devices)
{
    std::vector<Found> found;
    for (const auto& [key, device] : devices) {
        if (device.bHub)
            continue;
        for (const auto& [ucEndpoint, reporting] : device.reporting) {
            auto endpoint = device.endpoints.find(ucEndpoint);
            if (endpoint != device.endpoints.end() && endpoint->second.ucClass == ClassHub)
                continue;
            unsigned uInterface =
                endpoint != device.endpoints.end() ? endpoint->second.ucInterface : NoInterface + ucEndpoint;
            auto same = std::find_if(found.begin(), found.end(), [&, pKey = &key](const Found& other) {
                return other.key == *pKey && other.uInterface == uInterface;
            });
            if (same == found.end())
                found.push_back({&device, key, uInterface, {ucEndpoint}});
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
    for (uint8_t ucEndpoint : found.endpoints) {
        auto known = device.endpoints.find(ucEndpoint);
        uint32_t ulPacket = known != device.endpoints.end() ? known->second.usPacketBytes : 0;
        const ReportEndpoint& reporting = device.reporting.at(ucEndpoint);
        uint32_t ulLongest = reporting.ulReadBytes;
        keyboard.ulReadBytes = std::max(keyboard.ulReadBytes, ulPacket ? ulPacket : ulLongest);
    }
    return keyboard;
}

// True when a control request goes to this keyboard: to its device, its interface or its endpoint.
bool Concerns(const std::array<uint8_t, 8>& setup, const Found& found, bool bOnly)
{
    switch (setup[0] & RecipientMask) {
    case RecipientDevice:
        return true;
    case RecipientInterface:
        return setup[4] == found.uInterface || (found.uInterface >= NoInterface && bOnly);
    case RecipientEndpoint:
        return std::count(found.endpoints.begin(), found.endpoints.end(), setup[4]) != 0;
    default:
        return false;
    }
}

// What this keyboard is shown of a captured answer: for a composite device's configuration, its own part.
Bytes OwnAnswer(const std::array<uint8_t, 8>& setup, const Bytes& answer, const Found& found)
{
    if (!IsGetDescriptor(setup, DescriptorConfiguration) || answer.empty() || found.uInterface >= NoInterface)
        return answer;
    auto whole = found.pDevice->configurations.find(setup[2]);
    if (whole == found.pDevice->configurations.end() || CountInterfaces(whole->second) < 2)
        return answer;
    Bytes own = OwnConfiguration(whole->second, static_cast<uint8_t>(found.uInterface));
    own.resize(std::min<size_t>(own.size(), setup[6] | setup[7] << 8));
    return own;
}

// The second pass: deals packets out to the keyboards.
class ScriptWriter
{
public:
    ScriptWriter(const std::vector<Packet>& packets, const std::map<size_t, size_t>& pairs,
                 const std::vector<Found>& found)
        : m_packets(packets), m_pairs(pairs), m_found(found)
    {
    }

    std::vector<ScriptStep> Write()
    {
        for (size_t i = 0; i < m_packets.size(); ++i) {
            const Packet& packet = m_packets[i];
            if (IsReport(packet)) {
                AddReport(packet);
            } else if (auto pair = m_pairs.find(i); pair != m_pairs.end()) {
                const Packet& other = m_packets[pair->second];
                AddControl(packet, packet.bSubmit ? packet : other, packet.bSubmit ? other : packet);
            }
        }
        return std::move(m_steps);
    }

private:
    ScriptStep StepAt(const Packet& packet, StepKind kind, size_t cKeyboard) const
    {
        ScriptStep step;
        step.kind = kind;
        step.ullUs = packet.ullUs;
        step.uKeyboard = static_cast<unsigned>(cKeyboard);
        return step;
    }

    void AddReport(const Packet& packet)
    {
        for (size_t k = 0; k < m_found.size(); ++k) {
            const Found& found = m_found[k];
            if (found.key != KeyOf(packet) ||
                !std::count(found.endpoints.begin(), found.endpoints.end(), packet.ucEndpoint))
                continue;
            ScriptStep step = StepAt(packet, StepKind::Report, k);
            step.data = packet.data;
            m_steps.push_back(std::move(step));
        }
    }

    // Data going out takes effect when it is submitted, data coming in when it has arrived.
    void AddControl(const Packet& now, const Packet& request, const Packet& answer)
    {
        bool bComesIn = (request.setup[0] & 0x80) != 0;
        if (now.bSubmit == bComesIn)
            return;
        auto ofDevice = [&](const Found& found) { return found.key == KeyOf(now); };
        bool bOnly = std::count_if(m_found.begin(), m_found.end(), ofDevice) == 1;
        for (size_t k = 0; k < m_found.size(); ++k) {
            const Found& found = m_found[k];
            if (!ofDevice(found) || !Concerns(request.setup, found, bOnly))
                continue;
            ScriptStep step = StepAt(now, StepKind::Control, k);
            step.setup = request.setup;
            step.outcome = answer.outcome;
            step.data = bComesIn ? OwnAnswer(request.setup, answer.data, found) : request.data;
            m_steps.push_back(std::move(step));
        }
    }

    const std::vector<Packet>& m_packets;
    const std::map<size_t, size_t>& m_pairs;
    const std::vector<Found>& m_found;
    std::vector<ScriptStep> m_steps;
};

} // namespace

Script ScriptOfCapture(const std::string& file, const std::vector<Packet>& packets)
{
    std::map<size_t, size_t> pairs = PairTransfers(packets);
    std::map<DeviceKey, Device> devices = SurveyDevices(packets, pairs);
    std::vector<Found> found = FindKeyboards(devices);
    if (found.empty())
        FailAtPacket(file, packets.empty() ? 0 : packets.back().uNumber,
                     "the capture ends without a keyboard: no interrupt-IN endpoint delivered a report");

    Script script;
    script.bEnumerates = true;
    for (const Found& keyboard : found)
        script.keyboards.push_back(DescribeKeyboard(keyboard));
    script.steps = ScriptWriter(packets, pairs, found).Write();
    return script;
}
