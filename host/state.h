// state.h - the host's state, a sum of records, each named after the file that owns it and changes it.
//
// All under HostState::Lock but where another lock stands. Included by core.h alone, behind what it is made of.
#pragma once

// thread.cpp
struct HostThreads {
    std::vector<PKTHREAD> All; // that live
    std::vector<std::unique_ptr<HostOsThread>> Os;
    std::vector<PKTHREAD> Adopted;
    std::vector<PKTHREAD> System; // the host's own
    PKTHREAD pMain = nullptr;
    unsigned uStarted = 0;
    size_t objects = 0; // that all threads together wait for or, mutexes, own (wait.cpp)
};

// sched.cpp: simulated mode
struct HostScheduler {
    std::deque<PKTHREAD> Ready;
    std::deque<PKTHREAD> Settling;
    PKTHREAD pEnded = nullptr; // whoever runs next lets it go
    bool bSeeded = false;      // the seed chooses who runs next
    ULONGLONG ullRandom = 0;
    ULONGLONG ullDigest = 0; // of all choices so far
    unsigned uOneIn = 1;     // of so many points, others may run first at one
    ULONGLONG ullSwitches = 0;
};

// timer.cpp
struct HostClock {
    struct DueThing {
        PKTIMER pTimer;
        PKTHREAD pThread;
    };
    LONGLONG llNow = 0; // simulated
    LONGLONG llStart = 0;
    ULONGLONG ullSequence = 0;
    std::map<std::pair<LONGLONG, ULONGLONG>, DueThing> Due;
    std::condition_variable Wake;
};

// dpc.cpp
struct HostDpcs {
    struct RunningDpc {
        PKDPC pDpc;
        PKTHREAD pThread;
        PDRIVER_OBJECT pDriver;
    };
    LIST_ENTRY Queue;
    std::vector<RunningDpc> Running;
    std::vector<PKTHREAD> IdleThreads; // with a seed
    std::condition_variable Wake;
    std::condition_variable Idle;
};

// work.cpp
struct HostWorkers {
    struct Item {
        std::function<void()> Run;
        const void* pIdentity;
        PDRIVER_OBJECT pOwner;
    };
    std::deque<Item> Queue;
    std::vector<PKTHREAD> All;
    std::vector<PKTHREAD> Idle;
    unsigned uBusy = 0;
};

// object.cpp
struct HostLedger {
    struct Entry {
        ULONG_PTR ulHandle; // 0: the place is free
        void* pBody;
        PDRIVER_OBJECT pOwner;
        bool bUser;
        ACCESS_MASK Rights;
    };
    struct Balance {
        long lAll; // what one took, another may give back
        std::map<PDRIVER_OBJECT, long> Drivers;
    };
    std::vector<Entry> Handles = std::vector<Entry>(64); // a power of two, at most half of it open handles
    size_t openHandles = 0;
    ULONG_PTR ulNextHandle = 4;                    // or HostOptions::ulFirstHandle
    std::unordered_map<void*, Balance> References; // what drivers took, by object
};

// order.cpp
enum : size_t { LOCK_PAGES = 1024 };
struct HostOrders {
    std::map<const void*, std::set<const void*>> After; // locks that were taken while the key was held
    std::vector<const void*> Locks;                     // all of them, by their addresses
    bool PageHasLocks[LOCK_PAGES] = {};                 // maybe; by the page's number
};

// irp.cpp
struct HostRequests {
    LIST_ENTRY All;
    std::mutex Lock;                                      // of their steps
    std::vector<std::unique_ptr<struct HostIrp>> Records; // all there are
    struct HostIrp* pSpare = nullptr;                     // those that no request has
};

// registry.cpp
struct HostHives {
    HostKey Root;
    std::string OnDisk; // .reg text as of the last flush; empty: as it was at the start
};

// verify.cpp
struct HostFailing {
    bool bAsked = false; // for any of what follows
    std::string Kind;    // empty: any
    unsigned uNth = 0;
    bool bOn = false;                                     // from then on
    HostText In;                                          // only in this driver
    std::vector<std::pair<const char*, unsigned>> ByKind; // a kind can stand there more than once
    unsigned uCalls = 0;
    std::function<void(const std::string&)> Told;
};

struct HostState {
    HostOptions Options; // driver.cpp: what was asked for, who was loaded
    bool bThreaded = false;
    bool bStopping = false;
    std::vector<struct HostDriver*> Drivers;

    std::mutex Lock;
    HostThreads Threads;
    HostScheduler Sched;
    HostClock Clock;
    HostDpcs Dpcs;
    HostWorkers Work;
    HostLedger Objects;
    HostOrders Orders;
    HostRequests Irps;
    HostHives Hive;
    HostFailing Failing;
    KSPIN_LOCK CancelLock = 0;                                               // lock.cpp
    std::map<HostText, HostName> Names;                                      // device.cpp
    std::map<std::pair<PDEVICE_OBJECT, int>, std::vector<UCHAR>> Properties; // property.cpp
    std::vector<struct FileBody*> OpenFiles;                                 // file.cpp
    std::shared_ptr<struct HostTracing> Tracing;                             // trace.cpp
};

extern HostState* g;
