// beside.cpp - a copy of the process, and the pipe through which it tells lines.
//
// Each line has a mark before it: a line, the last one, or why it failed.
#include "beside.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr char Told = ' ', Last = '.', Failed = '!';

[[noreturn]] void PlayAndEnd(int iPipe, const std::function<void(const LineTeller&)>& play)
{
    FILE* pLines = fdopen(iPipe, "w");
    auto tell = [&](char cMark, const std::string& line) {
        if (!pLines || fprintf(pLines, "%c%s\n", cMark, line.c_str()) < 0)
            _exit(1); // nobody listens
    };
    try {
        play([&](const std::string& line) { tell(Told, line); });
        tell(Last, "");
    } catch (const std::exception& error) {
        tell(Failed, error.what());
    }
    fflush(pLines);
    _exit(0);
}

} // namespace

Beside::Beside(const std::function<void(const LineTeller&)>& play)
{
    int iPipe[2];
    if (pipe(iPipe) != 0)
        throw std::runtime_error(std::string("no pipe: ") + strerror(errno));
    fflush(nullptr);
    m_child = fork();
    if (m_child == 0) {
        close(iPipe[0]);
        signal(SIGPIPE, SIG_IGN);
        PlayAndEnd(iPipe[1], play);
    }
    const int iError = errno;
    close(iPipe[1]);
    m_lines.reset(fdopen(iPipe[0], "r"));
    if (m_child < 0 || !m_lines)
        throw std::runtime_error(std::string("the program cannot be forked: ") + strerror(iError));
}

Beside::~Beside()
{
    if (m_child <= 0)
        return;
    if (!m_bEnded)
        kill(m_child, SIGKILL);
    m_lines.reset();
    while (waitpid(m_child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool Beside::Next(std::string& line)
{
    if (m_bEnded)
        return false;
    const int iMark = getc(m_lines.get());
    line.clear();
    for (int iChar; iMark != EOF && (iChar = getc(m_lines.get())) != EOF && iChar != '\n';)
        line += static_cast<char>(iChar);
    if (iMark == Told)
        return true;
    if (iMark != Last)
        throw std::runtime_error(iMark == Failed ? line : "the other run ended before its session");
    m_bEnded = true;
    return false;
}
