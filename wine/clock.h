// clock.h - the virtual clock and the timers on it: 0 at the start of each story, moved by HostAdvanceToUs
// and when everything waits (turns.h). Time is in microseconds.
#pragma once

#include <kernel.h>

VOID NTAPI OwnKeInitializeTimer(PKTIMER pTimer);
BOOLEAN NTAPI OwnKeSetTimer(PKTIMER pTimer, LARGE_INTEGER due, PKDPC pDpc);
BOOLEAN NTAPI OwnKeCancelTimer(PKTIMER pTimer);

void RestartClock(); // to 0, without timers
unsigned CountTimersOf(const void* pModule,
                       unsigned long ulBytes);  // set, with a deferred routine in the module
bool ExpireNext(unsigned long long ullUntilUs); // false: none is due until then

// Lets a loaded module read the virtual clock as the interrupt time.
void GiveClock(void* pModule, unsigned long ulBytes);
