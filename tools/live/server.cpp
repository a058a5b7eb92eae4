// server.cpp - listens at the control socket, and notices when a process is gone.
//
//   listener ── accept, peer checked ──► Peer, with a thread of its own
//   hang-up of a peer ──► Peer::End: what it has at the driver is cancelled
//   wake (a peer is over, the server ends) ──► those that are over go
#include "server.h"

#include "tools/common/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
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
    : m_path(path), m_Reload(std::move(reload)), m_iPatienceMs(iPatienceMs)
{
    Bind();
    m_iWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_Thread = HostStartThread([this] { Listen(); });
}

ControlServer::~ControlServer()
{
    m_bEnd = true;
    uint64_t ullOne = 1;
    (void)!write(m_iWake, &ullOne, sizeof(ullOne));
    HostJoinThread(m_Thread);
    unlink(m_path.c_str());
    close(m_iListener);
    close(m_iWake);
}

void ControlServer::Bind()
{
    sockaddr_un address = AddressOf(m_path);
    MakeRoom(m_path, address);
    m_iListener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    mode_t mask = umask(0177);
    bool bBound = bind(m_iListener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    int iError = errno;
    umask(mask);
    if (!bBound || listen(m_iListener, 128) != 0) {
        close(m_iListener);
        throw InputError(fmt::format("{}: {}", m_path, strerror(bBound ? errno : iError)));
    }
}

void ControlServer::Listen()
{
    while (!m_bEnd) {
        bool bRoom = m_Peers.size() < ServerMostPeers;
        std::vector<pollfd> waits = {{m_iWake, POLLIN, 0}, {bRoom ? m_iListener : -1, POLLIN, 0}};
        for (auto& peer : m_Peers)
            waits.push_back({peer->Ending() ? -1 : peer->Socket(), POLLRDHUP, 0});
        poll(waits.data(), waits.size(), -1);
        for (size_t i = 0; i < m_Peers.size(); i++)
            if (waits[i + 2].revents != 0)
                m_Peers[i]->End();
        uint64_t ullCount;
        (void)!read(m_iWake, &ullCount, sizeof(ullCount));
        auto isOver = [](const auto& peer) { return peer->Over(); };
        m_Peers.erase(std::remove_if(m_Peers.begin(), m_Peers.end(), isOver), m_Peers.end());
        if (waits[1].revents != 0)
            Accept();
        m_cPeers = m_Peers.size();
    }
    for (auto& peer : m_Peers)
        peer->End();
    m_Peers.clear();
}

void ControlServer::Accept()
{
    int iSocket = accept4(m_iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (iSocket < 0) {
        if (errno == EMFILE || errno == ENFILE)
            usleep(10000); // until somebody's is closed
        return;
    }
    if (IsTrusted(iSocket))
        m_Peers.push_back(std::make_unique<Peer>(iSocket, m_iWake, m_Reload, m_iPatienceMs));
    else
        close(iSocket);
}
