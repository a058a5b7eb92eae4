// keyboards.cpp - from the packets of a capture to the keyboards and their script.
//
// Two passes. Survey learns each device: its descriptors and strings, and which interrupt-IN endpoints
// deliver reports. Then the keyboards are numbered by the device first seen and the interface, and the second
// pass deals the packets out, one by one: requests to the device go to each of its keyboards, others to the one
// they name. Neither pass keeps packets.
//
// Of an input that still comes the first pass ends where it ends for now, once there is a keyboard; the second one goes
// on, and a keyboard that reports first then comes up there: it is told at once what the capture holds of it so far.
#include "keyboards.h"
#include "capture.h"
#include "found.h"
#include "tools/common/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace
{

// The longest report of a keyboard without descriptors has not come yet.
void Widen(ScriptKeyboard& keyboard)
{
    constexpr uint32_t Plenty = 64;
    if (!keyboard.bTold)
        keyboard.ulReadBytes = std::max(keyboard.ulReadBytes, Plenty);
}

// What the first pass learnt, for as long as a script is played.
struct Learnt {
    Devices devices;
    std::vector<Found> found;
    std::multimap<DeviceKey, unsigned> byDevice; // the numbers of its keyboards
    bool bComes = false;                         // more may come: through a pipe, or because the file grows

    void Add(const Found& keyboard)
    {
        byDevice.emplace(keyboard.key, static_cast<unsigned>(found.size()));
        found.push_back(keyboard);
    }
};

// The second pass: deals packets out to the keyboards.
class StepWriter
{
public:
    StepWriter(SharedInput pInput, std::shared_ptr<const Learnt> pFirst, const ScriptChoice& choice)
        : m_pInput(pInput), m_reader(std::move(pInput), choice.bFollow ? Reading::Following : Reading::Whole),
          m_pFirst(std::move(pFirst)), m_learnt{{}, m_pFirst->found, m_pFirst->byDevice, m_pFirst->bComes},
          m_choice(choice)
    {
    }

    bool Next(ScriptStep& step)
    {
        while (m_cNext == m_steps.size()) {
            m_steps.clear();
            m_cNext = 0;
            Packet& packet = m_packet;
            if (!NextPacket(packet) || packet.ullUs > m_choice.ullToUs)
                return false;
            if (m_learnt.bComes)
                Learn(packet);
            if (IsReport(packet))
                AddReport(packet);
            else if (packet.type == TransferType::Control && packet.bJoined)
                AddControl(packet, 0);
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
            if (m_choice.bFollow || (m_choice.bPartial && !m_learnt.bComes))
                return false; // the first pass kept what is wrong
            throw;
        }
    }

    // A keyboard whose first report this is comes up, behind those that are there.
    void Learn(const Packet& packet)
    {
        Survey(packet, m_learnt.devices);
        if (!IsReport(packet))
            return;
        auto isKnown = [&](const Found& found) {
            return found.key == KeyOf(packet) &&
                   std::count(found.endpoints.begin(), found.endpoints.end(), packet.ucEndpoint) != 0;
        };
        if (std::any_of(m_learnt.found.begin(), m_learnt.found.end(), isKnown))
            return;
        unsigned uOthers = 0;
        for (Found& found : FindKeyboards(m_learnt.devices, uOthers))
            if (isKnown(found))
                ComeUp(found, packet);
    }

    void ComeUp(Found& found, const Packet& packet)
    {
        for (Found& known : m_learnt.found)
            if (known.key == found.key && known.uInterface == found.uInterface) {
                known.endpoints = found.endpoints; // one more of it
                return;
            }
        ScriptKeyboard keyboard = DescribeKeyboard(found);
        if (!IsChosen(keyboard, m_choice.devices))
            return;
        Widen(keyboard);
        const auto uKeyboard = static_cast<unsigned>(m_learnt.found.size());
        m_learnt.Add(found);
        m_steps.push_back(StepAt(packet, StepKind::Keyboard, uKeyboard));
        m_steps.back().pKeyboard = std::make_shared<ScriptKeyboard>(std::move(keyboard));
        CaptureReader before(m_pInput, Reading::Present);
        for (Packet old; before.Next(old) && old.uNumber < packet.uNumber;)
            if (old.type == TransferType::Control && old.bJoined) {
                old.ullUs = packet.ullUs;
                AddControl(old, uKeyboard);
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
        auto [first, last] = m_learnt.byDevice.equal_range(KeyOf(packet));
        for (auto it = first; it != last; ++it) {
            const std::vector<uint8_t>& endpoints = m_learnt.found[it->second].endpoints;
            if (std::find(endpoints.begin(), endpoints.end(), packet.ucEndpoint) == endpoints.end())
                continue;
            m_steps.push_back(StepAt(packet, StepKind::Report, it->second));
            m_steps.back().data = std::move(packet.data);
            return;
        }
    }

    // Data going out takes effect when it is submitted, data coming in when it has arrived. To its device's keyboards,
    // from that number on.
    void AddControl(const Packet& packet, unsigned uFirst)
    {
        bool bComesIn = (packet.setup[0] & 0x80) != 0;
        if (packet.bSubmit == bComesIn)
            return;
        auto [first, last] = m_learnt.byDevice.equal_range(KeyOf(packet));
        for (auto it = first; it != last; ++it) {
            const Found& found = m_learnt.found[it->second];
            if (it->second < uFirst || !Concerns(packet.setup, found))
                continue;
            ScriptStep step = StepAt(packet, StepKind::Control, it->second);
            step.setup = packet.setup;
            step.outcome = packet.outcome;
            step.data = bComesIn ? OwnAnswer(packet.setup, packet.data, found) : packet.data;
            m_steps.push_back(std::move(step));
        }
    }

    SharedInput m_pInput;
    CaptureReader m_reader;
    std::shared_ptr<const Learnt> m_pFirst; // its devices are those of the keyboards found first
    Learnt m_learnt;
    ScriptChoice m_choice;
    Packet m_packet;                 // the latest
    std::vector<ScriptStep> m_steps; // of one packet
    size_t m_cNext = 0;
};

const char* Plural(unsigned uCount)
{
    return uCount == 1 ? "" : "s";
}

// What could not be learnt.
void AddKindNotes(Script& script)
{
    for (size_t k = 0; k < script.keyboards.size(); ++k)
        if (script.keyboards[k].bMouse)
            script.notes.push_back({static_cast<int>(k), "this is a mouse"});
    for (size_t k = 0; k < script.keyboards.size(); ++k)
        if (!script.keyboards[k].bTold)
            script.notes.push_back(
                {static_cast<int>(k),
                 fmt::format("{}, so the driver does not learn what kind of keyboard this is; {}, or say "
                             "--keyboard KIND or --keyboard guess",
                             script.keyboards[k].bCut ? "a snap length cut its descriptors"
                                                      : "the capture has no enumeration",
                             script.keyboards[k].bCut ? "record whole packets"
                                                      : "plug it in after the start of the recording")});
}

// And what was left out.
void AddNotes(Script& script, const CaptureReader& reader, unsigned uOthers)
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
        script.notes.push_back(
            {-1, fmt::format("left out: {} endpoint{} of devices that are no keyboard or mouse", uOthers,
                             Plural(uOthers))});
    AddKindNotes(script);
}

void OpenWith(Script& script, const SharedInput& pInput, const std::shared_ptr<const Learnt>& pLearnt,
              const ScriptChoice& choice)
{
    script.Open = [pInput, pLearnt, choice]() -> StepReader {
        auto pWriter = std::make_shared<StepWriter>(pInput, pLearnt, choice);
        return [pWriter](ScriptStep& step) { return pWriter->Next(step); };
    };
}

// The keyboards that report in what is there now. Where there is none yet, more is waited for; what is cut here may be
// whole then.
Script ScriptOfWhatComes(const SharedInput& pInput, const std::shared_ptr<Learnt>& pLearnt,
                         const ScriptChoice& choice)
{
    Script script;
    script.bEnumerates = true;
    while (true) {
        pLearnt->devices.clear();
        try {
            CaptureReader reader(pInput, Reading::Present);
            for (Packet packet; reader.Next(packet);)
                Survey(packet, pLearnt->devices);
        } catch (
            const InputError&) { // the second pass meets it again, if it is more than a packet that is half there
        }
        unsigned uOthers = 0;
        for (const Found& found : FindKeyboards(pLearnt->devices, uOthers)) {
            ScriptKeyboard keyboard = DescribeKeyboard(found);
            if (!IsChosen(keyboard, choice.devices))
                continue;
            Widen(keyboard);
            pLearnt->Add(found);
            script.keyboards.push_back(std::move(keyboard));
        }
        if (!script.keyboards.empty())
            break;
        if (!(pInput->IsPipe() ? pInput->TakeMore() : WaitToFollow()))
            throw InputError(fmt::format("{}: the capture ends without a keyboard", pInput->Name()));
        pInput->Gather();
    }
    AddKindNotes(script);
    OpenWith(script, pInput, pLearnt, choice);
    return script;
}

} // namespace

Script ScriptOfCapture(SharedInput pInput, const ScriptChoice& choice)
{
    auto pLearnt = std::make_shared<Learnt>();
    if (MayCome(*pInput, choice))
        pInput->Gather();
    pLearnt->bComes = MayCome(*pInput, choice);
    if (pLearnt->bComes)
        return ScriptOfWhatComes(pInput, pLearnt, choice);
    CaptureReader reader(pInput);
    Script script;
    script.bEnumerates = true;
    unsigned uLast = 0;
    try {
        for (Packet packet; reader.Next(packet); uLast = packet.uNumber)
            Survey(packet, pLearnt->devices);
    } catch (const InputError& error) {
        if (!choice.bPartial)
            throw;
        script.cut = error.what();
    }
    unsigned uOthers = 0;
    std::vector<Found> all = FindKeyboards(pLearnt->devices, uOthers);
    for (const Found& found : all) {
        ScriptKeyboard keyboard = DescribeKeyboard(found);
        if (!IsChosen(keyboard, choice.devices))
            continue;
        pLearnt->Add(found);
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
    AddNotes(script, reader, uOthers);
    OpenWith(script, pInput, pLearnt, choice);
    return script;
}
