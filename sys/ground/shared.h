// shared.h - single fields that several processors read and write without a lock.
//
// A field marked (x) in a fields.h is touched through these alone (or through the Interlocked family),
// so that the compiler neither tears nor invents an access. They order nothing else. Before
// each access other processors may come first.
#pragma once

#include "ground/compiler.h"

#include <kernel.h>

template <typename Field> inline Field ReadShared(const Field& field)
{
    SCHEDULE_POINT();
    return LoadAcquire(field);
}

template <typename Field, typename Value> inline void WriteShared(Field& field, Value value)
{
    SCHEDULE_POINT();
    StoreRelease(field, static_cast<Field>(value));
}

template <typename Field, typename Value> inline Field ExchangeShared(Field& field, Value value)
{
    SCHEDULE_POINT();
    return AtomicExchange(field, static_cast<Field>(value));
}

// Takes over `desired` unless somebody changed the field since `expected` was read; then refreshes it.
template <typename Field> inline bool CompareExchangeShared(Field& field, Field& expected, Field desired)
{
    SCHEDULE_POINT();
    return AtomicCompareExchange(field, expected, desired);
}

template <typename Field, typename Value> inline void AndShared(Field& field, Value mask)
{
    SCHEDULE_POINT();
    AtomicAnd(field, static_cast<Field>(mask));
}

// Counts one more user unless the last one is gone: a count that fell to 0 never rises again.
inline bool AddUser(LONG& lUsers)
{
    LONG lBefore = ReadShared(lUsers);
    while (lBefore > 0) {
        if (CompareExchangeShared(lUsers, lBefore, lBefore + 1)) {
            return true;
        }
    }
    return false;
}
