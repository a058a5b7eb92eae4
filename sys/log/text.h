// text.h - what the files of the log share among themselves.
#pragma once

#include <kernel.h>

// format.cpp
NTSTATUS LogFormatArguments(char* pszOut, size_t cbOut, const char* pszFormat, va_list arguments);

// log.cpp: IRQL <= DISPATCH. The drain will look at the text.
void SignalLogEvent();

// Holds the log's lock, the leaf. IRQL any; above DISPATCH_LEVEL the text is used without it.
class LogScope
{
public:
    LogScope();
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

private:
    KIRQL OldIrql;
};
