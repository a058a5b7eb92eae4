// log.h - the driver's own text log.
//
// The log is on while LogFileName is set; a message passes when its level is at most the low byte of
// ulLogLevel (10: only level 10). Level and buffer are tested before anything is formatted.
#pragma once

#include "log/fields.h"

#include <kernel.h>

enum : UCHAR { LOG_TRAFFIC = 1, LOG_DETAIL = 3 };
enum : ULONG {
    LOG_BUFFER_BYTES = 40960,
    LOG_RESERVE_BYTES = 10, // stay free at the buffer's end
};

// log.cpp: IRQL any. Lock: takes LogLock, the leaf. Fails: never; a full buffer drops the text.
void LogPrintf(UCHAR ucLevel, UCHAR ucTimestamp, const char* pszFormat, ...) PRINTF_LIKE(3, 4);
void LogKeptHexDump(const char* pszTitle, ULONG ulLen, const void* pBuf);
void LogWrite(UCHAR ucLevel, ULONG ulReserved, UCHAR ucTimestamp, const char* pszText);
COLD bool IsLevelOn(UCHAR ucLevel);

// Would a message of this level be kept? Mostly there is no log at all.
inline bool IsLogOn(UCHAR ucLevel)
{
    return LoadAcquire(GlobalLog.pLogBuffer) != nullptr && IsLevelOn(ucLevel);
}

inline void LogHexDump(const char* pszTitle, ULONG ulLen, const void* pBuf)
{
    if (IsLogOn(LOG_TRAFFIC)) {
        LogKeptHexDump(pszTitle, ulLen, pBuf);
    }
}

// format.cpp: as the platform's bounded printf: IRQL any (no %S above PASSIVE).
NTSTATUS LogFormat(char* pszOut, size_t cbOut, const char* pszFormat, ...) PRINTF_LIKE(3, 4);

// drain.cpp: IRQL = PASSIVE. The drain appends the text to the log file and empties the buffer.
void InitializeLog(); // at driver entry, on zeroed state
NTSTATUS StartLog();  // when LogFileName is set; Owns: buffer and thread until StopLog
void StopLog();       // writes what is left, ends the thread, frees the buffer
