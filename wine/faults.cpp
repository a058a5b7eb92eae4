// faults.cpp - see faults.h.
#include "faults.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

static std::atomic<unsigned> g_uFaults;

void TellFault(const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    fputs("FAULT: ", stderr);
    vfprintf(stderr, pszFormat, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    g_uFaults++;
}

unsigned TakeFaults()
{
    return g_uFaults.exchange(0);
}
