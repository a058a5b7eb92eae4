// trace.h - trace points: what a driver engineer sees in a kernel debugger, apart from the driver's own log.
//
// The platform filters them out unless the trace level of its IHVDRIVER component is switched on.
#pragma once

#include <kernel.h>

#define Trace(...) DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, __VA_ARGS__)
