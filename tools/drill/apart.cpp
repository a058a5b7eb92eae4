// apart.cpp - forks, listens to the copy, and ends it when it hangs.
//
// The copy has one pipe for both: lines behind a mark are its result, all others came by standard error.
#include "apart.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr char Mark = '\x01';
constexpr size_t MostBytes = 1 << 20; // that are kept of what a copy prints

using Clock = std::chrono::steady_clock;

int WaitFor(pid_t child)
{
    int iStatus = 0;
    while (waitpid(child, &iStatus, 0) < 0 && errno == EINTR) {
    }
    return iStatus;
}

// Reads until the copy has ended. False: it has not, in time.
bool Listen(int iPipe, Clock::time_point end, std::string& text)
{
    char buffer[4096];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd ready{iPipe, POLLIN, 0};
        const int iReady = left > 0 ? poll(&ready, 1, static_cast<int>(left)) : 0;
        if (iReady < 0 && errno == EINTR)
            continue;
        if (iReady <= 0)
            return false;
        const ssize_t cRead = read(iPipe, buffer, sizeof(buffer));
        if (cRead < 0 && errno == EINTR)
            continue;
        if (cRead <= 0)
            return true;
        if (text.size() < MostBytes)
            text.append(buffer, static_cast<size_t>(cRead));
    }
}

void Sort(const std::string& text, Apart& apart)
{
    for (size_t cAt = 0; cAt < text.size();) {
        const size_t cEnd = std::min(text.find('\n', cAt), text.size());
        const std::string line = text.substr(cAt, cEnd - cAt);
        if (!line.empty())
            line[0] == Mark ? apart.said.push_back(line.substr(1)) : apart.errors.push_back(line);
        cAt = cEnd + 1;
    }
}

} // namespace

std::optional<Apart> GoApart(unsigned uMostMs)
{
    int iPipe[2];
    if (pipe(iPipe) != 0)
        throw std::runtime_error(std::string("no pipe: ") + strerror(errno));
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        close(iPipe[0]);
        close(iPipe[1]);
        throw std::runtime_error(std::string("the program cannot be forked: ") + strerror(errno));
    }
    if (child == 0) {
        close(iPipe[0]);
        dup2(iPipe[1], STDERR_FILENO);
        close(iPipe[1]);
        return std::nullopt;
    }
    close(iPipe[1]);
    Apart apart;
    std::string text;
    apart.bHung = !Listen(iPipe[0], Clock::now() + std::chrono::milliseconds(uMostMs), text);
    if (apart.bHung)
        kill(child, SIGKILL);
    close(iPipe[0]);
    const int iStatus = WaitFor(child);
    apart.iSignal = WIFSIGNALED(iStatus) ? WTERMSIG(iStatus) : 0;
    if (WIFEXITED(iStatus) && WEXITSTATUS(iStatus) != 0)
        apart.iSignal = SIGABRT; // a sanitizer's end
    Sort(text, apart);
    return apart;
}

void SayApart(const std::string& line)
{
    const std::string text = Mark + line + "\n";
    for (size_t cAt = 0; cAt < text.size();) {
        const ssize_t cWritten = write(STDERR_FILENO, text.data() + cAt, text.size() - cAt);
        if (cWritten < 0 && errno != EINTR)
            break;
        cAt += cWritten > 0 ? static_cast<size_t>(cWritten) : 0;
    }
}

void EndApart(const std::vector<std::string>& says)
{
    for (const std::string& line : says)
        SayApart(line);
    _exit(0);
}
