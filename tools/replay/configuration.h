// configuration.h - reads configuration descriptors and cuts one out for a single interface.
//
// The parent of a composite device shows each interface a configuration of its own: the header, that
// interface with all its descriptors, and nothing else. The captured answers are those of the whole device,
// so they are cut here before an interface sees them.
#pragma once

#include "packet.h"

#include <optional>
#include <vector>

struct InterfaceEndpoint {
    uint8_t ucInterface;
    uint8_t ucClass;
    uint8_t ucProtocol;
    uint8_t ucEndpoint; // address with direction bit
    uint16_t usPacketBytes;
};

// True for a configuration descriptor with everything that its wTotalLength promises.
bool IsWholeConfiguration(const Bytes& descriptor);

// The endpoints that a configuration descriptor tells of, in its order; a cut one tells those that are whole.
std::vector<InterfaceEndpoint> EndpointsOf(const Bytes& configuration);

// Number of different interfaces in the descriptor.
unsigned CountInterfaces(const Bytes& configuration);

// The configuration of one interface alone: one interface, wTotalLength of what is left.
Bytes OwnConfiguration(const Bytes& configuration, uint8_t ucInterface);
