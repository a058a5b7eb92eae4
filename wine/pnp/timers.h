// timers.h - the real clock's timers with deferred calls that can be taken back.
//
// This kernel calls a timer's routine in a thread of its own, where neither KeCancelTimer nor KeFlushQueuedDpcs
// waits for it. Here a timer that is due queues its call as every other deferred call is queued (dpc.h).
#pragma once

#include <kernel.h>

VOID NTAPI OwnKeInitializeTimer(PKTIMER pTimer);
// Relative due times only.
BOOLEAN NTAPI OwnKeSetTimer(PKTIMER pTimer, LARGE_INTEGER due, PKDPC pDpc);
BOOLEAN NTAPI OwnKeCancelTimer(PKTIMER pTimer);
