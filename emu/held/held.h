// Requests that a device answers later: after a time, when somebody says so, or not before it goes.
//
// A device decides on its answer when the request arrives; HoldRequest keeps the request with it. A held request
// can be cancelled; the end of the device completes what is left.
#pragma once

#include <kernel.h>

// The requests of one device. Lies in its extension; (i) InitializeHeld, then as told.
struct HeldRequests {
    KSPIN_LOCK Lock;    // guards the list and the mark
    LIST_ENTRY Waiting; // oldest first, linked by their ListEntry
    BOOLEAN bGone;      // nothing is held any more
    ULONG ulUnderWay;   // held, or being completed
    KEVENT NoneLeft;    // none is under way
    LONG lCancelMs;     // (x) so long a cancel routine takes that was called at PASSIVE_LEVEL
    KTIMER Timer;
    KDPC Dpc;
};

// IRQL PASSIVE, once.
VOID InitializeHeld(HeldRequests* pHeld);
// Answers a request as told: at once, or later with this status and length. Its buffer has the answer already.
// IRQL <= DISPATCH. Lock: takes Lock. Fails: with what the request was completed with, STATUS_PENDING.
NTSTATUS AnswerRequest(HeldRequests* pHeld, PIRP pIrp, NTSTATUS Status, ULONG_PTR ulInformation,
                       BOOLEAN bHold, ULONG ulDelayMs);
// Completes every held request with the answer that it was given. IRQL <= DISPATCH. Lock: takes Lock.
VOID ReleaseHeld(HeldRequests* pHeld);
// Fails every held request; later ones fail at once. Returns when those have been completed, too, that others
// release or cancel. IRQL PASSIVE. Lock: takes Lock.
VOID EndHeld(HeldRequests* pHeld);
// How many requests are held. IRQL <= DISPATCH. Lock: takes Lock.
ULONG CountHeld(HeldRequests* pHeld);
