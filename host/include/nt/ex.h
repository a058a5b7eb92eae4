// ex.h - pool memory, work queues, objects and handles, system threads, memory descriptor lists.
#pragma once

#include "ke.h"

extern "C" {

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = 0,
    PagedPool = 1,
    NonPagedPoolNx = 512,
} POOL_TYPE;

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
void ExFreePool(PVOID P);
void ExFreePoolWithTag(PVOID P, ULONG Tag);

typedef void WORKER_THREAD_ROUTINE(PVOID Parameter);
typedef WORKER_THREAD_ROUTINE* PWORKER_THREAD_ROUTINE;

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

typedef enum _WORK_QUEUE_TYPE { CriticalWorkQueue, DelayedWorkQueue, HyperCriticalWorkQueue } WORK_QUEUE_TYPE;

FORCEINLINE void ExInitializeWorkItem(PWORK_QUEUE_ITEM pItem, PWORKER_THREAD_ROUTINE pRoutine, PVOID pContext)
{
    pItem->List.Flink = nullptr;
    pItem->List.Blink = nullptr;
    pItem->WorkerRoutine = pRoutine;
    pItem->Parameter = pContext;
}
void ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

typedef struct _OBJECT_TYPE* POBJECT_TYPE;
extern POBJECT_TYPE* ExEventObjectType;
extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* PsThreadType;

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation);
LONG_PTR ObfReferenceObject(PVOID Object);
LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)

// A second handle's worth of access to an object at hand, and an object's access list (devices only).
NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, struct _ACCESS_STATE* PassedAccessState,
                               ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                               PHANDLE Handle);
typedef ULONG SECURITY_INFORMATION;
#define DACL_SECURITY_INFORMATION 0x00000004u
#define LABEL_SECURITY_INFORMATION 0x00000010u
NTSTATUS ZwSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR SecurityDescriptor);

#define DELETE 0x00010000u
#define READ_CONTROL 0x00020000u
#define WRITE_DAC 0x00040000u
#define WRITE_OWNER 0x00080000u
#define SYNCHRONIZE 0x00100000u
#define STANDARD_RIGHTS_REQUIRED 0x000F0000u
#define STANDARD_RIGHTS_ALL 0x001F0000u
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u
#define EVENT_QUERY_STATE 0x0001u
#define EVENT_MODIFY_STATE 0x0002u
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3u)
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFFu)

typedef void KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;
typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;
typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_CASE_INSENSITIVE 0x00000040
#define OBJ_KERNEL_HANDLE 0x00000200
#define InitializeObjectAttributes(p, n, a, r, s)                                                            \
    {                                                                                                        \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);                                                             \
        (p)->RootDirectory = (r);                                                                            \
        (p)->Attributes = (a);                                                                               \
        (p)->ObjectName = (n);                                                                               \
        (p)->SecurityDescriptor = (s);                                                                       \
        (p)->SecurityQualityOfService = nullptr;                                                             \
    }

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext);
NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);

typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    struct _EPROCESS* Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

static_assert(sizeof(MDL) == 48 && sizeof(OBJECT_ATTRIBUTES) == 48, "");

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define PAGE_SIZE 0x1000

typedef enum _MEMORY_CACHING_TYPE { MmNonCached, MmCached, MmWriteCombined } MEMORY_CACHING_TYPE;
typedef enum _MM_PAGE_PRIORITY {
    LowPagePriority = 0,
    NormalPagePriority = 16,
    HighPagePriority = 32
} MM_PAGE_PRIORITY;
#define MdlMappingNoExecute 0x40000000

struct _IRP;
PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                   struct _IRP* Irp);
void IoFreeMdl(PMDL Mdl);
void MmBuildMdlForNonPagedPool(PMDL Mdl);
PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE CacheType,
                                   PVOID BaseAddress, ULONG BugCheckOnFailure, ULONG Priority);
void MmUnmapLockedPages(PVOID BaseAddress, PMDL Mdl);
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))

FORCEINLINE PVOID MmGetSystemAddressForMdlSafe(PMDL pMdl, ULONG ulPriority)
{
    if (pMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
        return pMdl->MappedSystemVa;
    }
    return MmMapLockedPagesSpecifyCache(pMdl, KernelMode, MmCached, nullptr, FALSE, ulPriority);
}

PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);
}
