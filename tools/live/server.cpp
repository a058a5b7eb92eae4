// server.cpp - makes the control socket, and looks at who connects there.
#include "server.h"

#include "tools/common/failure.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        throw InputError(
            fmt::format("{}: a socket's path has 1 to {} bytes", path, sizeof(address.sun_path) - 1));
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// Takes away a socket that nobody serves.
void MakeRoom(const std::string& path, const sockaddr_un& address)
{
    struct stat there;
    if (lstat(path.c_str(), &there) != 0)
        return;
    if (!S_ISSOCK(there.st_mode))
        throw InputError(path + ": exists and is no socket");
    int iProbe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool bServed = connect(iProbe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
                   errno != ECONNREFUSED;
    close(iProbe);
    if (bServed)
        throw InputError(path + ": is served by another process");
    unlink(path.c_str());
}

bool IsTrusted(int iSocket)
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    return getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == 0 || peer.uid == geteuid());
}

} // namespace

ControlServer::ControlServer(const std::string& path, int iPatienceMs, PeerReload reload)
    : m_path(path), m_Reload(std::move(reload))
{
    m_Listener = std::make_unique<Listener>(
        Bind(), ServerMostPeers, [this, iPatienceMs](int iSocket, int iWake) -> std::unique_ptr<Caller> {
            if (IsTrusted(iSocket))
                return std::make_unique<Peer>(iSocket, iWake, m_Reload, iPatienceMs);
            close(iSocket);
            return nullptr;
        });
}

ControlServer::~ControlServer()
{
    m_Listener.reset();
    unlink(m_path.c_str());
}

// The listening socket.
int ControlServer::Bind() const
{
    sockaddr_un address = AddressOf(m_path);
    MakeRoom(m_path, address);
    int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    mode_t mask = umask(0177);
    bool bBound = bind(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    int iError = errno;
    umask(mask);
    if (!bBound || listen(iSocket, SOMAXCONN) != 0) {
        iError = bBound ? errno : iError;
        close(iSocket);
        throw InputError(fmt::format("{}: {}", m_path, strerror(iError)));
    }
    return iSocket;
}
