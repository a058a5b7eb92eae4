// player.cpp - how a keyboard of a replay answers.
#include "player.h"
#include "configuration.h"

#include <algorithm>

namespace
{

NTSTATUS StatusOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Ok:
        return STATUS_SUCCESS;
    case Outcome::Cancelled:
        return STATUS_CANCELLED;
    case Outcome::Gone:
        return STATUS_DEVICE_NOT_CONNECTED;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

} // namespace

std::optional<uint8_t> LedsOf(const ScriptStep* pControl, const EmuBytes& report)
{
    uint8_t ucId = pControl ? pControl->setup[2] : 0;
    if (ucId != 0)
        return report.size() == 2 && report[0] == ucId ? std::optional(report[1]) : std::nullopt;
    return report.size() == 1 || (!pControl && !report.empty()) ? std::optional(report[0]) : std::nullopt;
}

bool IsDescriptorRequest(const std::array<uint8_t, 8>& setup)
{
    constexpr uint8_t GetDescriptor = 6;
    return (setup[0] == 0x80 || setup[0] == 0x81) && setup[1] == GetDescriptor;
}

ULONG PacketBytesOf(const EmuDescriptors& kind)
{
    Bytes configuration(kind.pConfiguration, kind.pConfiguration + kind.ulConfiguration);
    ULONG ulPacket = 0;
    for (const InterfaceEndpoint& endpoint : EndpointsOf(configuration))
        if (endpoint.ucEndpoint & 0x80)
            ulPacket = std::max<ULONG>(ulPacket, endpoint.usPacketBytes);
    return ulPacket;
}

NTSTATUS AnswerControl(const Player& player, const UCHAR* pSetup, EmuBytes& data)
{
    const ScriptStep* pStep = player.pControl;
    if (!pStep || !std::equal(pStep->setup.begin(), pStep->setup.end(), pSetup))
        return STATUS_NOT_SUPPORTED;
    if (pSetup[0] & 0x80) {
        size_t cRoom = data.size();
        data = pStep->data;
        data.resize(std::min(data.size(), cRoom));
    }
    return StatusOf(pStep->outcome);
}
