// string.cpp - counted strings, formatted text, and the host's own text.
//
// The host's text is UTF-16 in a std::u16string, UTF-8 towards the outside. Case is ignored as the system
// does for Latin letters.
#include "core.h"

#include <algorithm>
#include <cstdio>

HostText HostTextOf(PCUNICODE_STRING pString)
{
    HostText text;
    if (pString != nullptr &&
        (pString->Length % sizeof(WCHAR) != 0 || pString->Length > pString->MaximumLength)) {
        HostBug("INVALID_UNICODE_STRING", "a counted string of %u bytes in a buffer of %u", pString->Length,
                pString->MaximumLength);
    }
    for (size_t i = 0; pString != nullptr && i < pString->Length / sizeof(WCHAR); i++) {
        text.push_back(static_cast<char16_t>(pString->Buffer[i]));
    }
    return text;
}

HostText HostTextOf(const WCHAR* pText)
{
    HostText text;
    while (*pText != 0) {
        text.push_back(static_cast<char16_t>(*pText++));
    }
    return text;
}

static void AppendCodePoint(HostText& text, ULONG ulCode)
{
    if (ulCode >= 0x10000) {
        text.push_back(static_cast<char16_t>(0xD7C0 + (ulCode >> 10)));
        ulCode = 0xDC00 + (ulCode & 0x3FF);
    }
    text.push_back(static_cast<char16_t>(ulCode));
}

HostText HostTextOf(const std::string& utf8)
{
    HostText text;
    for (size_t i = 0; i < utf8.size();) {
        UCHAR uc = static_cast<UCHAR>(utf8[i++]);
        int iMore = uc < 0x80 ? 0 : uc < 0xE0 ? 1 : uc < 0xF0 ? 2 : 3;
        ULONG ulCode = iMore == 0 ? uc : uc & (0x3Fu >> iMore);
        while (iMore-- > 0 && i < utf8.size()) {
            ulCode = ulCode << 6 | (static_cast<UCHAR>(utf8[i++]) & 0x3F);
        }
        AppendCodePoint(text, ulCode);
    }
    return text;
}

std::string HostUtf8(const HostText& text)
{
    std::string utf8;
    for (size_t i = 0; i < text.size(); i++) {
        ULONG ulCode = text[i];
        if (ulCode >= 0xD800 && ulCode < 0xDC00 && i + 1 < text.size()) {
            ulCode = 0x10000 + ((ulCode - 0xD800) << 10) + (text[++i] - 0xDC00u);
        }
        int iMore = ulCode < 0x80 ? 0 : ulCode < 0x800 ? 1 : ulCode < 0x10000 ? 2 : 3;
        static const UCHAR FIRST[4] = {0x00, 0xC0, 0xE0, 0xF0};
        utf8.push_back(static_cast<char>(FIRST[iMore] | ulCode >> (6 * iMore)));
        while (iMore-- > 0) {
            utf8.push_back(static_cast<char>(0x80 | (ulCode >> (6 * iMore) & 0x3F)));
        }
    }
    return utf8;
}

static WCHAR Upcase(WCHAR c)
{
    bool bLower = (c >= L'a' && c <= L'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7);
    return static_cast<WCHAR>(bLower ? c - 0x20 : c);
}

WCHAR RtlUpcaseUnicodeChar(WCHAR c)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    return Upcase(c);
}

HostText HostUpper(HostText text)
{
    for (char16_t& c : text) {
        c = static_cast<char16_t>(Upcase(static_cast<WCHAR>(c)));
    }
    return text;
}

UNICODE_STRING HostPoolString(const HostText& text)
{
    size_t bytes = text.size() * sizeof(WCHAR);
    PWCH pBuffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), 0x20727453));
    if (pBuffer == nullptr) {
        return {0, 0, nullptr};
    }
    memcpy(pBuffer, text.c_str(), bytes + sizeof(WCHAR));
    return {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes + sizeof(WCHAR)), pBuffer};
}

void RtlInitUnicodeString(PUNICODE_STRING pString, PCWSTR pSource)
{
    size_t bytes = pSource == nullptr ? 0 : std::min<size_t>(HostTextOf(pSource).size() * 2, 0xFFFC);
    pString->Length = static_cast<USHORT>(bytes);
    pString->MaximumLength = static_cast<USHORT>(pSource == nullptr ? 0 : bytes + sizeof(WCHAR));
    pString->Buffer = const_cast<PWCH>(pSource);
}

// Copies what fits; a NUL follows if there is room.
void RtlCopyUnicodeString(PUNICODE_STRING pTarget, PCUNICODE_STRING pSource)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    USHORT usLength = pSource == nullptr ? 0 : std::min(pSource->Length, pTarget->MaximumLength);
    if (usLength != 0) {
        memmove(pTarget->Buffer, pSource->Buffer, usLength);
    }
    pTarget->Length = usLength;
    if (usLength + sizeof(WCHAR) <= pTarget->MaximumLength) {
        pTarget->Buffer[usLength / sizeof(WCHAR)] = 0;
    }
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING pTarget, PCUNICODE_STRING pSource)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    size_t length = size_t(pTarget->Length) + pSource->Length;
    if (length > pTarget->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (pSource->Length != 0) {
        memmove(pTarget->Buffer + pTarget->Length / sizeof(WCHAR), pSource->Buffer, pSource->Length);
    }
    pTarget->Length = static_cast<USHORT>(length);
    if (length + sizeof(WCHAR) <= pTarget->MaximumLength) {
        pTarget->Buffer[length / sizeof(WCHAR)] = 0;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING pTarget, PCWSTR pSource)
{
    if (pSource == nullptr) {
        return STATUS_SUCCESS;
    }
    UNICODE_STRING source;
    RtlInitUnicodeString(&source, pSource);
    return RtlAppendUnicodeStringToString(pTarget, &source);
}

void RtlFreeUnicodeString(PUNICODE_STRING pString)
{
    HostEnter(__func__, APC_LEVEL);
    if (pString->Buffer != nullptr) {
        ExFreePool(pString->Buffer);
        *pString = {0, 0, nullptr};
    }
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING pFirst, PCUNICODE_STRING pSecond, BOOLEAN bIgnoreCase)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    size_t count = std::min(pFirst->Length, pSecond->Length) / sizeof(WCHAR);
    for (size_t i = 0; i < count; i++) {
        WCHAR first = bIgnoreCase ? Upcase(pFirst->Buffer[i]) : pFirst->Buffer[i];
        WCHAR second = bIgnoreCase ? Upcase(pSecond->Buffer[i]) : pSecond->Buffer[i];
        if (first != second) {
            return LONG(first) - LONG(second);
        }
    }
    return LONG(pFirst->Length) - LONG(pSecond->Length);
}

SIZE_T RtlCompareMemory(const void* pFirst, const void* pSecond, SIZE_T length)
{
    const UCHAR* p = static_cast<const UCHAR*>(pFirst);
    const UCHAR* q = static_cast<const UCHAR*>(pSecond);
    SIZE_T same = 0;
    while (same < length && p[same] == q[same]) {
        same++;
    }
    return same;
}

int _vsnprintf(char* pBuffer, size_t count, const char* pFormat, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    int iLength = vsnprintf(nullptr, 0, pFormat, again);
    va_end(again);
    if (iLength < 0) {
        return -1;
    }
    std::string text(static_cast<size_t>(iLength) + 1, '\0');
    vsnprintf(&text[0], text.size(), pFormat, arguments);
    if (static_cast<size_t>(iLength) < count) {
        memcpy(pBuffer, text.data(), static_cast<size_t>(iLength) + 1);
        return iLength;
    }
    if (count != 0) {
        memcpy(pBuffer, text.data(), count);
    }
    return static_cast<size_t>(iLength) == count ? iLength : -1;
}

int _snprintf(char* pBuffer, size_t count, const char* pFormat, ...)
{
    va_list arguments;
    va_start(arguments, pFormat);
    int iLength = _vsnprintf(pBuffer, count, pFormat, arguments);
    va_end(arguments);
    return iLength;
}

ULONG DbgPrint(PCSTR pFormat, ...)
{
    va_list arguments;
    va_start(arguments, pFormat);
    vfprintf(stderr, pFormat, arguments);
    va_end(arguments);
    return STATUS_SUCCESS;
}

static const LONGLONG TICKS_PER_DAY = 864000000000LL;

// Days since 1601-01-01, a Monday, in the proleptic Gregorian calendar.
static LONGLONG DaysOf(int iYear, int iMonth, int iDay)
{
    int y = iMonth <= 2 ? iYear - 1 : iYear;
    int m = iMonth <= 2 ? iMonth + 9 : iMonth - 3;
    LONGLONG llDays = 365LL * y + y / 4 - y / 100 + y / 400 + (153 * m + 2) / 5 + iDay - 1;
    return llDays - 584694;
}

void RtlTimeToTimeFields(PLARGE_INTEGER pTime, PTIME_FIELDS pFields)
{
    LONGLONG llDays = pTime->QuadPart / TICKS_PER_DAY;
    LONGLONG llMs = pTime->QuadPart % TICKS_PER_DAY / 10000;
    int iYear = static_cast<int>(1601 + llDays * 400 / 146097);
    while (DaysOf(iYear + 1, 1, 1) <= llDays) {
        iYear++;
    }
    while (DaysOf(iYear, 1, 1) > llDays) {
        iYear--;
    }
    int iMonth = 12;
    while (DaysOf(iYear, iMonth, 1) > llDays) {
        iMonth--;
    }
    pFields->Year = static_cast<CSHORT>(iYear);
    pFields->Month = static_cast<CSHORT>(iMonth);
    pFields->Day = static_cast<CSHORT>(llDays - DaysOf(iYear, iMonth, 1) + 1);
    pFields->Hour = static_cast<CSHORT>(llMs / 3600000);
    pFields->Minute = static_cast<CSHORT>(llMs / 60000 % 60);
    pFields->Second = static_cast<CSHORT>(llMs / 1000 % 60);
    pFields->Milliseconds = static_cast<CSHORT>(llMs % 1000);
    pFields->Weekday = static_cast<CSHORT>((llDays + 1) % 7);
}
