// listener.h - lets callers in, each with a thread of its own, and notices when one is gone.
//
//   listening socket ── accept ──► Caller            hang-up ──► Caller::End: what the caller waits for is cancelled
//   wake (a caller is over, the listener ends) ──► those that are over go
#pragma once

#include <host.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

// Somebody who connected. Who derives from it calls Start when it is whole, and Stop before it goes.
class Caller
{
public:
    virtual ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    int Socket() const { return m_iSocket; }
    bool Ending() const { return m_bEnding; }
    bool Over() const { return m_bOver; }
    // It is gone, or shall be: what it asked for is cancelled. From any thread.
    virtual void End();

protected:
    // Owns the socket; a write to iWake tells that it is over.
    Caller(int iSocket, int iWake, int iPatienceMs);
    void Start();
    void Stop(); // ends it and waits for it
    virtual void Serve() = 0;
    void EndConnection(); // no request begins any more
    // So many bytes. The first may come whenever it comes (bPatient), the rest within the patience. False: the caller is
    // gone, or was too slow.
    bool Take(void* pTo, size_t cBytes, bool bPatient) const;

private:
    const int m_iSocket, m_iWake, m_iPatienceMs;
    std::atomic<bool> m_bEnding{false}, m_bOver{false};
    HostThread m_Thread = nullptr;
};

class Listener
{
public:
    // Null: not welcome, or the socket is closed.
    using Welcome = std::function<std::unique_ptr<Caller>(int iSocket, int iWake)>;

    // Owns the listening socket.
    Listener(int iSocket, size_t cMost, Welcome welcome);
    ~Listener(); // ends every caller
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    size_t Callers() const { return m_cCallers; }

private:
    void Listen();
    void Accept();

    const int m_iSocket, m_iWake;
    const size_t m_cMost;
    const Welcome m_Welcome;
    std::atomic<bool> m_bEnd{false};
    std::atomic<size_t> m_cCallers{0};
    std::vector<std::unique_ptr<Caller>> m_Callers; // of the listening thread
    HostThread m_Thread = nullptr;
};
