// interlocked.h - the Interlocked family: whole, ordered operations on one 32-bit, 64-bit or pointer field.
#pragma once

#include "types.h"

FORCEINLINE LONG InterlockedIncrement(LONG volatile* pTarget)
{
    SCHEDULE_POINT();
    return __atomic_add_fetch(pTarget, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedDecrement(LONG volatile* pTarget)
{
    SCHEDULE_POINT();
    return __atomic_sub_fetch(pTarget, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedExchange(LONG volatile* pTarget, LONG value)
{
    SCHEDULE_POINT();
    return __atomic_exchange_n(pTarget, value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* pTarget, LONG exchange, LONG comparand)
{
    SCHEDULE_POINT();
    __atomic_compare_exchange_n(pTarget, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}

FORCEINLINE LONG InterlockedAnd(LONG volatile* pTarget, LONG mask)
{
    SCHEDULE_POINT();
    return __atomic_fetch_and(pTarget, mask, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedOr(LONG volatile* pTarget, LONG mask)
{
    SCHEDULE_POINT();
    return __atomic_fetch_or(pTarget, mask, __ATOMIC_SEQ_CST);
}

FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* pTarget, PVOID value)
{
    SCHEDULE_POINT();
    return __atomic_exchange_n(pTarget, value, __ATOMIC_SEQ_CST);
}
