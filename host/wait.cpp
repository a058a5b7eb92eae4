// wait.cpp - events, mutexes and the waits for them, for timers and for threads.
//
// A wait links one block per object into the objects' wait lists. Whoever signals an object looks for a
// waiter whose condition now holds, takes the objects' states for it, unlinks it and wakes it: so a woken
// thread has its objects already.
#include "core.h"

#include <algorithm>

enum : UCHAR {
    NOTIFICATION_EVENT = 0,
    SYNCHRONIZATION_EVENT = 1,
    MUTANT = 2,
    THREAD = 6,
    NOTIFICATION_TIMER = 8,
    SYNCHRONIZATION_TIMER = 9,
};

enum : UCHAR { DROPPED_MUTEX = 2 }; // in Abandoned

void HostInitHeader(DISPATCHER_HEADER* pHeader, UCHAR ucType, size_t size, LONG lState)
{
    pHeader->Type = ucType;
    pHeader->Absolute = 0;
    pHeader->Size = static_cast<UCHAR>(size / sizeof(LONG));
    pHeader->Inserted = 0;
    pHeader->SignalState = lState;
    InitializeListHead(&pHeader->WaitListHead);
}

static DISPATCHER_HEADER* HeaderOf(PVOID pObject, const char* pCall)
{
    DISPATCHER_HEADER* pHeader = static_cast<DISPATCHER_HEADER*>(pObject);
    HostCheckNotFreed(pHeader, pCall);
    if (pHeader == nullptr || pHeader->Size == 0) {
        HostBug("DISPATCHER_OBJECT_NOT_INITIALISED", "%s on an object that was never initialised", pCall);
    }
    return pHeader;
}

// A mutex that this run does without: whoever waits for it has it.
static bool IsDroppedMutex(const DISPATCHER_HEADER* pHeader)
{
    return pHeader->Type == MUTANT && reinterpret_cast<const KMUTANT*>(pHeader)->Abandoned == DROPPED_MUTEX;
}

static bool Owns(PKTHREAD pThread, const DISPATCHER_HEADER* pHeader)
{
    return pHeader->Type == MUTANT && reinterpret_cast<const KMUTANT*>(pHeader)->OwnerThread == pThread;
}

static bool IsSignalled(PKTHREAD pThread, const DISPATCHER_HEADER* pHeader)
{
    return pHeader->SignalState > 0 || Owns(pThread, pHeader);
}

// What a satisfied wait does to the object.
static void TakeObject(PKTHREAD pThread, DISPATCHER_HEADER* pHeader)
{
    if (pHeader->Type == SYNCHRONIZATION_EVENT || pHeader->Type == SYNCHRONIZATION_TIMER) {
        pHeader->SignalState = 0;
    } else if (pHeader->Type == MUTANT) {
        if (!Owns(pThread, pHeader)) {
            pThread->Mutexes.push_back(pHeader);
            g->Threads.objects++;
        }
        pHeader->SignalState--;
        reinterpret_cast<PKMUTANT>(pHeader)->OwnerThread = pThread;
    }
}

// Takes the objects if the wait's condition holds. Result: the status of the wait, or STATUS_PENDING.
static NTSTATUS TryTake(PKTHREAD pThread, PVOID const* ppObjects, const KWAIT_BLOCK* pBlocks, ULONG ulCount,
                        WAIT_TYPE type)
{
    auto header = [&](ULONG i) {
        return static_cast<DISPATCHER_HEADER*>(ppObjects != nullptr ? ppObjects[i] : pBlocks[i].Object);
    };
    ULONG ulSignalled = 0;
    for (ULONG i = 0; i < ulCount; i++) {
        if (!IsSignalled(pThread, header(i))) {
            continue;
        }
        if (type == WaitAny) {
            TakeObject(pThread, header(i));
            return STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
        }
        ulSignalled++;
    }
    if (type == WaitAny || ulSignalled != ulCount) {
        return STATUS_PENDING;
    }
    for (ULONG i = 0; i < ulCount; i++) {
        TakeObject(pThread, header(i));
    }
    return STATUS_SUCCESS;
}

// Unlinks a waiting thread from its objects and the clock, and wakes it with a status.
// Lock: held.
void HostEndWait(PKTHREAD pThread, NTSTATUS status)
{
    for (ULONG i = 0; i < pThread->ulBlocks; i++) {
        RemoveEntryList(&pThread->pBlocks[i].WaitListEntry);
    }
    if (pThread->bTimed) {
        g->Clock.Due.erase(pThread->Due);
        pThread->bTimed = false;
    }
    g->Threads.objects -= pThread->ulBlocks;
    pThread->ulBlocks = 0;
    pThread->pBlocks = nullptr;
    pThread->WaitStatus = status;
    HostWake(pThread);
}

bool HostRetryWait(PKTHREAD pThread)
{
    NTSTATUS status = TryTake(pThread, nullptr, pThread->pBlocks, pThread->ulBlocks, pThread->WaitType);
    if (pThread->ulBlocks == 0 || status == STATUS_PENDING) {
        return false;
    }
    HostEndWait(pThread, status);
    return true;
}

// A suspended thread has left its wait for so long: nothing is given to it.
static bool WakeOneWaiter(DISPATCHER_HEADER* pHeader)
{
    for (PLIST_ENTRY p = pHeader->WaitListHead.Flink; p != &pHeader->WaitListHead; p = p->Flink) {
        PKTHREAD pThread = CONTAINING_RECORD(p, KWAIT_BLOCK, WaitListEntry)->Thread;
        if (!HostStops(pThread) && HostRetryWait(pThread)) {
            return true;
        }
    }
    return false;
}

// Wakes everyone whose wait can end now that the object is signalled.
// Lock: held.
void HostSignal(DISPATCHER_HEADER* pHeader)
{
    while (pHeader->SignalState > 0 && WakeOneWaiter(pHeader)) {
    }
}

static bool LinkWait(PKTHREAD pSelf, PVOID* ppObjects, ULONG ulCount, PKWAIT_BLOCK pBlocks,
                     PLARGE_INTEGER pTimeout)
{
    if (pTimeout != nullptr) {
        LONGLONG llDue =
            pTimeout->QuadPart <= 0 ? HostNow() - pTimeout->QuadPart : pTimeout->QuadPart - HostSystemBase();
        if (pTimeout->QuadPart == 0 || llDue <= HostNow()) {
            return false;
        }
        pSelf->Due = {llDue, ++g->Clock.ullSequence};
        pSelf->bTimed = true;
        g->Clock.Due[pSelf->Due] = {nullptr, pSelf};
    }
    for (ULONG i = 0; i < ulCount; i++) {
        pBlocks[i].Thread = pSelf;
        pBlocks[i].Object = ppObjects[i];
        InsertTailList(&static_cast<DISPATCHER_HEADER*>(ppObjects[i])->WaitListHead,
                       &pBlocks[i].WaitListEntry);
    }
    pSelf->pBlocks = pBlocks;
    pSelf->ulBlocks = ulCount;
    g->Threads.objects += ulCount;
    pSelf->bWaiting = true;
    return true;
}

static void CheckWaitAllowed(PKTHREAD pSelf, PLARGE_INTEGER pTimeout, const char* pCall)
{
    bool bPoll = pTimeout != nullptr && pTimeout->QuadPart == 0;
    if (pSelf->uHeld != 0 && !bPoll) {
        HostBug("WAIT_UNDER_SPIN_LOCK", "%s while the thread holds a spin lock", pCall);
    }
    HostEnter(pCall, bPoll ? DISPATCH_LEVEL : APC_LEVEL);
}

// The one wait under all the others.
// IRQL <= APC, <= DISPATCH with a time-out of 0. Lock: takes Lock.
NTSTATUS HostWait(PVOID* ppObjects, ULONG ulCount, WAIT_TYPE type, KPROCESSOR_MODE mode,
                  PLARGE_INTEGER pTimeout, PKWAIT_BLOCK pBlocks, const char* pCall)
{
    PKTHREAD pSelf = HostSelf();
    CheckWaitAllowed(pSelf, pTimeout, pCall);
    HostLock lock(g->Lock);
    for (ULONG i = 0; i < ulCount; i++) {
        DISPATCHER_HEADER* pHeader = HeaderOf(ppObjects[i], pCall);
        if (pHeader->Type == MUTANT && !Owns(pSelf, pHeader)) {
            HostNoteOrder(pSelf, pHeader);
        }
    }
    if (ulCount != 0) {
        NTSTATUS status = TryTake(pSelf, ppObjects, nullptr, ulCount, type);
        if (status != STATUS_PENDING) {
            return status;
        }
    }
    if (mode == UserMode && pSelf->bTerminating) {
        return STATUS_USER_APC;
    }
    if (!LinkWait(pSelf, ppObjects, ulCount, pBlocks, pTimeout)) {
        return STATUS_TIMEOUT;
    }
    pSelf->WaitMode = mode;
    pSelf->WaitType = type;
    HostBlock(lock, pSelf);
    return pSelf->WaitStatus;
}

NTSTATUS KeWaitForSingleObject(PVOID pObject, KWAIT_REASON, KPROCESSOR_MODE mode, BOOLEAN,
                               PLARGE_INTEGER pTimeout)
{
    if (IsDroppedMutex(static_cast<DISPATCHER_HEADER*>(pObject))) {
        return STATUS_SUCCESS;
    }
    KWAIT_BLOCK block;
    return HostWait(&pObject, 1, WaitAny, mode, pTimeout, &block, __func__);
}

NTSTATUS KeWaitForMultipleObjects(ULONG ulCount, PVOID ppObjects[], WAIT_TYPE type, KWAIT_REASON,
                                  KPROCESSOR_MODE mode, BOOLEAN, PLARGE_INTEGER pTimeout,
                                  PKWAIT_BLOCK pBlocks)
{
    KWAIT_BLOCK blocks[THREAD_WAIT_OBJECTS];
    if (ulCount == 0 || ulCount > (pBlocks == nullptr ? THREAD_WAIT_OBJECTS : MAXIMUM_WAIT_OBJECTS)) {
        HostBug("MAXIMUM_WAIT_OBJECTS_EXCEEDED", "a wait for %u objects", ulCount);
    }
    return HostWait(ppObjects, ulCount, type, mode, pTimeout, pBlocks == nullptr ? blocks : pBlocks,
                    __func__);
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE mode, BOOLEAN, PLARGE_INTEGER pInterval)
{
    NTSTATUS status = HostWait(nullptr, 0, WaitAny, mode, pInterval, nullptr, __func__);
    return status == STATUS_TIMEOUT ? STATUS_SUCCESS : status;
}

std::string HostDescribeWait(PKTHREAD pThread)
{
    std::string text;
    for (ULONG i = 0; i < pThread->ulBlocks; i++) {
        UCHAR ucType = static_cast<DISPATCHER_HEADER*>(pThread->pBlocks[i].Object)->Type;
        char one[64];
        snprintf(one, sizeof(one), "%s%s %p", i == 0 ? "" : ", ",
                 ucType == MUTANT               ? "mutex"
                 : ucType == THREAD             ? "thread"
                 : ucType >= NOTIFICATION_TIMER ? "timer"
                                                : "event",
                 pThread->pBlocks[i].Object);
        text += one;
    }
    return text;
}

void KeInitializeEvent(PRKEVENT pEvent, EVENT_TYPE type, BOOLEAN bState)
{
    HostCheckInitialise(pEvent, sizeof(KEVENT), __func__);
    HostInitHeader(&pEvent->Header, type == NotificationEvent ? NOTIFICATION_EVENT : SYNCHRONIZATION_EVENT,
                   sizeof(KEVENT), bState ? 1 : 0);
}

LONG KeSetEvent(PRKEVENT pEvent, KPRIORITY, BOOLEAN bWait)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    DISPATCHER_HEADER* pHeader = HeaderOf(pEvent, __func__);
    if (bWait) {
        HostBug("KE_SET_EVENT_WAIT", "KeSetEvent with Wait TRUE is not used here");
    }
    HostLock lock(g->Lock);
    LONG lBefore = pHeader->SignalState;
    pHeader->SignalState = 1;
    HostSignal(pHeader);
    return lBefore;
}

static LONG SetState(PRKEVENT pEvent, bool bClear, const char* pCall)
{
    HostEnter(pCall, DISPATCH_LEVEL);
    DISPATCHER_HEADER* pHeader = HeaderOf(pEvent, pCall);
    HostLock lock(g->Lock);
    LONG lBefore = pHeader->SignalState;
    if (bClear) {
        pHeader->SignalState = 0;
    }
    return lBefore;
}

void KeClearEvent(PRKEVENT pEvent)
{
    SetState(pEvent, true, __func__);
}

LONG KeResetEvent(PRKEVENT pEvent)
{
    return SetState(pEvent, true, __func__);
}

LONG KeReadStateEvent(PRKEVENT pEvent)
{
    return SetState(pEvent, false, __func__);
}

void HostInitializeMutex(PRKMUTEX pMutex, ULONG, const char* pName)
{
    HostCheckInitialise(pMutex, sizeof(KMUTANT), "KeInitializeMutex");
    HostInitHeader(&pMutex->Header, MUTANT, sizeof(KMUTANT), 1);
    InitializeListHead(&pMutex->MutantListEntry);
    {
        HostLock lock(g->Lock);
        HostForgetLocks(pMutex, sizeof(*pMutex));
    }
    pMutex->OwnerThread = nullptr;
    pMutex->Abandoned = HostIsDropped(pName) ? DROPPED_MUTEX : FALSE;
    pMutex->ApcDisable = 1;
}

LONG KeReleaseMutex(PRKMUTEX pMutex, BOOLEAN)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    DISPATCHER_HEADER* pHeader = HeaderOf(pMutex, __func__);
    PKTHREAD pSelf = HostSelf();
    if (IsDroppedMutex(pHeader)) {
        return 0;
    }
    LONG lBefore;
    {
        HostLock lock(g->Lock);
        if (pMutex->OwnerThread != pSelf) {
            HostBug("THREAD_NOT_MUTEX_OWNER", "KeReleaseMutex by a thread that does not own the mutex");
        }
        lBefore = pHeader->SignalState++;
        if (pHeader->SignalState == 1) {
            pMutex->OwnerThread = nullptr;
            pSelf->Mutexes.erase(std::find(pSelf->Mutexes.begin(), pSelf->Mutexes.end(), pHeader));
            g->Threads.objects--;
            HostSignal(pHeader);
        }
    }
    HostStopHere();
    return lBefore;
}

// Ends the thread's user-mode waits, now and from now on, and cancels the request it waits for.
// IRQL: PASSIVE_LEVEL. Lock: takes Lock.
void HostEndThreadWaits(HostThread t)
{
    {
        HostLock lock(g->Lock);
        t->bTerminating = true;
        t->bSuspended = false; // it ends, whoever stopped it
        if (t->bStopped) {
            t->bStopped = false;
            g->Sched.Ready.push_back(t);
        }
        if (t->bWaiting && (t->ulBlocks != 0 || t->bTimed) && t->WaitMode == UserMode) {
            HostEndWait(t, STATUS_USER_APC);
        }
    }
    HostCancelRequestOf(t);
}
