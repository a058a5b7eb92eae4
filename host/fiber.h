// fiber.h - threads of control that take turns on one thread of the system: simulated mode's threads.
//
// Each has a stack of its own with an unmapped page below it; leaving one and entering another is one call.
// Sanitizers are told of every change. A fiber that has ended is deleted by another one.
#pragma once

#include <cstddef>

struct HostFiber;
typedef void HostFiberEntry(void* pContext); // does not return

HostFiber* HostCallerFiber(); // stands for the calling thread's own stack
HostFiber* HostNewFiber(size_t stackBytes, HostFiberEntry* pEntry, void* pContext);
void HostSwitchFiber(HostFiber* pFrom, HostFiber* pTo, bool bFromEnds);
void HostDeleteFiber(HostFiber* pFiber);
