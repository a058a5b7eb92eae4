// socket_transport.h - the transport to a driver that another process serves at its control socket.
#pragma once

#include <string>

#include "client/transport.h"

namespace tvusb
{
// Speaks as the process of the given size that connects to this path. A server that ends, or throws this process
// out, ends every call with Disconnected; Open connects anew.
std::unique_ptr<Transport> SocketTransport(std::string Path, bool b32 = false);

// Where the environment (TVUSB_CONTROL) says that a driver is served; empty when it does not.
std::string ControlPath();
} // namespace tvusb
