// log.cpp - the writer's side of the driver's text log.
//
//   LogPrintf, LogHexDump ── format on the stack ──▶ LogWrite ── append ──▶ pLogBuffer ── signal ──▶ drain
//
// pLogBuffer holds one NUL-terminated text of at most 40,949 characters, ulLogLength of them in use; ten bytes
// stay in reserve. Each call that finds room adds one line: time, message, CR LF. What finds no room is cut or
// dropped and sets the mark from which the drain makes its OVERFLOW line. Until that line is in the file nothing
// more is kept, so that it stands where the text ends.
// Any routine, any level. Nothing is formatted for a message that would not be kept, and the formatting
// buffers lie in frames of their own, so that a caller's frame stays small while the log is off.
#include "log/log.h"

#include "ground/shared.h"
#include "log/fields.h"
#include "log/text.h"

enum : ULONG {
    MESSAGE_BYTES = 2048,
    DUMP_LINE_BYTES = 320,
    DUMP_TITLE_BYTES = 240, // of a title at the most
    DUMP_GROUP = 16,
    TIME_BYTES = 64,
    LOG_FULL = LOG_BUFFER_BYTES - LOG_RESERVE_BYTES, // the text's NUL at the latest stands before it
    ONLY_LEVEL = 10, // this log level lets only messages of the same level pass
};

LogScope::LogScope() : OldIrql(KeGetCurrentIrql())
{
    if (OldIrql < DISPATCH_LEVEL) {
        KeRaiseIrql(DISPATCH_LEVEL, &OldIrql);
    }
    if (OldIrql <= DISPATCH_LEVEL) {
        KeAcquireSpinLockAtDpcLevel(&GlobalLog.LogLock);
    }
}

LogScope::~LogScope()
{
    if (OldIrql <= DISPATCH_LEVEL) {
        KeReleaseSpinLockFromDpcLevel(&GlobalLog.LogLock);
    }
    if (OldIrql < DISPATCH_LEVEL) {
        KeLowerIrql(OldIrql);
    }
}

namespace
{
// There is a buffer, a file name, and the level passes.
// IRQL any.
bool IsLevelKept(UCHAR ucLevel)
{
    const WCHAR* pName = SettingsOfLog.LogFileName.Buffer;
    return ReadShared(GlobalLog.pLogBuffer) != nullptr && pName != nullptr && pName[0] != UNICODE_NULL &&
           ucLevel <= (SettingsOfLog.ulLogLevel & 0xFF);
}
} // namespace

// IRQL any.
bool IsLevelOn(UCHAR ucLevel)
{
    return IsLevelKept(ucLevel) && (SettingsOfLog.ulLogLevel != ONLY_LEVEL || ucLevel == ONLY_LEVEL);
}

namespace
{
// With leading zeros. Returns the text's new end.
char* AppendNumber(char* pszEnd, ULONG ulNumber, ULONG ulLeast)
{
    char Digits[10];
    ULONG ulDigits = 0;
    do {
        Digits[ulDigits++] = static_cast<char>('0' + ulNumber % 10);
        ulNumber /= 10;
    } while (ulNumber != 0 || ulDigits < ulLeast);
    while (ulDigits != 0) {
        *pszEnd++ = Digits[--ulDigits];
    }
    return pszEnd;
}

// Returns the text's new length.
// IRQL = DISPATCH or above, under LogLock. Fails: the end is cut; the mark is set.
ULONG AppendText(char* pszLog, ULONG ulLength, const char* pszText)
{
    while (*pszText != '\0' && ulLength < LOG_FULL - 1) {
        pszLog[ulLength++] = *pszText++;
    }
    pszLog[ulLength] = '\0';
    if (*pszText != '\0') {
        WriteShared(GlobalLog.ucLogCut, 1);
    }
    return ulLength;
}

// The time as a line's head. Returns the text's new length.
// IRQL = DISPATCH or above, under LogLock. Fails: the end is cut; the mark is set.
ULONG AppendTime(char* pszLog, ULONG ulLength)
{
    LARGE_INTEGER now;
    TIME_FIELDS time;
    KeQuerySystemTime(&now);
    RtlTimeToTimeFields(&now, &time);
    char szTime[TIME_BYTES];
    char* pszEnd = szTime;
    const struct {
        SHORT sValue;
        USHORT usDigits;
        const char* pszBehind;
    } parts[] = {
        {time.Day, 2, "/"},    {time.Month, 2, "/"},  {time.Year, 4, " "},           {time.Hour, 2, ":"},
        {time.Minute, 2, ":"}, {time.Second, 2, ":"}, {time.Milliseconds, 3, " -- "}};
    for (const auto& part : parts) {
        pszEnd = AppendNumber(pszEnd, static_cast<ULONG>(part.sValue), part.usDigits);
        for (const char* pszText = part.pszBehind; *pszText != '\0'; pszText++) {
            *pszEnd++ = *pszText;
        }
    }
    *pszEnd = '\0';
    return AppendText(pszLog, ulLength, szTime);
}

// Whether a line finds a place at all.
// IRQL any.
bool IsThereRoom()
{
    return ReadShared(GlobalLog.ulLogLength) < LOG_FULL - 1 && ReadShared(GlobalLog.ucLogCut) == 0;
}

// IRQL any. Lock: takes LogLock. Fails: a full text drops the line; the mark is set.
void AppendLine(char* pszLog, UCHAR ucTimestamp, const char* pszText)
{
    LogScope scope;
    if (!IsThereRoom()) {
        WriteShared(GlobalLog.ucLogCut, 1);
        return;
    }
    ULONG ulLength = GlobalLog.ulLogLength;
    if (ucTimestamp == 1) {
        ulLength = AppendTime(pszLog, ulLength);
    }
    ulLength = AppendText(pszLog, ulLength, pszText);
    WriteShared(GlobalLog.ulLogLength, AppendText(pszLog, ulLength, "\r\n"));
}
} // namespace

// Sets the event unless the drain has yet to take the last one: it clears the mark before it looks at the text, so
// it sees what was appended before the mark was found.
void SignalLogEvent()
{
    if (ReadShared(GlobalLog.ucLogEventPending) == 0 && ExchangeShared(GlobalLog.ucLogEventPending, 1) == 0) {
        KeSetEvent(&GlobalLog.LogEvent, IO_NO_INCREMENT, FALSE);
    }
}

namespace
{
// Above DISPATCH_LEVEL an event cannot be set; the deferred call does it.
// IRQL any.
void SignalDrain()
{
    if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
        WriteShared(GlobalLog.ucLogDpcPending, 1);
        KeInsertQueueDpc(&GlobalLog.LogDpc, nullptr, nullptr);
    } else {
        SignalLogEvent();
    }
}
} // namespace

// Adds one line and signals the drain, room or no room.
// IRQL any. Lock: takes LogLock. Fails: never; a full buffer drops the text.
void LogWrite(UCHAR ucLevel, ULONG, UCHAR ucTimestamp, const char* pszText)
{
    if (!IsLevelKept(ucLevel)) {
        return;
    }
    AppendLine(ReadShared(GlobalLog.pLogBuffer), ucTimestamp, pszText);
    SignalDrain();
}

// IRQL any. Lock: takes LogLock.
NOINLINE static void FormatAndWrite(UCHAR ucLevel, UCHAR ucTimestamp, const char* pszFormat,
                                    va_list arguments)
{
    char szMessage[MESSAGE_BYTES];
    RtlZeroMemory(szMessage, sizeof(szMessage)); // a failed conversion leaves a gap
    LogFormatArguments(szMessage, sizeof(szMessage), pszFormat, arguments);
    LogWrite(ucLevel, 0, ucTimestamp, szMessage);
}

namespace
{
// A line that finds no place is lost without being made.
// IRQL any. Lock: takes LogLock. Fails: false, no room; the mark is set.
bool FindRoom()
{
    if (IsThereRoom()) {
        return true;
    }
    if (ReadShared(GlobalLog.ucLogCut) == 0) {
        LogScope scope;
        WriteShared(GlobalLog.ucLogCut, 1);
    }
    SignalDrain();
    return false;
}
} // namespace

// At most 2,047 characters of the message are kept.
// IRQL any. Lock: takes LogLock. Fails: never.
void LogPrintf(UCHAR ucLevel, UCHAR ucTimestamp, const char* pszFormat, ...)
{
    if (pszFormat == nullptr || !IsLogOn(ucLevel) || !FindRoom()) {
        return;
    }
    va_list arguments;
    va_start(arguments, pszFormat);
    FormatAndWrite(ucLevel, ucTimestamp, pszFormat, arguments);
    va_end(arguments);
}

// One line of at most 16 bytes under its title and range; made by hand, because a report may tell a thousand of them.
// IRQL any. Lock: takes LogLock.
NOINLINE static void DumpGroup(const char* pszTitle, ULONG ulFirst, ULONG ulCount, const UCHAR* pBuf)
{
    static const char Digits[] = "0123456789abcdef";
    char szLine[DUMP_LINE_BYTES];
    char* pszEnd = szLine;
    if (!FindRoom()) {
        return;
    }
    while (*pszTitle != '\0' && pszEnd < szLine + DUMP_TITLE_BYTES) {
        *pszEnd++ = *pszTitle++;
    }
    *pszEnd++ = '[';
    pszEnd = AppendNumber(pszEnd, ulFirst, 2);
    *pszEnd++ = '-';
    pszEnd = AppendNumber(pszEnd, ulFirst + ulCount - 1, 2);
    *pszEnd++ = ']';
    *pszEnd++ = ':';
    *pszEnd++ = ' ';
    for (ULONG i = 0; i < ulCount; i++) {
        const UCHAR ucByte = pBuf[ulFirst + i];
        *pszEnd++ = Digits[ucByte >> 4];
        *pszEnd++ = Digits[ucByte & 0x0F];
        *pszEnd++ = ' ';
    }
    *pszEnd = '\0';
    LogWrite(LOG_TRAFFIC, 0, 1, szLine);
}

// The bytes in lines of 16, the rest in a last, shorter one.
// IRQL any. Lock: takes LogLock. Fails: never.
void LogKeptHexDump(const char* pszTitle, ULONG ulLen, const void* pBuf)
{
    if (pBuf == nullptr) {
        LogPrintf(LOG_TRAFFIC, 1, "%s pBuf is NULL", pszTitle);
        return;
    }
    if (ulLen == 0) {
        LogPrintf(LOG_TRAFFIC, 1, "%s ulLen is 0", pszTitle);
        return;
    }
    ULONG i = 0;
    for (; ulLen - i >= DUMP_GROUP; i += DUMP_GROUP) {
        DumpGroup(pszTitle, i, DUMP_GROUP, static_cast<const UCHAR*>(pBuf));
    }
    if (i < ulLen) {
        DumpGroup(pszTitle, i, ulLen - i, static_cast<const UCHAR*>(pBuf));
    }
}
