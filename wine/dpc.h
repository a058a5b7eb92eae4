// dpc.h - deferred calls, for which this kernel has only stubs: one thread runs them in the order in which
// they were queued. Usable in a program and in a .sys alike.
#pragma once

#include <kernel.h>

VOID NTAPI OwnKeInitializeDpc(PRKDPC pDpc, PKDEFERRED_ROUTINE pRoutine, PVOID pContext);
BOOLEAN NTAPI OwnKeInsertQueueDpc(PRKDPC pDpc, PVOID pFirst, PVOID pSecond);
BOOLEAN NTAPI OwnKeRemoveQueueDpc(PRKDPC pDpc);
VOID NTAPI OwnKeFlushQueuedDpcs();

// Sets the level of the calling thread around each deferred call, unless null.
extern void (*pSetDpcLevel)(KIRQL level);
