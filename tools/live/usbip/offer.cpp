// offer.cpp - descriptors and requests of an emulated keyboard.
#include "offer.h"

#include "../route.h"

namespace usbip
{
uint8_t EndpointOf(const EmuDescriptors& kind)
{
    constexpr UCHAR Endpoint = 5;
    for (ULONG at = 0; at + 3 <= kind.ulConfiguration; at += kind.pConfiguration[at])
        if (kind.pConfiguration[at + 1] == Endpoint)
            return kind.pConfiguration[at + 2] & 0x0F;
    return 0;
}

std::unique_ptr<Export> Offer(const std::string& bus, const EmuDescriptors& kind, EmuKeyboard& keyboard)
{
    auto exported = std::make_unique<Export>();
    exported->device.bus = bus;
    exported->device.device.assign(kind.pDevice, kind.pDevice + kind.pDevice[0]);
    exported->device.configuration.assign(kind.pConfiguration, kind.pConfiguration + kind.ulConfiguration);
    exported->Request = [&keyboard](const uint8_t* pSetup, Bytes& data) {
        return NT_SUCCESS(keyboard.Control(pSetup, data, RouteOf(pSetup)));
    };
    return exported;
}

} // namespace usbip
