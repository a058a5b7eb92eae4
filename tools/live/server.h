// server.h - the control socket: any number of processes at the driver of this one.
//
// Each process that connects gets a Peer. Only the socket's owner and root may connect: the socket has the mode 0600, and
// who connects is asked for.
#pragma once

#include "peer.h"

#include <string>

constexpr size_t ServerMostPeers = 256;

class ControlServer
{
public:
    // Fails (InputError): the path is no place for a socket, or is served already; what is there stays. A socket
    // that nobody serves any more is replaced.
    explicit ControlServer(const std::string& path, int iPatienceMs = PeerPatienceMs, PeerReload reload = {});
    // Ends every peer and takes the socket away.
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    size_t Peers() const { return m_Listener->Callers(); }

private:
    int Bind() const;

    const std::string m_path;
    const PeerReload m_Reload;
    std::unique_ptr<Listener> m_Listener;
};
