// core.h - the host's inner records: its state, threads, objects and the ways in to its parts.
//
// One mutex, HostState::Lock, guards the scheduler, dispatcher objects, timers, queues, handles and
// ledgers in both modes. It is never held while a driver's code runs. Requests have a lock of their own
// (irp.cpp), needed only when threads run freely.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>
#include <pthread.h>

#include <host.h>

#include "fiber.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOST_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define HOST_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define HOST_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define HOST_TSAN 1
#endif
#if defined(HOST_ASAN)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(p, n) ((void)(p), (void)(n))
#define ASAN_UNPOISON_MEMORY_REGION(p, n) ((void)(p), (void)(n))
#endif

extern bool
    HostRunsFreely; // threads run freely; else one runs at a time, and nobody needs a lock or an atomic sum

// Nobody else runs before this thread waits.
inline bool HostTakesTurns()
{
    return !HostRunsFreely && !HostSeeded;
}

class HostLock
{
public:
    explicit HostLock(std::mutex& mutex) : m_Lock(mutex, std::defer_lock) { lock(); }
    void lock()
    {
        if (HostRunsFreely) {
            m_Lock.lock();
        }
    }
    void unlock()
    {
        if (HostRunsFreely) {
            m_Lock.unlock();
        }
    }
    operator std::unique_lock<std::mutex>&() { return m_Lock; } // for condition variables

private:
    std::unique_lock<std::mutex> m_Lock;
};

// The sum after adding.
template <typename Number> Number HostAdd(Number* pNumber, Number change)
{
    if (HostRunsFreely) {
        return __atomic_add_fetch(pNumber, change, __ATOMIC_ACQ_REL);
    }
    return *pNumber += change;
}

// What was there before.
template <typename Value> Value HostExchange(Value* pValue, Value value)
{
    if (HostRunsFreely) {
        return __atomic_exchange_n(pValue, value, __ATOMIC_SEQ_CST);
    }
    return std::exchange(*pValue, value);
}
using HostText = std::u16string;

// --- verify.cpp
[[noreturn]] void HostBug(const char* pCode, const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
void HostLeak(unsigned& uCount, const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
void HostTellFailure(const char* pCall, const std::string& about);
std::string HostShown(PCUNICODE_STRING pText); // as a line can hold it
bool HostIsDropped(const char* pName);         // lock.cpp

// --- objects: a counted body behind a header (object.cpp)
enum HostKind { HostKindEvent, HostKindThread, HostKindFile, HostKindDevice, HostKindKey, HostKindDiskFile };

struct HostObject {
    ULONG_PTR ulMagic;
    HostKind Kind;
    long lReferences;
    PDRIVER_OBJECT pOwner;
    void (*pDestroy)(void* pBody);
    size_t bodySize;
    void* pSpare;
};

enum : ULONG_PTR { HOST_OBJECT_MAGIC = 0x7463656a626f746e };

void* HostNewObject(HostKind kind, size_t bodySize, void (*pDestroy)(void* pBody));
inline bool HostIsFreed([[maybe_unused]] const void* p) // as far as an address sanitizer knows
{
#if defined(HOST_ASAN)
    return __asan_address_is_poisoned(p);
#else
    return false;
#endif
}
[[noreturn]] void HostBugNoObject(const void* pBody, const char* pCall);
inline HostObject* HostObjectOf(void* pBody, const char* pCall) // checks that the object lives
{
    HostObject* pObject = static_cast<HostObject*>(pBody) - 1;
    if (pBody == nullptr || HostIsFreed(pObject) || pObject->ulMagic != HOST_OBJECT_MAGIC) {
        HostBugNoObject(pBody, pCall);
    }
    return pObject;
}
void HostReference(void* pBody);                 // the host's own references: not in a driver's ledger
long HostDereference(void* pBody);               // what is left
void HostForgetSecurity(PDEVICE_OBJECT pDevice); // security.cpp
ACCESS_MASK HostRightsOf(HostKind kind, ACCESS_MASK desired); // generic rights become the kind's own
// Takes over a reference. Without OBJ_KERNEL_HANDLE it is a handle of the process that happens to run.
HANDLE HostNewHandle(void* pBody, ULONG ulAttributes, ACCESS_MASK rights);
void* HostFromHandle(HANDLE h, HostKind kind, ACCESS_MASK needed, NTSTATUS* pStatus); // borrowed
const char* HostKindName(HostKind kind);
unsigned HostAuditObjects(PDRIVER_OBJECT pDriver);

// --- threads (thread.cpp) and the scheduler (sched.cpp)
struct HostOsThread {
    pthread_t Os;
    bool bEnded;
};

struct _KTHREAD {
    DISPATCHER_HEADER Header; // signalled when the thread has ended
    std::string Name;
    std::function<void()> Body;
    std::condition_variable Wake;
    HostOsThread* pOs;
    KIRQL Irql;
    HostFiber* pFiber;      // simulated mode: where it runs
    unsigned uNumber;       // in the order of their starts
    PKSPIN_LOCK pSpinsFor;  // simulated mode: cannot run until this lock is free
    ULONGLONG ullSlowUntil; // with a seed: so many switches since the start
    bool bWaiting;
    bool bTerminating;
    unsigned uCriticalRegions; // critical regions that it is in
    bool bSuspended;           // simulated mode: stops when it next may
    bool bStopped;             // and would run otherwise
    bool b32;
    KPROCESSOR_MODE WaitMode;
    WAIT_TYPE WaitType;
    NTSTATUS WaitStatus;
    ULONG ulBlocks;
    PKWAIT_BLOCK pBlocks;
    std::pair<LONGLONG, ULONGLONG> Due; // key in HostClock::Due while a timed wait runs
    bool bTimed;
    PKSPIN_LOCK Held[2];
    unsigned uHeld;
    bool bLeafHeld;
    unsigned uCallsUnderLock;
    std::vector<const void*> Mutexes; // that it owns
    const UCHAR* pStackTop;           // where drivers' code began on it; null: no driver's code runs
    unsigned uOnStack;                // requests under way whose event or status block lies on its stack
    PDRIVER_OBJECT pWorkOf;           // a worker: whose work routine runs
    PDRIVER_OBJECT pTells;            // to whose callback it brings a notification
    PDRIVER_OBJECT pDriver;           // whose code runs
    PIRP pRequest;                    // the application's request that this thread waits for
};

struct HostThreadObject : _KTHREAD {
};

extern __thread PKTHREAD HostKnownSelf; // of the run with this number
extern __thread ULONGLONG HostKnownIn;
extern ULONGLONG HostRun; // 0: the host does not run
PKTHREAD HostAdopt();
inline PKTHREAD HostSelf() // whose code runs on this thread of the system
{
    return HostKnownIn == HostRun && HostRun != 0 ? HostKnownSelf : HostAdopt();
}

// The kernel's stack has 24 KB. Frames are several times as large with sanitizers or without optimisation.
#if defined(HOST_ASAN) || defined(HOST_TSAN) || !defined(__OPTIMIZE__)
enum : ptrdiff_t { HOST_STACK_BYTES = 5 * 24 * 1024 };
#else
enum : ptrdiff_t { HOST_STACK_BYTES = 24 * 1024 };
#endif

enum : unsigned { HOST_MOST_CALLS_UNDER_LOCK = 1000 };

// A kernel service begins: its caller runs at this level or lower; with a seed, others may run first.
inline void HostEnter(const char* pRoutine, KIRQL highest)
{
    PKTHREAD pSelf = HostSelf();
    const UCHAR* pHere = static_cast<const UCHAR*>(__builtin_frame_address(0));
    if (pSelf->Irql > highest ||
        (pSelf->pStackTop != nullptr && pSelf->pStackTop - pHere > HOST_STACK_BYTES) ||
        (pSelf->uHeld != 0 && ++pSelf->uCallsUnderLock > HOST_MOST_CALLS_UNDER_LOCK)) {
        HostCheckIrqlAtMost(pRoutine, highest); // says which
    }
    SCHEDULE_POINT();
}

PKTHREAD HostSpawn(const char* pName, std::function<void()> body, size_t stackBytes,
                   PDRIVER_OBJECT pDriver = nullptr); // referenced for the caller
const HostText& HostServiceOf(PDRIVER_OBJECT pDriver);
void HostSeedSchedule(ULONGLONG ullSeed);
void HostSetSelf(PKTHREAD pThread);             // whose code runs on this thread of the system
void HostBlock(HostLock& lock, PKTHREAD pSelf); // until bWaiting is false
void HostWake(PKTHREAD pThread);                // under Lock
bool HostStops(PKTHREAD pThread);               // it is suspended, and nothing keeps it from that
void HostStopHere();                            // a place where a suspended thread stops
void HostYield(HostLock& lock, PKTHREAD pSelf); // simulated mode: whoever can may run now
[[noreturn]] void HostLeave(HostLock& lock, PKTHREAD pSelf); // simulated mode: a thread's end
void HostArrived(HostLock& lock);                            // simulated mode: first on a new thread's stack
void HostRunDpcs(); // simulated mode without a seed, below DISPATCH_LEVEL
void HostStartSystemThreads();
bool HostEndSystemThreads(); // false: a thread could not be ended

enum : ULONG { HOST_DRIVER_GONE = 0x40000000 }; // in DRIVER_OBJECT::Flags: it was unloaded

// Says whose code runs, and checks on leaving that it left level and locks as it found them.
class HostDriverScope
{
public:
    HostDriverScope(PDRIVER_OBJECT pDriver, const char* pWhat)
        : pThread(HostSelf()), pBefore(pThread->pDriver), pWhat(pWhat), Irql(pThread->Irql),
          uHeld(pThread->uHeld), mutexes(pThread->Mutexes.size()),
          uCriticalRegions(pThread->uCriticalRegions), pStackTop(pThread->pStackTop)
    {
        if (pDriver != nullptr && (__atomic_load_n(&pDriver->Flags, __ATOMIC_RELAXED) & HOST_DRIVER_GONE)) {
            BugGone(pDriver, pWhat);
        }
        pThread->pDriver = pDriver;
        if (pStackTop == nullptr && pDriver != nullptr) {
            pThread->pStackTop = static_cast<const UCHAR*>(__builtin_frame_address(0));
        }
    }
    ~HostDriverScope()
    {
        pThread->pDriver = pBefore;
        pThread->pStackTop = pStackTop;
        if (__atomic_load_n(&pThread->uOnStack, __ATOMIC_RELAXED) != 0 || pThread->uHeld != uHeld ||
            pThread->Mutexes.size() != mutexes || pThread->uCriticalRegions != uCriticalRegions ||
            pThread->Irql != Irql) {
            CheckLeft();
        }
    }
    HostDriverScope(const HostDriverScope&) = delete;
    HostDriverScope& operator=(const HostDriverScope&) = delete;

private:
    [[noreturn]] static void BugGone(PDRIVER_OBJECT pDriver, const char* pWhat); // verify.cpp
    void CheckLeft();

    PKTHREAD pThread;
    PDRIVER_OBJECT pBefore;
    const char* pWhat;
    KIRQL Irql;
    unsigned uHeld;
    size_t mutexes;
    unsigned uCriticalRegions;
    const UCHAR* pStackTop;
};

// --- the order of locks (order.cpp), all under Lock
void HostNoteOrder(PKTHREAD pSelf, const void* pTaken);
void HostForgetLocks(const void* p, size_t bytes);

// --- dispatcher objects (wait.cpp)
void HostCheckInitialise(const void* pObject, size_t bytes, const char* pCall); // takes Lock
void HostInitHeader(DISPATCHER_HEADER* pHeader, UCHAR ucType, size_t size, LONG lState);
void HostSignal(DISPATCHER_HEADER* pHeader);         // under Lock, SignalState already set
void HostEndWait(PKTHREAD pThread, NTSTATUS status); // under Lock
NTSTATUS HostWait(PVOID* ppObjects, ULONG ulCount, WAIT_TYPE type, KPROCESSOR_MODE mode,
                  PLARGE_INTEGER pTimeout, PKWAIT_BLOCK pBlocks, const char* pCall);
bool HostRetryWait(PKTHREAD pThread); // under Lock: ends the thread's wait if its condition holds
std::string HostDescribeWait(PKTHREAD pThread);

// --- clock, timers, DPCs (timer.cpp, dpc.cpp), all under Lock
LONGLONG HostNow();              // 100 ns since the start
void HostExpire(LONGLONG llNow); // everything due at or before
LONGLONG HostSystemBase();
void HostQueueDpc(PKDPC pDpc, PVOID pArgument1, PVOID pArgument2);
void HostRunOneDpc(HostLock& lock, PKTHREAD pSelf);
void HostDpcThread();
void HostWakeDpcThreads();
void HostTimerThread();

// --- work (work.cpp)
void HostQueueWork(std::function<void()> work, const void* pIdentity, PDRIVER_OBJECT pOwner); // takes Lock
void HostEndWorkers();

// --- memory (pool.cpp)
void* HostAllocate(size_t bytes, const char* pKind, ULONG ulTag, PDRIVER_OBJECT pOwner);
void* HostAllocateBare(size_t bytes, const char* pKind, PDRIVER_OBJECT pOwner); // for who writes all of it
void HostRelease(void* p, const char* pKind);
void HostCheckNoLiveThings(const void* p, size_t bytes, const char* pWhat);
void HostCheckNotPaged(const void* pThing, const char* pCode, const char* pCall);
#if defined(HOST_ASAN)
void HostGuardPaged(bool bGuard);
#else
inline void HostGuardPaged(bool) {} // nobody would see
#endif
[[noreturn]] void HostBugInFreed(const void* pObject, const char* pCall);
enum : UCHAR { HOST_FREED_BYTE = 0xFD };
// An event, timer or DPC that somebody uses must not lie in memory that was freed.
inline void HostCheckNotFreed(const void* pObject, const char* pCall)
{
    const UCHAR* p = static_cast<const UCHAR*>(pObject);
    if (p != nullptr &&
        (HostIsFreed(p) || (p[0] == HOST_FREED_BYTE && p[1] == HOST_FREED_BYTE && p[2] == HOST_FREED_BYTE))) {
        HostBugInFreed(pObject, pCall);
    }
}
bool HostFindUnwritten(const UCHAR* pData, size_t bytes, size_t* pOffset);
void HostFillUnwritten(UCHAR* pData, size_t bytes);
ULONGLONG HostFillOutput(UCHAR* pData, size_t begin, size_t end);
bool HostFindUnwrittenOutput(ULONG ulCode, ULONGLONG ullKey, const UCHAR* pData, size_t begin, size_t end,
                             size_t* pOffset);
extern const UCHAR HostUnwritten[64]; // the pattern, over and over
unsigned HostAuditPool(PDRIVER_OBJECT pDriver);
void HostDropMemory(bool bFree); // frees what is left, or forgets it
extern const char HostPoolKind[];
extern const char HostObjectKind[];
extern const char HostExtensionKind[]; // goes with its device
extern const char HostIrpKind[];

// --- names, devices, requests
struct HostName {
    PDEVICE_OBJECT pDevice; // or null: a link
    HostText Target;
    PDRIVER_OBJECT pOwner;
};
HostText HostCanonicalName(const HostText& name);
NTSTATUS HostLookUpDevice(const HostText& name, PDEVICE_OBJECT* ppDevice, HostText* pRest); // referenced
// IoCallDriver and PoCallDriver; the first does not send power requests.
NTSTATUS HostCallDriver(PDEVICE_OBJECT pDevice, PIRP pIrp, bool bPowerToo);
NTSTATUS HostSendRequest(PDEVICE_OBJECT pTop, const IO_STACK_LOCATION& location, NTSTATUS initial,
                         KPROCESSOR_MODE mode, ULONG_PTR* pInformation);
NTSTATUS HostOpenDevice(const HostText& name, KPROCESSOR_MODE mode, PFILE_OBJECT* ppFile);
void HostCleanupFile(PFILE_OBJECT pFile);
NTSTATUS HostSendControl(PFILE_OBJECT pFile, ULONG ulCode, const void* pIn, ULONG ulIn, void* pOut,
                         ULONG ulOut, ULONG_PTR* pInformation);
void HostCancelRequestOf(PKTHREAD pThread);
unsigned HostAuditRequests(PDRIVER_OBJECT pDriver);
void HostCheckNoRequests(PDEVICE_OBJECT pDevice);                      // a device goes
void HostCheckNoStackObjects(PKTHREAD pThread, const void* pReturned); // a routine's stack goes
unsigned HostAuditNames(PDRIVER_OBJECT pDriver);
unsigned HostAuditPnp(PDRIVER_OBJECT pDriver);
void HostForgetDevice(PDEVICE_OBJECT pDevice); // its properties
void HostCheckPhysical(PDEVICE_OBJECT pDevice, const char* pCall);
bool HostIsAttached(PDEVICE_OBJECT pDevice); // to a device below it
void HostAwaitNotifications(PDRIVER_OBJECT pDriver);
void HostDropPnp();
void HostTargetEvent(PDEVICE_OBJECT pDevice, const GUID& event);

// --- text (string.cpp)
HostText HostTextOf(PCUNICODE_STRING pString);
HostText HostTextOf(const WCHAR* pText);
HostText HostTextOf(const std::string& utf8);
std::string HostUtf8(const HostText& text);
HostText HostUpper(HostText text);
UNICODE_STRING
HostPoolString(const HostText& text); // NUL-terminated, from the driver's pool; Buffer null: failed

// --- registry (registry.cpp, regtext.cpp)
struct HostValue {
    HostText Name;
    ULONG ulType;
    std::vector<UCHAR> Data;
};
struct HostKey {
    HostText Name;
    std::map<HostText, std::unique_ptr<HostKey>> Keys; // by upper-case name
    std::map<HostText, HostValue> Values;
};
HostKey* HostFindKey(const HostText& path, bool bCreate, bool* pbCreated);
void HostParseRegistry(const std::string& text);

#include "state.h"

// --- what is asked so often that it stands here

// True for the call that HostFailNth chose. Calls are counted whether or not one is chosen.
// Lock: takes Lock.
bool HostFailsHeld(const char* pKind);
inline bool HostFailsNow(const char* pKind)
{
    HostLock lock(g->Lock);
    HostFailing& failing = g->Failing;
    if (failing.bAsked || failing.ByKind.empty() || failing.ByKind[0].first != pKind) {
        return HostFailsHeld(pKind);
    }
    failing.ByKind[0].second++;
    failing.uCalls++;
    return false;
}

// Asked by every fallible call; one that fails is told of by its name and by what about() says.
template <typename About> bool HostShouldFail(const char* pKind, const char* pCall, const About& about)
{
    const bool bFails = HostFailsNow(pKind);
    if (bFails) {
        HostTellFailure(pCall, about());
    }
    return bFails;
}
inline bool HostShouldFail(const char* pKind, const char* pCall = __builtin_FUNCTION())
{
    return HostShouldFail(pKind, pCall, [] { return std::string(); });
}

// False: no timer, DPC, work, waiting thread, owned mutex and no lock lies in this memory, as there are none, or none
// in its pages.
// Lock: held.
inline bool HostMayBeKnown(const void* p, size_t bytes)
{
    const size_t page = reinterpret_cast<size_t>(p) / PAGE_SIZE;
    const size_t last = (reinterpret_cast<size_t>(p) + bytes) / PAGE_SIZE;
    return last - page > 1 || g->Orders.PageHasLocks[page % LOCK_PAGES] ||
           g->Orders.PageHasLocks[last % LOCK_PAGES] || g->Threads.objects != 0 || !g->Clock.Due.empty() ||
           !IsListEmpty(&g->Dpcs.Queue) || !g->Dpcs.Running.empty() || !g->Work.Queue.empty();
}
