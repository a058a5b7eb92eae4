// faults.h - what the driver did wrong in this world: told at once on standard error, counted for the next
// unload.
#pragma once

void __attribute__((format(gnu_printf, 1, 2))) TellFault(const char* pszFormat, ...);
unsigned TakeFaults(); // since the last call
