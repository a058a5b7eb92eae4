// debug.cpp - trace points: what a kernel debugger would show, on standard error.
//
// Silent unless the environment variable TV64USB_TRACE is set. Any thread, any IRQL.
#include <kernel.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

static bool IsTraceOn()
{
    static const bool bOn = getenv("TV64USB_TRACE") != nullptr;
    return bOn;
}

ULONG DbgPrintEx(ULONG, ULONG, PCSTR Format, ...)
{
    if (IsTraceOn()) {
        va_list arguments;
        va_start(arguments, Format);
        vfprintf(stderr, Format, arguments);
        va_end(arguments);
    }
    return 0;
}
