// listener.cpp - the loop of a listener, and the life of a caller.
#include "listener.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

void WakeUp(int iWake)
{
    uint64_t ullOne = 1;
    (void)!write(iWake, &ullOne, sizeof(ullOne));
}

} // namespace

Caller::Caller(int iSocket, int iWake, int iPatienceMs)
    : m_iSocket(iSocket), m_iWake(iWake), m_iPatienceMs(iPatienceMs)
{
}

Caller::~Caller()
{
    close(m_iSocket);
}

void Caller::Start()
{
    m_Thread = HostStartThread([this] {
        Serve();
        EndConnection();
        m_bOver = true;
        WakeUp(m_iWake);
    });
}

void Caller::Stop()
{
    End();
    HostJoinThread(m_Thread);
}

void Caller::EndConnection()
{
    m_bEnding = true;
    shutdown(m_iSocket, SHUT_RDWR);
}

// A caller's thread that has a request at the driver is cancelled there, as the end of a process cancels it.
void Caller::End()
{
    EndConnection();
    HostEndThreadWaits(m_Thread);
}

bool Caller::Take(void* pTo, size_t cBytes, bool bPatient) const
{
    using Clock = std::chrono::steady_clock;
    const auto patience = std::chrono::milliseconds(m_iPatienceMs);
    auto due = Clock::now() + patience;
    for (size_t cDone = 0; cDone < cBytes;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()).count();
        const bool bForever = bPatient && cDone == 0;
        pollfd wait = {m_iSocket, POLLIN, 0};
        if (poll(&wait, 1, bForever ? -1 : static_cast<int>(std::max<long>(left, 0))) <= 0 && errno != EINTR)
            return false;
        ssize_t got = recv(m_iSocket, static_cast<uint8_t*>(pTo) + cDone, cBytes - cDone, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR) || (got < 0 && !bForever && left <= 0))
            return false;
        if (got > 0 && bForever)
            due = Clock::now() + patience;
        cDone += got > 0 ? static_cast<size_t>(got) : 0;
    }
    return true;
}

Listener::Listener(int iSocket, size_t cMost, Welcome welcome)
    : m_iSocket(iSocket), m_iWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_cMost(cMost),
      m_Welcome(std::move(welcome))
{
    m_Thread = HostStartThread([this] { Listen(); });
}

Listener::~Listener()
{
    m_bEnd = true;
    WakeUp(m_iWake);
    HostJoinThread(m_Thread);
    close(m_iSocket);
    close(m_iWake);
}

void Listener::Listen()
{
    while (!m_bEnd) {
        std::vector<pollfd> waits = {{m_iWake, POLLIN, 0},
                                     {m_Callers.size() < m_cMost ? m_iSocket : -1, POLLIN, 0}};
        for (auto& caller : m_Callers)
            waits.push_back({caller->Ending() ? -1 : caller->Socket(), POLLRDHUP, 0});
        poll(waits.data(), waits.size(), -1);
        for (size_t i = 0; i < m_Callers.size(); i++)
            if (waits[i + 2].revents != 0)
                m_Callers[i]->End();
        uint64_t ullCount;
        (void)!read(m_iWake, &ullCount, sizeof(ullCount));
        auto isOver = [](const auto& caller) { return caller->Over(); };
        m_Callers.erase(std::remove_if(m_Callers.begin(), m_Callers.end(), isOver), m_Callers.end());
        if (waits[1].revents != 0)
            Accept();
        m_cCallers = m_Callers.size();
    }
    for (auto& caller : m_Callers)
        caller->End();
    m_Callers.clear();
}

// All who wait.
void Listener::Accept()
{
    while (m_Callers.size() < m_cMost) {
        const int iSocket = accept4(m_iSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (iSocket < 0) {
            if (errno == EMFILE || errno == ENFILE)
                usleep(10000); // until somebody's is closed
            return;
        }
        if (auto caller = m_Welcome(iSocket, m_iWake))
            m_Callers.push_back(std::move(caller));
    }
}
