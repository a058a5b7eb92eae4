// session.h - one machine that looks at the exported keyboards, or has imported one.
//
//   CMD_SUBMIT, interrupt in ──► waits in its endpoint's line ──► the keyboard's next report answers it
//   CMD_SUBMIT, control      ──► the keyboard answers            CMD_UNLINK ──► the waiting one is gone
//
// A thread of its own reads; reports come from any thread and are never held up: who takes no answers, sends rubbish or
// half a message loses the connection. An answer is one send.
#pragma once

#include "wire.h"

#include <host.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace usbip
{

class Session;

// A keyboard that is offered: to one machine at a time.
struct Export {
    Device device;
    // Sends a control request to the keyboard and waits for its end. Data: what goes out, or room for what comes in and
    // then that. False: stalled. From a session's thread.
    std::function<bool(const uint8_t* pSetup, Bytes& data)> Request;

    std::mutex Lock;
    Session* pImporter = nullptr; // guarded by Lock
};
using Exports = std::vector<std::unique_ptr<Export>>;

class Session
{
public:
    // Owns the socket; a write to iWake tells that the session is over. iPatienceMs: for the first message, and for
    // the rest of one.
    Session(int iSocket, int iWake, Exports& exports, int iPatienceMs);
    ~Session(); // ends it and waits for it
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    int Socket() const { return m_iSocket; }
    bool Ending() const { return m_bEnding; }
    bool Over() const { return m_bOver; }
    void End(); // the machine is gone, or shall be; from another thread
    // The keyboard's next report at this endpoint. From any thread; does not wait.
    void Input(uint8_t ucEndpoint, const Bytes& report);

private:
    // Reads that wait for a report, or reports that wait for a read: never both.
    struct Line {
        std::deque<Request> reads;
        std::deque<Bytes> reports;
    };

    void Serve();
    bool Operate();
    bool Import();
    bool Transfer();
    bool Submit(const Request& request);
    bool Unlink(const Request& request);
    bool Control(const Request& request, Bytes data);
    bool Take(void* pTo, size_t bytes, bool bPatient);
    bool Put(const Bytes& answer);

    int m_iSocket, m_iWake, m_iPatienceMs;
    Exports& m_Exports;
    Export* m_pImported = nullptr;
    std::atomic<bool> m_bEnding{false}, m_bOver{false};
    std::mutex m_Lock;               // guards what follows, and the order of what is sent
    std::map<uint8_t, Line> m_Lines; // by endpoint number
    HostThread m_Thread = nullptr;
};

} // namespace usbip
