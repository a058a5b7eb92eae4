// socket.cpp - reads within a patience.
#include "socket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <poll.h>
#include <sys/socket.h>

bool TakeBytes(int iSocket, void* pTo, size_t bytes, bool bPatient, int iPatienceMs)
{
    using Clock = std::chrono::steady_clock;
    auto due = Clock::now() + std::chrono::milliseconds(iPatienceMs);
    for (size_t done = 0; done < bytes;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()).count();
        bool bForever = bPatient && done == 0;
        pollfd wait = {iSocket, POLLIN, 0};
        if (poll(&wait, 1, bForever ? -1 : static_cast<int>(std::max<long>(left, 0))) <= 0 && errno != EINTR)
            return false;
        ssize_t got = recv(iSocket, static_cast<uint8_t*>(pTo) + done, bytes - done, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR) || (got < 0 && !bForever && left <= 0))
            return false;
        if (got > 0 && bForever)
            due = Clock::now() + std::chrono::milliseconds(iPatienceMs);
        done += got > 0 ? static_cast<size_t>(got) : 0;
    }
    return true;
}
