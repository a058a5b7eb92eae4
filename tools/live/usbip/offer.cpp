// offer.cpp - to whom a request goes.
#include "offer.h"

#include "../route.h"
#include "../usb/interface.h"

#include "tools/replay/configuration.h"

namespace usbip
{
namespace
{

class Offered
{
public:
    Offered(const Bytes& configuration, std::vector<Part> parts)
        : m_Endpoints(EndpointsOf(configuration)), m_Parts(std::move(parts))
    {
    }

    bool Ask(const uint8_t* pSetup, Bytes& data) const
    {
        const Part* pPart = Meant(pSetup);
        return pPart && NT_SUCCESS(pPart->pKeyboard->Control(pSetup, data, RouteOf(pSetup)));
    }

    // By SET_REPORT: the driver sees LEDs there.
    bool Output(uint8_t ucEndpoint, const Bytes& report) const
    {
        const Part* pPart = WithEndpoint(ucEndpoint);
        if (!pPart || report.empty())
            return false;
        const uint8_t aucSetup[8] = {0x21,
                                     9,
                                     pPart->bNumbered ? report[0] : uint8_t(0),
                                     2,
                                     pPart->ucInterface,
                                     0,
                                     static_cast<uint8_t>(report.size()),
                                     static_cast<uint8_t>(report.size() >> 8)};
        Bytes data = report;
        return NT_SUCCESS(pPart->pKeyboard->Control(aucSetup, data, RouteOf(aucSetup)));
    }

private:
    const Part* WithInterface(uint8_t ucInterface) const
    {
        for (const Part& part : m_Parts)
            if (part.ucInterface == ucInterface)
                return &part;
        return nullptr;
    }

    const Part* WithEndpoint(uint8_t ucEndpoint) const
    {
        for (const InterfaceEndpoint& endpoint : m_Endpoints)
            if (endpoint.ucEndpoint == ucEndpoint)
                return WithInterface(endpoint.ucInterface);
        return nullptr;
    }

    // The first one speaks for the device.
    const Part* Meant(const uint8_t* pSetup) const
    {
        enum : uint8_t { Interface = 1, Endpoint = 2 };
        const uint8_t ucRecipient = pSetup[0] & 0x1F;
        if (ucRecipient == Interface)
            return WithInterface(pSetup[4]);
        return ucRecipient == Endpoint ? WithEndpoint(pSetup[4]) : &m_Parts[0];
    }

    const std::vector<InterfaceEndpoint> m_Endpoints;
    const std::vector<Part> m_Parts;
};

} // namespace

std::shared_ptr<Export> Offer(Device device, std::vector<Part> parts)
{
    auto exported = std::make_shared<Export>();
    auto offered = std::make_shared<Offered>(device.configuration, std::move(parts));
    exported->device = std::move(device);
    exported->Request = [offered](const uint8_t* pSetup, Bytes& data) { return offered->Ask(pSetup, data); };
    exported->Output = [offered](uint8_t ucEndpoint, const Bytes& report) {
        return offered->Output(ucEndpoint, report);
    };
    return exported;
}

std::shared_ptr<Export> Offer(const std::string& bus, const EmuDescriptors& kind, EmuKeyboard& keyboard)
{
    Device device;
    device.bus = bus;
    device.device.assign(kind.pDevice, kind.pDevice + kind.pDevice[0]);
    device.configuration.assign(kind.pConfiguration, kind.pConfiguration + kind.ulConfiguration);
    const std::vector<InterfaceEndpoint> endpoints = EndpointsOf(device.configuration);
    const bool bNumbered = HasReportIds(Bytes(kind.pReport, kind.pReport + kind.ulReport));
    return Offer(std::move(device),
                 {{endpoints.empty() ? uint8_t(0) : endpoints[0].ucInterface, bNumbered, &keyboard}});
}

uint8_t EndpointOf(const EmuDescriptors& kind)
{
    for (const InterfaceEndpoint& endpoint :
         EndpointsOf(Bytes(kind.pConfiguration, kind.pConfiguration + kind.ulConfiguration)))
        if (endpoint.ucEndpoint & 0x80)
            return endpoint.ucEndpoint & 0x0F;
    return 0;
}

} // namespace usbip
