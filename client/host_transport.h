// host_transport.h - the transport to a driver that runs on the host (host.h), in this very process.
#pragma once

#include "client/transport.h"

namespace tvusb
{
enum class ProcessSize { Bits64, Bits32 };

// Speaks as a process of the given size. HostStart must have been called; every thread that uses the transport
// is one of the host's.
std::unique_ptr<Transport> HostTransport(ProcessSize size = ProcessSize::Bits64);
} // namespace tvusb
