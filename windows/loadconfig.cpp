// loadconfig.cpp - what the image tells the system's loader of its guards, where a C runtime would tell it.
//
// Every call through a pointer goes through the slot GuardDispatch, and the linker makes a table of all routines
// that may be called so (Control Flow Guard). A system that guards its kernel puts a check of its own into the two
// slots, which lie in read-only data, when it loads the image; any other leaves the routines here, which check
// nothing. There is no stack cookie: the toolchain has none for this system.
#include <stdint.h>

using Address = const void*;
using Slot = void (*const)();

// The load configuration directory of a 64-bit image as far as Control Flow Guard needs it.
struct LoadConfiguration {
    uint32_t ulSize;
    uint32_t ulUnused[27]; // heap, locks, stack cookie, exception handlers of 32-bit images: none of it
    Address pCheckSlot;
    Address pDispatchSlot;
    Address pRoutines;
    Address pRoutineCount; // the linker gives the count as an address
    uint32_t ulGuardFlags;
    uint32_t ulCodeIntegrity[3];
    Address pImportedRoutines;
    Address pImportedRoutineCount;
    Address pJumpTargets;
    Address pJumpTargetCount;
};
static_assert(sizeof(LoadConfiguration) == 192);

enum : uint32_t { GUARD_INSTRUMENTED = 0x100, GUARD_TABLE_PRESENT = 0x400 };

extern "C" {
// The linker's tables, each address of a routine 4 bytes from the image's base; and how long they are.
extern const char __guard_fids_table[], __guard_fids_count[], __guard_iat_table[], __guard_iat_count[];

// The target is in rcx, the routine returns when it is a good one.
__attribute__((naked)) void GuardCheckNothing()
{
    asm("ret");
}

// The target is in rax, all arguments are in their places.
__attribute__((naked)) void GuardDispatchNothing()
{
    asm("jmpq *%rax");
}

// The compiler calls through the second, a system may look for both.
extern Slot __guard_check_icall_fptr, __guard_dispatch_icall_fptr;
__attribute__((section(".00cfg"), used)) Slot __guard_check_icall_fptr = GuardCheckNothing;
__attribute__((section(".00cfg"), used)) Slot __guard_dispatch_icall_fptr = GuardDispatchNothing;

// The linker puts it into the image's directory by this name.
extern const LoadConfiguration _load_config_used;
__attribute__((used)) const LoadConfiguration _load_config_used = {
    sizeof(LoadConfiguration),
    {},
    &__guard_check_icall_fptr,
    &__guard_dispatch_icall_fptr,
    __guard_fids_table,
    __guard_fids_count,
    GUARD_INSTRUMENTED | GUARD_TABLE_PRESENT,
    {},
    __guard_iat_table,
    __guard_iat_count,
    nullptr,
    nullptr,
};
}
