// importer.h - a machine that speaks USB/IP with whoever offers keyboards.
#pragma once

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "emu/app/machine.h"

// A machine's connection.
class Machine
{
public:
    explicit Machine(uint16_t usPort) : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(usPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(m_iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    ~Machine() { close(m_iSocket); }

    void Put(const EmuBytes& bytes) { (void)!send(m_iSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // So many bytes, or fewer when the server ends the connection or says nothing for so long.
    EmuBytes Take(size_t bytes, int iWithinMs = 3000)
    {
        EmuBytes taken(bytes);
        size_t done = 0;
        pollfd wait = {m_iSocket, POLLIN, 0};
        while (done < bytes && poll(&wait, 1, iWithinMs) > 0) {
            ssize_t got = recv(m_iSocket, taken.data() + done, bytes - done, 0);
            if (got <= 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        taken.resize(done);
        return taken;
    }

    bool IsClosed(int iWithinMs = 3000)
    {
        pollfd wait = {m_iSocket, POLLIN, 0};
        char c;
        return poll(&wait, 1, iWithinMs) > 0 && recv(m_iSocket, &c, 1, 0) <= 0;
    }

    static EmuBytes Operation(uint8_t ucWhat) { return {0x01, 0x11, 0x80, ucWhat, 0, 0, 0, 0}; }

    // The status of the answer to an import; its device record is taken, too.
    int Import(const std::string& bus)
    {
        EmuBytes request = Operation(3);
        request.insert(request.end(), bus.begin(), bus.end());
        request.resize(40);
        Put(request);
        EmuBytes answer = Take(8);
        if (answer.size() != 8 || answer[3] != 3) {
            return -1;
        }
        return answer[7] != 0 ? answer[7] : Take(312).size() == 312 ? 0 : -2;
    }

    static void PutLong(EmuBytes& to, size_t at, uint32_t ulValue)
    {
        for (int i = 0; i < 4; i++) {
            to[at + i] = static_cast<UCHAR>(ulValue >> (24 - 8 * i));
        }
    }
    static uint32_t LongAt(const EmuBytes& from, size_t at)
    {
        return from.at(at) << 24 | from.at(at + 1) << 16 | from.at(at + 2) << 8 | from.at(at + 3);
    }

    static EmuBytes Head(uint32_t ulCommand, uint32_t ulSequence, bool bIn, uint32_t ulEndpoint,
                         uint32_t ulBytes, const EmuBytes& setup = EmuBytes(8))
    {
        EmuBytes head(48);
        PutLong(head, 0, ulCommand);
        PutLong(head, 4, ulSequence);
        PutLong(head, 12, bIn);
        PutLong(head, 16, ulEndpoint);
        PutLong(head, 20, ulCommand == 2 ? ulBytes : 0);
        PutLong(head, 24, ulCommand == 2 ? 0 : ulBytes);
        std::copy(setup.begin(), setup.end(), head.begin() + 40);
        return head;
    }

    // An answer: command, sequence, status, and the data behind it.
    struct Answer {
        uint32_t ulCommand = 0, ulSequence = 0;
        int iStatus = 0;
        EmuBytes Data;
    };
    Answer TakeAnswer(bool bIn)
    {
        EmuBytes head = Take(48);
        if (head.size() != 48) {
            ADD_FAILURE() << "no answer";
            return {};
        }
        Answer answer = {LongAt(head, 0), LongAt(head, 4), static_cast<int>(LongAt(head, 20)), {}};
        answer.Data = Take(bIn && answer.ulCommand == 3 ? LongAt(head, 24) : 0);
        return answer;
    }
    Answer Control(uint32_t ulSequence, const EmuBytes& setup, const EmuBytes& out = {})
    {
        bool bIn = setup[0] & 0x80;
        EmuBytes request = Head(1, ulSequence, bIn, 0, setup[6], setup);
        request.insert(request.end(), out.begin(), out.end());
        Put(request);
        return TakeAnswer(bIn);
    }

private:
    int m_iSocket;
};
