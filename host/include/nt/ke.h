// ke.h - levels, spin locks, dispatcher objects, waits, timers, deferred procedure calls, threads, time.
//
// The records are public because drivers embed them; their fields belong to the host.
#pragma once

#include "types.h"

extern "C" {

typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD, *PETHREAD;
struct _KDPC;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size; // in 32-bit words; 0: the object was never initialised
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, KMUTEX, *PKMUTANT, *PKMUTEX, *PRKMUTEX;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;
    LIST_ENTRY TimerListEntry;
    struct _KDPC* Dpc;
    ULONG Processor;
    ULONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

typedef void KDEFERRED_ROUTINE(struct _KDPC* Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                               PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
} KDPC, *PKDPC, *PRKDPC;

static_assert(sizeof(KEVENT) == 24 && sizeof(KMUTEX) == 56 && sizeof(KTIMER) == 64 && sizeof(KDPC) == 64, "");

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;
typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest
} KWAIT_REASON;

#define MAXIMUM_WAIT_OBJECTS 64
#define THREAD_WAIT_OBJECTS 3

typedef struct _KWAIT_BLOCK {
    LIST_ENTRY WaitListEntry;
    PKTHREAD Thread;
    PVOID Object;
    USHORT WaitKey;
    UCHAR WaitType;
    UCHAR Linked;
    ULONG Spare;
} KWAIT_BLOCK, *PKWAIT_BLOCK;

KIRQL KeGetCurrentIrql(void);
KIRQL KfRaiseIrql(KIRQL NewIrql);
void KeLowerIrql(KIRQL NewIrql);
KIRQL KeRaiseIrqlToDpcLevel(void);
#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))

void HostInitializeSpinLock(PKSPIN_LOCK SpinLock, const char* pName);
#define KeInitializeSpinLock(pLock)                                                                          \
    HostInitializeSpinLock((pLock), #pLock) // named, so that it can be dropped
KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
void KeClearEvent(PRKEVENT Event);
LONG KeResetEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);

void HostInitializeMutex(PRKMUTEX Mutex, ULONG Level, const char* pName);
#define KeInitializeMutex(pMutex, ulLevel) HostInitializeMutex((pMutex), (ulLevel), #pMutex)
LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                               BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

void KeInitializeTimer(PKTIMER Timer);
void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
BOOLEAN KeCancelTimer(PKTIMER Timer);
BOOLEAN KeReadStateTimer(PKTIMER Timer);

void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc);
void KeFlushQueuedDpcs(void);

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG KeQueryInterruptTime(void);

void KeEnterCriticalRegion(void);
void KeLeaveCriticalRegion(void);
}
