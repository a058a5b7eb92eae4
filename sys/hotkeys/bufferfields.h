// bufferfields.h - keys held back and keys to give, whole reports to insert, in a keyboard's record.
#pragma once

#include "control/requests.h"
#include "ground/frame.h"

enum {
    KEY_BUFFER_SIZE = 1024,
    FIFO_SIZE = 16,
};

struct BufferFields {
    static constexpr ULONG Place = FrameFields::Place + sizeof(FrameFields);

    // Keys held back and keys to give.
    SpinLock BufferLock; // leaf: guards the two buffers and ucOldOPOSPacket
    UCHAR ucOldOPOSPacket[8] GUARDED_BY(BufferLock);
    UCHAR SwallowBuf[KEY_BUFFER_SIZE] GUARDED_BY(BufferLock);
    USHORT usSwallowCount; // (x) written under BufferLock
    UCHAR InsertBuf[KEY_BUFFER_SIZE] GUARDED_BY(BufferLock);
    USHORT usInsertCount;          // (x) written under BufferLock
    UCHAR ucKbdModifiers;          // (x) byte 0 of the last completed 8-byte report
    UCHAR ucInsertModifiers;       // (x) modifier byte that InsertScans wants
    UCHAR ucInsertModifierPending; // (x)
    KEVENT InsertModifierEvent;    // synchronization, set when that report was placed
    KEVENT InsertScansTurn;        // synchronization, set: one waiting InsertScans at a time

    // Whole reports to insert.
    SpinLock FifoLock;
    FifoEntry Fifo[FIFO_SIZE] GUARDED_BY(FifoLock);
    ULONG ulFifoWrite GUARDED_BY(FifoLock);
    ULONG ulFifoRead GUARDED_BY(FifoLock);
    ULONG ulFifoCount; // (x) written under FifoLock
    KEVENT FifoEvent;  // synchronization, set when the queue has run empty
    LONG lFifoWaiters; // (x)
};
