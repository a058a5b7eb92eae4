// server.cpp - makes the socket at an address.
#include "server.h"

#include "tools/common/failure.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace usbip
{
namespace
{

// "HOST", "HOST:PORT", "[HOST]:PORT"; an IPv6 address without a port may stand bare.
std::pair<std::string, std::string> Split(const std::string& address)
{
    const std::string standard = std::to_string(StandardPort);
    if (!address.empty() && address[0] == '[') {
        const size_t end = address.find(']');
        if (end == std::string::npos || (end + 1 < address.size() && address[end + 1] != ':'))
            throw InputError(fmt::format("--usbip: '{}' is no address", address));
        return {address.substr(1, end - 1), end + 1 < address.size() ? address.substr(end + 2) : standard};
    }
    const size_t colon = address.find(':');
    if (colon == std::string::npos || address.find(':', colon + 1) != std::string::npos)
        return {address, standard};
    return {address.substr(0, colon), address.substr(colon + 1)};
}

bool IsLoopback(const sockaddr* pAddress)
{
    if (pAddress->sa_family == AF_INET6)
        return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(pAddress)->sin6_addr);
    return ntohl(reinterpret_cast<const sockaddr_in*>(pAddress)->sin_addr.s_addr) >> 24 == 127;
}

} // namespace

Server::Server(const std::string& address, int iPatienceMs)
{
    m_Listener =
        std::make_unique<Listener>(Bind(address), MostSessions, [this, iPatienceMs](int iSocket, int iWake) {
            return std::make_unique<Session>(iSocket, iWake, m_Exports, iPatienceMs);
        });
}

// The listening socket.
int Server::Bind(const std::string& address)
{
    const auto [host, port] = Split(address);
    m_host = host;
    addrinfo wanted = {}, *pFound = nullptr;
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    wanted.ai_socktype = SOCK_STREAM;
    if (int iError = getaddrinfo(host.c_str(), port.c_str(), &wanted, &pFound); iError != 0)
        throw InputError(fmt::format("--usbip: '{}' is no address: {}", address, gai_strerror(iError)));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> found(pFound, freeaddrinfo);
    m_bOpen = !IsLoopback(found->ai_addr);
    int iListener = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int iOn = 1; // a server that was killed leaves connections behind that are about to go
    setsockopt(iListener, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    if (bind(iListener, found->ai_addr, found->ai_addrlen) != 0 || listen(iListener, SOMAXCONN) != 0) {
        const int iError = errno;
        close(iListener);
        throw InputError(fmt::format("--usbip: {}: {}", address, strerror(iError)));
    }
    sockaddr_storage bound = {};
    socklen_t length = sizeof(bound);
    getsockname(iListener, reinterpret_cast<sockaddr*>(&bound), &length);
    m_usPort = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                                 : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    return iListener;
}

std::string Server::Words() const
{
    std::string words = fmt::format("USB/IP is served at {}, port {}", m_host, m_usPort);
    if (m_bOpen)
        words += "; other machines reach this address, and USB/IP knows no passwords: whoever connects can "
                 "take the "
                 "keyboard and read what is typed";
    return words;
}

} // namespace usbip
