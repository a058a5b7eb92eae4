// program.cpp - see program.h.
#include <windows.h>

#include "program.h"

#include "usermode.h"

Program::Program(const std::string& commandLine)
{
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    HANDLE hItsOutput;
    CreatePipe(&m_hOutput, &hItsOutput, &inherited, 0);
    SetHandleInformation(m_hOutput, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA start = {};
    start.cb = sizeof(start);
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    start.hStdOutput = start.hStdError = hItsOutput;
    std::string line = OwnFolder() + commandLine;
    PROCESS_INFORMATION process;
    if (CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process)) {
        m_hProcess = process.hProcess;
        CloseHandle(process.hThread);
    }
    CloseHandle(hItsOutput);
}

Program::~Program()
{
    if (m_hProcess) {
        TerminateProcess(m_hProcess, 1);
        CloseHandle(m_hProcess);
    }
    CloseHandle(m_hOutput);
}

std::string Program::ReadLine()
{
    std::string line;
    char c;
    for (DWORD ulGot; ReadFile(m_hOutput, &c, 1, &ulGot, nullptr) && ulGot == 1 && c != '\n';) {
        if (c != '\r') {
            line += c;
        }
    }
    return line;
}

bool Program::HasEnded(unsigned uWithinMs)
{
    return !m_hProcess || WaitForSingleObject(m_hProcess, uWithinMs) == WAIT_OBJECT_0;
}

int Program::Status()
{
    DWORD ulStatus;
    bool bEnded = m_hProcess && HasEnded(20000) && GetExitCodeProcess(m_hProcess, &ulStatus);
    return bEnded ? static_cast<int>(ulStatus) : -1;
}
