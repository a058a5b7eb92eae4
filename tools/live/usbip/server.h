// server.h - keyboards offered over USB/IP: a machine that attaches one has it as a USB keyboard of its own, with the
// driver in between.
//
// The protocol knows no passwords: whoever reaches the address can take a keyboard and reads what is typed.
#pragma once

#include "session.h"

namespace usbip
{

constexpr uint16_t StandardPort = 3240;
constexpr int PatienceMs = 5000;
constexpr size_t MostSessions = 64;

class Server
{
public:
    // Address: "127.0.0.1", "[::1]:3240", "0.0.0.0:0" (any free port). Fails (InputError): it is none, or taken.
    explicit Server(const std::string& address, int iPatienceMs = PatienceMs);

    Exports& Offered() { return m_Exports; }
    // Where it listens, with a warning where other machines reach it.
    std::string Words() const;
    uint16_t Port() const { return m_usPort; }
    // Whether other machines reach the address.
    bool IsOpen() const { return m_bOpen; }

private:
    int Bind(const std::string& address);

    Exports m_Exports;
    std::string m_host;
    uint16_t m_usPort = 0;
    bool m_bOpen = false;
    std::unique_ptr<Listener>
        m_Listener; // goes first, and with it every session: who has a keyboard sees it pulled out
};

} // namespace usbip
