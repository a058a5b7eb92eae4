// sums.h - two sums that several subsystems need.
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
