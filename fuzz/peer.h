// peer.h - a connection whose other end sends whatever an input holds, and takes what it is answered.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "driver/driver.h"
#include "emu/app/machine.h"
#include "input.h"

// The driver with a keyboard, for the whole run: nothing of a connection may stay behind. What is left is counted at the
// end, as what lives on looks lost to a leak checker that asks after each input.
inline EmuKeyboard* LastingKeyboard()
{
    static EmuMachine* pMachine = nullptr;
    static EmuKeyboard* pKeyboard = nullptr;
    if (pMachine == nullptr) {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.Mode = HostThreaded;
        pMachine = new EmuMachine(options);
        pKeyboard = pMachine->Plug();
        atexit([] {
            if (pMachine->Unload() != 0) {
                abort();
            }
        });
    }
    return pKeyboard;
}

class FuzzedPeer
{
public:
    FuzzedPeer() { (void)!socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_iSockets); }
    ~FuzzedPeer() { close(m_iSockets[1]); }

    int Other() const { return m_iSockets[0]; } // goes to what is tested
    static int Wake()
    {
        static int iWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        return iWake;
    }

    // Sends everything, then nothing more. What comes is taken, until the other side ends or is quiet.
    void Play(const std::vector<uint8_t>& bytes)
    {
        (void)!send(m_iSockets[1], bytes.data(), bytes.size(), MSG_NOSIGNAL);
        shutdown(m_iSockets[1], SHUT_WR);
        char taken[4096];
        pollfd wait = {m_iSockets[1], POLLIN, 0};
        while (poll(&wait, 1, QuietMs) > 0 && recv(m_iSockets[1], taken, sizeof taken, 0) > 0) {
        }
    }

private:
    static constexpr int QuietMs = 20;
    int m_iSockets[2] = {-1, -1};
};
