// sums.h - sums that several subsystems need.
#pragma once

#include <kernel.h>

inline ULONG LowerOf(ULONG ulFirst, ULONG ulSecond)
{
    return ulFirst < ulSecond ? ulFirst : ulSecond;
}

// A timer's due time, relative to now, in the platform's 100 ns units.
inline LARGE_INTEGER RelativeMs(ULONGLONG ullMs)
{
    LARGE_INTEGER due;
    due.QuadPart = -static_cast<LONGLONG>(ullMs) * 10000;
    return due;
}

// A set bit in the lowest byte that is 0, and nothing below it; 0 when none is.
inline ULONGLONG ZeroBytesOf(ULONGLONG ullBytes)
{
    return (ullBytes - 0x0101010101010101) & ~ullBytes & 0x8080808080808080;
}

// The byte eight times.
inline ULONGLONG EightOf(UCHAR ucByte)
{
    return ucByte * 0x0101010101010101ull;
}
