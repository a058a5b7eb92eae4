// session.h - one machine that looks at the exported keyboards, or has imported one.
//
//   CMD_SUBMIT, interrupt in ──► waits in its endpoint's line ──► the keyboard's next report answers it
//   CMD_SUBMIT, control      ──► the keyboard answers            CMD_UNLINK ──► the waiting one is gone
//
// A thread of its own reads; reports come from any thread and are never held up: who takes no answers, sends rubbish or
// half a message loses the connection. An answer is one send.
#pragma once

#include "../listener.h"
#include "export.h"

#include <deque>
#include <map>

namespace usbip
{

class Session final : public Caller
{
public:
    // iPatienceMs: for the first message, and for the rest of one.
    Session(int iSocket, int iWake, const Exports& exports, int iPatienceMs);
    ~Session() override;
    // The keyboard's next report at this endpoint. From any thread; does not wait.
    void Input(uint8_t ucEndpoint, const Bytes& report);

private:
    // Reads that wait for a report, or reports that wait for a read: never both.
    struct Line {
        std::deque<Request> reads;
        std::deque<Bytes> reports;
    };

    void Serve() override;
    bool Operate();
    bool Import();
    bool Transfer();
    bool Submit(const Request& request);
    bool Unlink(const Request& request);
    bool Control(const Request& request, Bytes data);
    bool Put(const Bytes& answer);

    const Exports& m_Exports;
    std::shared_ptr<Export> m_Imported; // of the session's thread
    std::mutex m_Lock;                  // guards what follows, and the order of what is sent
    std::map<uint8_t, Line> m_Lines;    // by endpoint number
};

} // namespace usbip
