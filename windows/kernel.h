// kernel.h - the driver's one door to the platform, on Windows: the toolchain's own kernel headers.
//
// The host's door (host/include/kernel.h) offers the same names to the same sources; what the driver asserts
// there at run time is empty here.
#pragma once

// The compiler's intrinsics come first; two of them collide with the kernel headers' own.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#include <intrin.h>

#include <ntifs.h>
#include <ntddk.h>
#include <wdmguid.h>
#include <ntddkbd.h>

#include <stdarg.h>
#include <usb.h>
#include <usbioctl.h>

#define IRQL_AT_MOST(level) ((void)0)
#define IRQL_IS(level) ((void)0)
#define SCHEDULE_POINT() ((void)0)

// Exported by ntoskrnl.exe, declared by no kernel header of the toolchain.
extern "C" __declspec(dllimport) int _vsnprintf(char* pszBuffer, size_t cchBuffer, const char* pszFormat,
                                                va_list arguments);

// Known to the system since Windows 8, not to the toolchain, whose mapping routines take a priority and no flags.
#ifndef MdlMappingNoExecute
#define MdlMappingNoExecute 0x40000000
inline MM_PAGE_PRIORITY operator|(MM_PAGE_PRIORITY priority, int flags)
{
    return static_cast<MM_PAGE_PRIORITY>(static_cast<int>(priority) | flags);
}
#endif

// The toolchain declares the type as imported data of the kernel and the pointer to it besides: one step more
// than from the import table's entry to the type. The entry itself is the pointer that the platform
// documents.
extern "C" POBJECT_TYPE* __imp_ExEventObjectType;
#define ExEventObjectType __imp_ExEventObjectType

// The kernel's clocks, in 100-ns units, lie at the same addresses in every system. One plain load reads each; the
// headers would let the compiler read within any instruction, and a kernel that is a mere process answers no other.
template <ULONG64 ullAddress> inline ULONG64 ReadClock()
{
    ULONG64 ullNow;
    __asm__ __volatile__("movabsq %P1, %%rax" : "=a"(ullNow) : "i"(ullAddress));
    return ullNow;
}
#undef KeQueryInterruptTime
#define KeQueryInterruptTime() ReadClock<SharedInterruptTime>()
#undef KeQuerySystemTime
#define KeQuerySystemTime(pNow)                                                                              \
    ((void)((pNow)->QuadPart = static_cast<LONGLONG>(ReadClock<SharedSystemTime>())))
