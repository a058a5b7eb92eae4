// accesses.cpp - with TV64USB_TRACE_ACCESSES others may come first at every load and store of the driver, not only
// at its kernel calls and shared accesses: the compiler calls these before each.
#include <kernel.h>

#define BEFORE(name)                                                                                         \
    extern "C" void name(const void*)                                                                        \
    {                                                                                                        \
        SCHEDULE_POINT();                                                                                    \
    }
#define BEFORE_EACH(kind) BEFORE(kind##1) BEFORE(kind##2) BEFORE(kind##4) BEFORE(kind##8) BEFORE(kind##16)

BEFORE_EACH(__sanitizer_cov_load)
BEFORE_EACH(__sanitizer_cov_store)

// The accesses are traced only together with something else: here, the routines.
extern "C" void __sanitizer_cov_trace_pc() {}
