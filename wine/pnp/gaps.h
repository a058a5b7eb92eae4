// gaps.h - what Tv64USB.sys and the test drivers get in place of some of this kernel's routines.
#pragma once

#include <kernel.h>

#include "wine/imports.h"

// For a test driver: deferred calls, timers, and devices that stay under what is attached to them.
extern const Replacement TestDriverGaps[];

// From now on Tv64USB.sys gets, when it is loaded: the same, applications' handles, locked pages, and
// memory that is counted (wine/memory.h) from its loading on.
void FillFilterGaps();
// Whether it imported every routine that was to be replaced.
bool AreFilterGapsFilled();
