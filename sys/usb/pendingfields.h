// pendingfields.h - reads that lie at the keyboard and what discard mode held back, in a keyboard's record.
#pragma once

#include "ground/frame.h"

enum {
    PENDING_IRP_SIZE = 100,
    DISCARD_RING_SIZE = 128,
};

// A report value held back in discard mode.
struct DiscardEntry {
    UCHAR ucValue;
    UCHAR ucIsModifier;
};

struct PendingFields {
    static const ULONG Place;

    SpinLock PendingIrpLock;
    PIRP PendingIrps[PENDING_IRP_SIZE] GUARDED_BY(PendingIrpLock); // oldest first
    ULONG ulPendingIrpCount GUARDED_BY(PendingIrpLock);
    PIRP pPendingReadIrp;                           // (x) = PendingIrps[0], written under PendingIrpLock
    PIRP pCancellingIrp GUARDED_BY(PendingIrpLock); // being cancelled by CancelPendingRead
    UCHAR ucCancelledCompleted GUARDED_BY(PendingIrpLock); // its completion came meanwhile and waits
    LONG lMissedCalls;                                     // (x) CancelPendingRead found none
    ULONG ulIrpCancelledForInsert;                         // (x)

    SpinLock DiscardLock;
    DiscardEntry DiscardRing[DISCARD_RING_SIZE] GUARDED_BY(DiscardLock);
    ULONG ulDiscardWrite GUARDED_BY(DiscardLock);
    ULONG ulDiscardRead GUARDED_BY(DiscardLock);
    ULONG ulDiscardCount; // (x) written under DiscardLock
};
