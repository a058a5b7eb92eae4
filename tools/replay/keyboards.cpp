// keyboards.cpp - from the packets of a capture to the keyboards and their script.
//
// Two passes. Survey learns each device: its descriptors and strings, and which interrupt-IN endpoints
// deliver reports. Then the keyboards are numbered by the device first seen and the interface, and the second
// pass deals the packets out, one by one: requests to the device go to each of its keyboards, others to the one
// they name. Neither pass keeps packets.
#include "keyboards.h"
#include "capture.h"
#include "devices.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <tuple>
#include <utility>

namespace
{

constexpr uint8_t ClassHid = 3;
constexpr uint8_t ProtocolMouse = 2;
constexpr uint8_t RecipientMask = 0x1F, RecipientDevice = 0, RecipientInterface = 1, RecipientEndpoint = 2;

// One keyboard found: which interface of which device.
struct Found {
    const Device* pDevice;
    DeviceKey key;
    unsigned uInterface; // of the configuration, or NoInterface + endpoint when none was captured
    std::vector<uint8_t> endpoints;
    unsigned uOrdinal = 0;  // among the keyboards of its device
    unsigned uSiblings = 1; // keyboards of its device
};

constexpr unsigned NoInterface = 0x100;

// The keyboards in the order of their numbers. Hubs tell their port changes over an interrupt endpoint too;
// those are no reports. uOthers counts the reporting endpoints of interfaces that are no HID interfaces.
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
    for (uint8_t ucEndpoint : found.endpoints) {
        auto known = device.endpoints.find(ucEndpoint);
        if (known != device.endpoints.end())
            keyboard.bMouse |= known->second.ucProtocol == ProtocolMouse;
        uint32_t ulPacket = known != device.endpoints.end() ? known->second.usPacketBytes : 0;
        const ReportEndpoint& reporting = device.reporting.at(ucEndpoint);
        uint32_t ulLongest = reporting.ulReadBytes;
        keyboard.ulReadBytes = std::max(keyboard.ulReadBytes, ulPacket ? ulPacket : ulLongest);
    }
    return keyboard;
}

// True when a control request goes to this keyboard: to its device, its interface or its endpoint. Where no
// descriptor was captured, interfaces are taken to be numbered as the keyboards are.
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

// What this keyboard is shown of a captured answer: for a composite device's configuration, its own part.
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

// What the first pass learnt, for as long as a script is played.
struct Learnt {
    Devices devices;
    std::vector<Found> found;
    std::multimap<DeviceKey, unsigned> byDevice; // the numbers of its keyboards
};

// The second pass: deals packets out to the keyboards.
class StepWriter
{
public:
    StepWriter(SharedInput pInput, std::shared_ptr<const Learnt> pLearnt, const ScriptChoice& choice)
        : m_reader(std::move(pInput), choice.bFollow), m_pLearnt(std::move(pLearnt)), m_choice(choice)
    {
    }

    bool Next(ScriptStep& step)
    {
        while (m_cNext == m_steps.size()) {
            m_steps.clear();
            m_cNext = 0;
            Packet packet;
            if (!NextPacket(packet) || packet.ullUs > m_choice.ullToUs)
                return false;
            if (IsReport(packet))
                AddReport(packet);
            else if (packet.type == TransferType::Control && packet.bJoined)
                AddControl(packet);
        }
        step = std::move(m_steps[m_cNext++]);
        return true;
    }

private:
    bool NextPacket(Packet& packet)
    {
        try {
            return m_reader.Next(packet);
        } catch (const InputError&) {
            if (m_choice.bPartial || m_choice.bFollow)
                return false; // the first pass kept what is wrong
            throw;
        }
    }

    ScriptStep StepAt(const Packet& packet, StepKind kind, unsigned uKeyboard) const
    {
        ScriptStep step;
        step.kind = kind;
        step.ullUs = packet.ullUs;
        step.uKeyboard = uKeyboard;
        return step;
    }

    void AddReport(Packet& packet)
    {
        if (packet.ullUs < m_choice.ullFromUs)
            return;
        auto [first, last] = m_pLearnt->byDevice.equal_range(KeyOf(packet));
        for (auto it = first; it != last; ++it) {
            const std::vector<uint8_t>& endpoints = m_pLearnt->found[it->second].endpoints;
            if (std::find(endpoints.begin(), endpoints.end(), packet.ucEndpoint) == endpoints.end())
                continue;
            m_steps.push_back(StepAt(packet, StepKind::Report, it->second));
            m_steps.back().data = std::move(packet.data);
            return;
        }
    }

    // Data going out takes effect when it is submitted, data coming in when it has arrived.
    void AddControl(const Packet& packet)
    {
        bool bComesIn = (packet.setup[0] & 0x80) != 0;
        if (packet.bSubmit == bComesIn)
            return;
        auto [first, last] = m_pLearnt->byDevice.equal_range(KeyOf(packet));
        for (auto it = first; it != last; ++it) {
            const Found& found = m_pLearnt->found[it->second];
            if (!Concerns(packet.setup, found))
                continue;
            ScriptStep step = StepAt(packet, StepKind::Control, it->second);
            step.setup = packet.setup;
            step.outcome = packet.outcome;
            step.data = bComesIn ? OwnAnswer(packet.setup, packet.data, found) : packet.data;
            m_steps.push_back(std::move(step));
        }
    }

    CaptureReader m_reader;
    std::shared_ptr<const Learnt> m_pLearnt;
    ScriptChoice m_choice;
    std::vector<ScriptStep> m_steps; // of one packet
    size_t m_cNext = 0;
};

const char* Plural(unsigned uCount)
{
    return uCount == 1 ? "" : "s";
}

// What was left out and what could not be learnt.
void AddNotes(Script& script, const CaptureReader& reader, const Learnt& learnt, unsigned uOthers)
{
    for (auto [usLink, uCount] : reader.LeftOut())
        script.notes.push_back(
            {-1, fmt::format("left out: {} packet{} of link type {}, which is no USB capture "
                             "that is understood (189, 220, 249 are)",
                             uCount, Plural(uCount), usLink)});
    if (reader.Copies())
        script.notes.push_back(
            {-1, fmt::format("left out: {} cop{} of packets that another interface of the file "
                             "has shown already",
                             reader.Copies(), reader.Copies() == 1 ? "y" : "ies")});
    if (uOthers)
        script.notes.push_back({-1, fmt::format("left out: {} device endpoint{} of no keyboard or mouse",
                                                uOthers, Plural(uOthers))});
    for (size_t k = 0; k < learnt.found.size(); ++k)
        if (script.keyboards[k].bMouse)
            script.notes.push_back({static_cast<int>(k), "this is a mouse"});
    for (size_t k = 0; k < learnt.found.size(); ++k)
        if (!script.keyboards[k].bTold)
            script.notes.push_back(
                {static_cast<int>(k),
                 "the capture has no enumeration, so the driver does not learn what kind of "
                 "keyboard this is; plug it in after the start of the recording, or say "
                 "--keyboard KIND or --keyboard guess"});
}

} // namespace

Script ScriptOfCapture(SharedInput pInput, const ScriptChoice& choice)
{
    auto pLearnt = std::make_shared<Learnt>();
    CaptureReader reader(pInput);
    Script script;
    script.bEnumerates = true;
    unsigned uLast = 0;
    try {
        for (Packet packet; reader.Next(packet); uLast = packet.uNumber)
            Survey(packet, pLearnt->devices);
    } catch (const InputError& error) {
        if (!choice.bPartial && !choice.bFollow)
            throw;
        if (!choice.bFollow)
            script.cut = error.what();
    }
    unsigned uOthers = 0;
    std::vector<Found> all = FindKeyboards(pLearnt->devices, uOthers);
    for (const Found& found : all) {
        ScriptKeyboard keyboard = DescribeKeyboard(found);
        if (!IsChosen(keyboard, choice.devices))
            continue;
        pLearnt->byDevice.emplace(found.key, static_cast<unsigned>(pLearnt->found.size()));
        pLearnt->found.push_back(found);
        script.keyboards.push_back(std::move(keyboard));
    }
    if (!script.cut.empty() && all.empty())
        throw InputError(script.cut);
    if (all.empty() && reader.Records() == 0 && !reader.LeftOut().empty())
        throw InputError(
            fmt::format("{}: packet 1: link type {} is no USB capture that is understood (189, 220, "
                        "249 are)",
                        pInput->Name(), reader.LeftOut().begin()->first));
    if (pLearnt->found.empty())
        throw InputError(fmt::format("{}: packet {}: the capture ends without a keyboard: {}", pInput->Name(),
                                     uLast,
                                     all.empty() ? "no interrupt-IN endpoint delivered a report"
                                                 : "none is the device that was asked for"));
    for (const Found& found : pLearnt->found)
        for (uint8_t ucEndpoint : found.endpoints)
            if (unsigned uCut = found.pDevice->reporting.at(ucEndpoint).uCutReport; uCut && !choice.bPartial)
                throw InputError(fmt::format("{}: packet {}: truncated: a snap length cut the report",
                                             pInput->Name(), uCut));
    AddNotes(script, reader, *pLearnt, uOthers);
    script.Open = [pInput, pLearnt, choice]() -> StepReader {
        auto pWriter = std::make_shared<StepWriter>(pInput, pLearnt, choice);
        return [pWriter](ScriptStep& step) { return pWriter->Next(step); };
    };
    return script;
}
