// fields.h - the log's fields of the driver-wide records.
#pragma once

#include "ground/frame.h"

struct LogGlobals {
    char* pLogBuffer;   // (x) set before the first device, freed at unload
    ULONG ulLogLength;  // (x) characters of the text; written under LogLock
    KSPIN_LOCK LogLock; // the leaf: taken by log.cpp alone, at DISPATCH_LEVEL
    KDPC LogDpc;
    KEVENT LogEvent;         // synchronization
    UCHAR ucLogDpcPending;   // (x)
    UCHAR ucLogEventPending; // (x) LogEvent is set, or will be at once
    UCHAR ucLogStop;         // (x) the drain shall end
    UCHAR ucLogCut;          // (x) text was cut or dropped since the last drain; written under LogLock
    char cLogWritten;        // the drain's: the last character that it wrote, 0: none yet
    KEVENT LogEnded;         // notification: the drain is through
    PVOID pLogThread;        // referenced thread object of the drain
};

struct LogSettings {            // constant after driver entry
    UNICODE_STRING LogFileName; // capacity 255 bytes in a 265-byte buffer
    ULONG ulLogLevel;
    ULONG ulLogFileSize; // bytes
};

extern LogGlobals& GlobalLog;
extern LogSettings& SettingsOfLog;
