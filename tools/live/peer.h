// peer.h - one process at the control socket: its handle of the control device, its events, its waits.
//
// A thread of the peer's own reads requests and answers them one after the other; each wait has a thread too. What a
// peer sends is bounded before room is made for it. Rubbish, half a frame, silence before Open or answers that
// nobody takes end this connection, and with it the handle, as the end of a process does.
#pragma once

#include "listener.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/frames.h"
#include "client/transport.h"

constexpr int PeerPatienceMs = 5000; // for Open, for the rest of a frame, and for an answer to be taken
constexpr size_t PeerMostEvents = 256, PeerMostWaits = 64;

// Reads the configuration anew: true when all of it is in force, and what came of it, in words.
using PeerReload = std::function<bool(std::string* pWords)>;

class Peer final : public Caller
{
public:
    Peer(int iSocket, int iWake, const PeerReload& reload, int iPatienceMs = PeerPatienceMs);
    ~Peer() override;
    void End() override;

private:
    using Bytes = std::vector<uint8_t>;
    // An event lives as long as one waits for it.
    struct Event {
        tvusb::Transport& Driver;
        uint64_t hEvent;
        ~Event() { Driver.FreeEvent(hEvent); }
    };
    struct Waiter {
        HostThread Thread = nullptr;
        std::atomic<bool> bDone{false};
    };

    void Serve() override;
    void EndWaiters();
    bool TakeFrame(tvusb::Frame* pHead, Bytes* pBody);
    bool Put(const tvusb::Frame& request, uint32_t ulStatus, uint32_t ulMore, const Bytes& body = {});
    bool Open(const tvusb::Frame& head);
    bool Reload(const tvusb::Frame& head);
    bool Answer(const tvusb::Frame& head, Bytes& body);
    bool Control(const tvusb::Frame& head, Bytes& in);
    bool NewEvent(const tvusb::Frame& head);
    bool Wait(const tvusb::Frame& head);
    bool FreeEvent(const tvusb::Frame& head);
    bool Interfaces(const tvusb::Frame& head);
    void OwnHandle(uint32_t ulCode, Bytes& in) const;
    void JoinWaiters(bool bAll);

    const PeerReload& m_Reload;                 // empty: nobody has a configuration
    std::unique_ptr<tvusb::Transport> m_Driver; // of the peer's thread and the waiters
    std::map<uint32_t, std::shared_ptr<Event>>
        m_Events; // of the peer's thread, by the number that the process knows
    uint32_t m_ulNextEvent = 4;
    bool m_b32 = false;
    std::mutex m_WriteLock; // one answer at a time
    std::mutex m_Lock;      // guards the waiters
    std::vector<std::unique_ptr<Waiter>> m_Waiters;
};
