// server.cpp - listens, and notices when a machine is gone.
#include "server.h"

#include "tools/common/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
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

Server::Server(const std::string& address, std::vector<std::unique_ptr<Export>> exports, int iPatienceMs)
    : m_Exports(std::move(exports)), m_iPatienceMs(iPatienceMs)
{
    Bind(address);
    m_iWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_Thread = HostStartThread([this] { Listen(); });
}

Server::~Server()
{
    m_bEnd = true;
    uint64_t ullOne = 1;
    (void)!write(m_iWake, &ullOne, sizeof(ullOne));
    HostJoinThread(m_Thread);
    close(m_iListener);
    close(m_iWake);
}

void Server::Bind(const std::string& address)
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
    m_iListener = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int iOn = 1; // a server that was killed leaves connections behind that are about to go
    setsockopt(m_iListener, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    if (bind(m_iListener, found->ai_addr, found->ai_addrlen) != 0 || listen(m_iListener, 16) != 0) {
        const int iError = errno;
        close(m_iListener);
        throw InputError(fmt::format("--usbip: {}: {}", address, strerror(iError)));
    }
    sockaddr_storage bound = {};
    socklen_t length = sizeof(bound);
    getsockname(m_iListener, reinterpret_cast<sockaddr*>(&bound), &length);
    m_usPort = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                                 : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

std::string Server::Words() const
{
    std::string buses;
    for (auto& exported : m_Exports)
        buses += (buses.empty() ? "" : ", ") + exported->device.bus;
    std::string words = fmt::format("offered over USB/IP at {}, port {}, as {}", m_host, m_usPort, buses);
    if (m_bOpen)
        words += "; other machines reach this address, and USB/IP knows no passwords: whoever connects can "
                 "take the "
                 "keyboard and read what is typed";
    return words;
}

void Server::Listen()
{
    while (!m_bEnd) {
        std::vector<pollfd> waits = {{m_iWake, POLLIN, 0},
                                     {m_Sessions.size() < MostSessions ? m_iListener : -1, POLLIN, 0}};
        for (auto& session : m_Sessions)
            waits.push_back({session->Ending() ? -1 : session->Socket(), POLLRDHUP, 0});
        poll(waits.data(), waits.size(), -1);
        for (size_t i = 0; i < m_Sessions.size(); i++)
            if (waits[i + 2].revents != 0)
                m_Sessions[i]->End();
        uint64_t ullCount;
        (void)!read(m_iWake, &ullCount, sizeof(ullCount));
        auto isOver = [](const auto& session) { return session->Over(); };
        m_Sessions.erase(std::remove_if(m_Sessions.begin(), m_Sessions.end(), isOver), m_Sessions.end());
        if (waits[1].revents == 0)
            continue;
        int iSocket = accept4(m_iListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (iSocket >= 0)
            m_Sessions.push_back(std::make_unique<Session>(iSocket, m_iWake, m_Exports, m_iPatienceMs));
        else if (errno == EMFILE || errno == ENFILE)
            usleep(10000); // until somebody's is closed
    }
    for (auto& session : m_Sessions)
        session->End();
    m_Sessions.clear();
}

void Server::Input(size_t keyboard, uint8_t ucEndpoint, const Bytes& report)
{
    Export& exported = *m_Exports[keyboard];
    std::lock_guard<std::mutex> lock(exported.Lock);
    if (exported.pImporter)
        exported.pImporter->Input(ucEndpoint, report);
}

} // namespace usbip
