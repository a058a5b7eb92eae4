// types.h - basic types, counted strings, lists and the small macros of the kernel interface.
//
// Widths are those of the platform: LONG and ULONG have 32 bits, WCHAR 16 (the host is compiled with
// -fshort-wchar), pointers 64.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define VOID void
#define CONST const
#define NTAPI
#define FORCEINLINE static inline
#define EXTERN_C extern "C"
#define POINTER_ALIGNMENT __attribute__((aligned(8)))

typedef void* PVOID;
typedef char CHAR, CCHAR, *PCHAR, *PSTR;
typedef const char *PCSTR, *PCCH;
typedef unsigned char UCHAR, BOOLEAN, *PUCHAR, *PBOOLEAN;
typedef short SHORT, CSHORT, *PSHORT;
typedef unsigned short USHORT, WORD, *PUSHORT;
typedef int INT, LONG, *PLONG;
typedef unsigned int UINT, ULONG, DWORD, *PULONG;
typedef long long LONGLONG, LONG64, LONG_PTR, *PLONGLONG;
typedef unsigned long long ULONGLONG, ULONG64, ULONG_PTR, SIZE_T, *PULONGLONG, *PULONG_PTR, *PSIZE_T;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *PWCH;
typedef const wchar_t *PCWSTR, *PCWCH;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef void *HANDLE, **PHANDLE;
typedef ULONG ACCESS_MASK, DEVICE_TYPE, LCID;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

static_assert(sizeof(WCHAR) == 2, "compile with -fshort-wchar");

#define TRUE 1
#define FALSE 0
#define MAXULONG 0xffffffffu
#define MAXUSHORT 0xffff
#define MAXLONG 0x7fffffff
#define UNICODE_NULL ((WCHAR)0)

#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define ARRAYSIZE(array) (sizeof(array) / sizeof((array)[0]))
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) ((type*)((PCHAR)(address)-offsetof(type, field)))

extern bool HostSeeded;
__attribute__((cold)) void HostPreempt();
#define SCHEDULE_POINT() (__builtin_expect(HostSeeded, 0) ? HostPreempt() : (void)0)

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;
#define REFGUID const GUID&

#ifdef INITGUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)                                         \
    EXTERN_C const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) EXTERN_C const GUID name
#endif

inline BOOLEAN IsEqualGUID(REFGUID a, REFGUID b)
{
    return memcmp(&a, &b, sizeof(GUID)) == 0;
}

inline bool operator==(REFGUID a, REFGUID b)
{
    return IsEqualGUID(a, b) != 0;
}

inline bool operator!=(REFGUID a, REFGUID b)
{
    return !(a == b);
}

FORCEINLINE void InitializeListHead(PLIST_ENTRY pHead)
{
    pHead->Flink = pHead->Blink = pHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* pHead)
{
    return pHead->Flink == pHead;
}

FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY pEntry)
{
    PLIST_ENTRY pNext = pEntry->Flink;
    PLIST_ENTRY pBefore = pEntry->Blink;
    pBefore->Flink = pNext;
    pNext->Blink = pBefore;
    return pNext == pBefore;
}

FORCEINLINE void InsertTailList(PLIST_ENTRY pHead, PLIST_ENTRY pEntry)
{
    PLIST_ENTRY pLast = pHead->Blink;
    pEntry->Flink = pHead;
    pEntry->Blink = pLast;
    pLast->Flink = pEntry;
    pHead->Blink = pEntry;
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY pHead)
{
    PLIST_ENTRY pEntry = pHead->Flink;
    RemoveEntryList(pEntry);
    return pEntry;
}
