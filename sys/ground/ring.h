// ring.h - a ring of records between a write and a read position; equal positions are empty or full, the count says which.
//
// Its fields stand in the record of whoever owns it, who holds their lock. The count may be read without it.
#pragma once

#include "ground/shared.h"

// Copies the record behind the others. Fails: false, full.
template <typename Record, ULONG Size>
inline bool AppendToRing(Record (&ring)[Size], ULONG& ulWrite, ULONG& ulCount, const Record& record)
{
    if (ulCount >= Size) {
        return false;
    }
    ring[ulWrite] = record;
    ulWrite = (ulWrite + 1) % Size;
    WriteShared(ulCount, ulCount + 1);
    return true;
}

// Copies the oldest record, which leaves the ring unless it is only looked at. Fails: false, empty; *pRecord untouched.
template <typename Record, ULONG Size>
inline bool ReadFromRing(const Record (&ring)[Size], ULONG& ulRead, ULONG& ulCount, Record* pRecord,
                         bool bRemove = true)
{
    if (ulCount == 0) {
        return false;
    }
    *pRecord = ring[ulRead];
    if (bRemove) {
        ulRead = (ulRead + 1) % Size;
        WriteShared(ulCount, ulCount - 1);
    }
    return true;
}

template <typename Record, ULONG Size>
inline void ClearRing(Record (&ring)[Size], ULONG& ulWrite, ULONG& ulRead, ULONG& ulCount)
{
    RtlZeroMemory(ring, sizeof(ring));
    ulWrite = 0;
    ulRead = 0;
    WriteShared(ulCount, 0u);
}
