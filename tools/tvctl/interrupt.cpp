// interrupt.cpp - on Windows the console tells, elsewhere signals do.
#include "interrupt.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

#ifdef _WIN32
#include <windows.h>
#endif

namespace
{

std::atomic<bool> bInterrupted{false};

#ifdef _WIN32
// In a thread of the system's. When the window is closed the process ends with this routine's return, or after some
// seconds; the verb ends it before.
BOOL WINAPI Note(DWORD ulEvent)
{
    bInterrupted = true;
    if (ulEvent != CTRL_C_EVENT && ulEvent != CTRL_BREAK_EVENT)
        Sleep(4000);
    return TRUE;
}
#else
void Note(int)
{
    bInterrupted = true;
}
#endif

} // namespace

void NoteInterrupts()
{
    bInterrupted = false;
#ifdef _WIN32
    SetConsoleCtrlHandler(Note, TRUE);
#else
    for (int iSignal : {SIGINT, SIGTERM, SIGHUP})
        signal(iSignal, Note);
#endif
}

bool IsInterrupted()
{
    return bInterrupted;
}
