// format.cpp - bounded text formatting, as the platform's own bounded printf does it.
//
// Out: always a terminated text; the status tells whether it had to be cut.
#include "log/log.h"

#include "log/text.h"

// IRQL any. Fails: cut (STATUS_BUFFER_OVERFLOW), a size out of range (nothing is written).
NTSTATUS LogFormatArguments(char* pszOut, size_t cbOut, const char* pszFormat, va_list arguments)
{
    if (cbOut == 0 || cbOut > MAXLONG) {
        return STATUS_INVALID_PARAMETER;
    }
    const int iLength = _vsnprintf(pszOut, cbOut - 1, pszFormat, arguments);
    if (iLength >= 0 && static_cast<size_t>(iLength) < cbOut - 1) {
        return STATUS_SUCCESS; // terminated by the call
    }
    pszOut[cbOut - 1] = '\0';
    return static_cast<size_t>(iLength) == cbOut - 1 ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

// IRQL any (no %S above PASSIVE). Fails: cut, a size out of range.
NTSTATUS LogFormat(char* pszOut, size_t cbOut, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    const NTSTATUS status = LogFormatArguments(pszOut, cbOut, pszFormat, arguments);
    va_end(arguments);
    return status;
}
