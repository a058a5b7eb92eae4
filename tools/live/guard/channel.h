// channel.h - what the guardian and its worker tell each other: short words, and open files with one of them.
//
//   guardian ── Keyboard, with its node and /dev/uhid ──► worker
//            ◄───────────── Beat, Panic, PulledOut ──────
#pragma once

#include "tools/live/usb/found.h"

#include <utility>

enum class GuardWord : uint8_t { Keyboard, Beat, Panic, PulledOut };

// A keyboard with its open files: the node, and a /dev/uhid for each interface.
struct OpenKeyboard {
    UsbFound found;
    int iNode = -1;
    std::vector<int> uhids;

    void CloseUhids();
    void Close();
};

class GuardChannel
{
public:
    GuardChannel() = default;
    explicit GuardChannel(int iSocket) : m_iSocket(iSocket) {}
    GuardChannel(GuardChannel&& other) noexcept : m_iSocket(std::exchange(other.m_iSocket, -1)) {}
    GuardChannel& operator=(GuardChannel&& other) noexcept
    {
        std::swap(m_iSocket, other.m_iSocket);
        return *this;
    }
    ~GuardChannel();
    // Both ends. Fails (std::runtime_error).
    static std::pair<GuardChannel, GuardChannel> Make();

    int Socket() const { return m_iSocket; }
    // Never waits: a word for which there is no room is lost, as is one to nobody. False then.
    bool Tell(GuardWord word) const;
    bool TellKeyboard(const OpenKeyboard& keyboard) const;
    // The next word, and with Keyboard what comes along; false when there is none, or nobody.
    bool Take(GuardWord* pWord, OpenKeyboard* pKeyboard = nullptr) const;

private:
    int m_iSocket = -1;
};
