// configuration.cpp - walks the chained descriptors of a configuration.
//
//   configuration | interface 0 (HID, endpoint) | interface 1 (HID, endpoint) | ...
//   each descriptor: bLength, bDescriptorType, ...; the walk ends at the first one that does not fit.
#include "configuration.h"
#include "tools/common/text.h"

#include <set>

namespace
{

constexpr uint8_t TypeConfiguration = 2, TypeInterface = 4, TypeEndpoint = 5, TypeAssociation = 11;
constexpr size_t ConfigurationBytes = 9, InterfaceBytes = 9, EndpointBytes = 7;

// Calls visit(pointer, length) for each descriptor that lies whole inside the bytes.
template <typename Visit> void WalkDescriptors(const Bytes& bytes, Visit visit)
{
    size_t cAt = 0;
    while (bytes.size() - cAt >= 2 && bytes[cAt] >= 2 && bytes[cAt] <= bytes.size() - cAt) {
        visit(&bytes[cAt], static_cast<size_t>(bytes[cAt]));
        cAt += bytes[cAt];
    }
}

bool IsInterface(const uint8_t* pDescriptor, size_t cBytes)
{
    return pDescriptor[1] == TypeInterface && cBytes >= InterfaceBytes;
}

} // namespace

bool IsWholeConfiguration(const Bytes& descriptor)
{
    return descriptor.size() > ConfigurationBytes && descriptor[0] == ConfigurationBytes &&
           descriptor[1] == TypeConfiguration && descriptor.size() >= WordAt(descriptor.data(), 2);
}

std::vector<InterfaceEndpoint> EndpointsOf(const Bytes& configuration)
{
    std::vector<InterfaceEndpoint> endpoints;
    InterfaceEndpoint current{};
    bool bInside = false;
    WalkDescriptors(configuration, [&](const uint8_t* pDescriptor, size_t cBytes) {
        if (IsInterface(pDescriptor, cBytes)) {
            current.ucInterface = pDescriptor[2];
            current.ucClass = pDescriptor[5];
            current.ucProtocol = pDescriptor[7];
            bInside = true;
        } else if (bInside && pDescriptor[1] == TypeEndpoint && cBytes >= EndpointBytes) {
            current.ucEndpoint = pDescriptor[2];
            current.usPacketBytes = static_cast<uint16_t>(WordAt(pDescriptor, 4) & 0x7FF);
            endpoints.push_back(current);
        }
    });
    return endpoints;
}

unsigned CountInterfaces(const Bytes& configuration)
{
    std::set<uint8_t> numbers;
    WalkDescriptors(configuration, [&](const uint8_t* pDescriptor, size_t cBytes) {
        if (IsInterface(pDescriptor, cBytes))
            numbers.insert(pDescriptor[2]);
    });
    return static_cast<unsigned>(numbers.size());
}

Bytes OwnConfiguration(const Bytes& configuration, uint8_t ucInterface)
{
    Bytes own;
    bool bKeep = true; // the header comes first
    WalkDescriptors(configuration, [&](const uint8_t* pDescriptor, size_t cBytes) {
        if (IsInterface(pDescriptor, cBytes))
            bKeep = pDescriptor[2] == ucInterface;
        if (bKeep && pDescriptor[1] != TypeAssociation)
            own.insert(own.end(), pDescriptor, pDescriptor + cBytes);
    });
    if (own.size() >= ConfigurationBytes) {
        own[2] = static_cast<uint8_t>(own.size());
        own[3] = static_cast<uint8_t>(own.size() >> 8);
        own[4] = 1;
    }
    return own;
}
