// compiler.h - the words of one compiler that the driver needs. They stand nowhere else in sys/.
//
// These are those of gcc and clang. Another compiler asks for a project file and for this header in its own words.
#pragma once

#define NOINLINE __attribute__((noinline))
// Seldom called: the branch that leads to it is laid aside.
#define COLD __attribute__((noinline, cold))

// The arguments from `first` on are those of the text `format`, as printf takes them; both counted from 1.
#define PRINTF_LIKE(format, first) __attribute__((__format__(printf, format, first)))

// Where a field lies in a record, in bytes; also in one that is a sum of records, which the language leaves to the
// compiler.
#define OFFSET_IN_SUM(Sum, field) __builtin_offsetof(Sum, field)

// clang's thread-safety analysis; other compilers see nothing of it.
#if defined(__clang__)
#define LOCK_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define LOCK_ATTRIBUTE(attribute)
#endif

// Of a value that is not 0.
inline unsigned LowestBit(unsigned long long ullValue)
{
    return static_cast<unsigned>(__builtin_ctzll(ullValue));
}

// One access each, never torn, of a field of 1, 2, 4 or 8 bytes. What was written before a release is seen by whoever
// acquires it; the last three do both.
template <typename Field> inline Field LoadAcquire(const Field& field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <typename Field> inline void StoreRelease(Field& field, Field value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

template <typename Field> inline Field AtomicExchange(Field& field, Field value)
{
    return __atomic_exchange_n(&field, value, __ATOMIC_ACQ_REL);
}

// Unless the field holds what is expected, `expected` becomes what it holds.
template <typename Field> inline bool AtomicCompareExchange(Field& field, Field& expected, Field desired)
{
    return __atomic_compare_exchange_n(&field, &expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

template <typename Field> inline void AtomicAnd(Field& field, Field mask)
{
    __atomic_fetch_and(&field, mask, __ATOMIC_ACQ_REL);
}
