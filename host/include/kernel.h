// kernel.h - the one door to the system for everything that is written like a driver.
//
// On the host this is the NT kernel interface as host/ implements it: the platform's names, records
// and signatures, sizes as on x86-64. A driver built for Windows finds the platform's own headers
// behind a file of the same name. Besides the platform's names there are two checks and a mark, which
// cost nothing on Windows:
//   IRQL_AT_MOST(level)   the caller runs at that level or lower
//   IRQL_IS(level)        the caller runs at exactly that level
//   SCHEDULE_POINT()      other processors may come first here; a simulated run with a seed lets them
// A check that does not hold stops the run, and so does NT_ASSERT, as in the platform's checked build.
#pragma once

#include "nt/types.h"
#include "nt/status.h"
#include "nt/interlocked.h"
#include "nt/ke.h"
#include "nt/ex.h"
#include "nt/etw.h"
#include "nt/io.h"
#include "nt/irp.h"
#include "nt/pnp.h"
#include "nt/rtl.h"
#include "nt/zw.h"
#include "nt/usb.h"
#include "nt/keyboard.h"

extern "C" void HostCheckIrqlAtMost(const char* pRoutine, KIRQL level);
extern "C" void HostCheckIrqlIs(const char* pRoutine, KIRQL level);
extern "C" [[noreturn]] void HostAssertionFailed(const char* pRoutine, const char* pExpression);

inline void HostAssert(bool bHolds, const char* pRoutine, const char* pExpression)
{
    if (!bHolds) {
        HostAssertionFailed(pRoutine, pExpression);
    }
}

#define IRQL_AT_MOST(level) HostCheckIrqlAtMost(__func__, (level))
#define IRQL_IS(level) HostCheckIrqlIs(__func__, (level))
#define NT_ASSERT(expression) HostAssert((expression), __func__, #expression)
