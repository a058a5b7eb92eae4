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
    Server(const std::string& address, std::vector<std::unique_ptr<Export>> exports,
           int iPatienceMs = PatienceMs);
    // Ends every session: whoever has a keyboard sees it pulled out.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Where it listens and what it offers, with a warning where other machines reach it.
    std::string Words() const;
    uint16_t Port() const { return m_usPort; }
    // Whether other machines reach the address.
    bool IsOpen() const { return m_bOpen; }
    // The next report of the keyboard of this number, at that endpoint. From any thread; does not wait.
    void Input(size_t keyboard, uint8_t ucEndpoint, const Bytes& report);

private:
    void Bind(const std::string& address);
    void Listen();

    Exports m_Exports;
    int m_iPatienceMs, m_iListener = -1, m_iWake = -1;
    std::string m_host;
    uint16_t m_usPort = 0;
    bool m_bOpen = false;
    std::atomic<bool> m_bEnd{false};
    std::vector<std::unique_ptr<Session>> m_Sessions; // of the listening thread
    HostThread m_Thread = nullptr;
};

} // namespace usbip
