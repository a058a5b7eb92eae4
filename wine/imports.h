// imports.h - puts routines of our own in the place of some that a loaded module imports.
//
// What this kernel lacks is filled that way in memory, with the driver's file unchanged. A routine that
// stands for the kernel's is named after it: OwnKeInsertQueueDpc stands for KeInsertQueueDpc.
#pragma once

struct Replacement {
    const char* pszName; // null ends a table
    void* pRoutine;
};
#define OWN(name)                                                                                            \
    {                                                                                                        \
#name, reinterpret_cast < void*>(Own##name)                                                          \
    }
#define END_OF_OWN                                                                                           \
    {                                                                                                        \
        nullptr, nullptr                                                                                     \
    }

// Replaces the module's imports that the table names; how many there were.
unsigned ReplaceImports(void* pModule, const Replacement* pTable);
