// irp.h - what the host keeps beside a request.
//
//   a block of the pool            HostIrpHead | IRP | stack locations 1..n | steps 1..n
//                                      │
//   apart, where no driver has memory  └► HostIrp, used again and again
//
// For each stack location a step remembers the call that is under way in it. So the host can compare what
// a dispatch routine returned with what the request did: STATUS_PENDING and the pending mark belong together,
// any other status means that the request was completed before the return, with that status.
#pragma once

#include "core.h"

enum : ULONG_PTR { IRP_MAGIC = 0x2174736575716572, IRP_GONE = 0x656e6f672d707269 };
enum : UCHAR { TRACKED = 0x80 };
extern const char HostIrpKind[];
extern const char HostIrpBufferKind[];

// One dispatch call under way; lives on the stack of IofCallDriver.
struct HostCallFrame {
    HostCallFrame* pBefore; // an outer call in the same location (the driver skipped its own)
    bool bCompleted;
    bool bMarked;
    NTSTATUS Status; // that the request left the location with
};

struct HostStep {
    HostCallFrame* pFrame;
    bool bReturnedPending;
    PDEVICE_OBJECT pDevice; // who was called last in this location
    PDRIVER_OBJECT pDriver;
    PIO_COMPLETION_ROUTINE pRoutine; // the location's, when it was called
    bool bNextPower;                 // its driver called PoStartNextPowerIrp
};

// Something that happened to a request, by whose code, with a status, a function or a level.
struct HostTransition {
    const char* pWhat;
    PDRIVER_OBJECT pDriver;
    ULONG_PTR ulValue;
};
enum { TRANSITIONS = 32 };

struct HostIrp {
    PIRP pIrp;
    PDRIVER_OBJECT pOwner;
    HostStep* pSteps; // by CurrentLocation
    int iSteps;       // of its stack; the request's own count is written anew when it is reused
    int iLowest;      // the lowest location that was called
    LIST_ENTRY Link;  // HostRequests::All
    HostIrp* pNext;   // of HostRequests::pSpare
    bool b32;

    // 0 in a new one, to the end of this stretch
    bool bSystem;   // the system frees it when it is complete
    bool bComplete; // finalised while somebody held it
    bool bOnStack;  // its event or status block lies with the caller, who must outlive it
    unsigned uHolds;
    PIO_STATUS_BLOCK pResult; // written always, unlike UserIosb
    PKTHREAD pRequester;
    ULONG ulMethod;
    ULONG ulOutput;
    ULONG ulInput;
    ULONG ulCode;
    ULONGLONG ullKey; // of its system buffer's unwritten bytes
    unsigned uTransitions;

    HostTransition Transitions[TRANSITIONS]; // the last ones, a ring
};

struct HostIrpHead {
    ULONG_PTR ulMagic;
    HostIrp* pHost;
};

class HostStepLock
{
public:
    HostStepLock()
    {
        if (HostRunsFreely) {
            g->Irps.Lock.lock();
        }
    }
    ~HostStepLock()
    {
        if (HostRunsFreely) {
            g->Irps.Lock.unlock();
        }
    }
};

void HostCheckPassedOn(PIRP pIrp, HostIrp* pHost); // stack.cpp: on a way down
void HostCheckAnswered(PIRP pIrp, HostIrp* pHost); // stack.cpp: at a completion
bool HostIsPower(PIO_STACK_LOCATION pLocation);    // a power request of which one at a time is under way
[[noreturn]] void HostBugGone(const char* pCall);  // irp.cpp: on a request that is gone
PIRP HostNewIrp(CCHAR stackSize);
std::string HostHistoryOf(HostIrp* pHost); // its last transitions, a line each
void HostDeleteIrp(HostIrp* pHost);
void HostCopyOut(PIRP pIrp, HostIrp* pHost); // the output to the requester; buffers freed

inline HostIrpHead* HostHeadOf(PIRP pIrp)
{
    return reinterpret_cast<HostIrpHead*>(pIrp) - 1;
}

// Null for a request in a driver's own memory.
inline HostIrp* HostIrpOf(PIRP pIrp)
{
    return pIrp->AllocationFlags & TRACKED ? HostHeadOf(pIrp)->pHost : nullptr;
}

// The same; a request that is gone was completed before, and stops the run.
inline HostIrp* HostLiveIrp(PIRP pIrp, const char* pCall)
{
    if (HostIsFreed(pIrp) || pIrp->AllocationFlags == HOST_FREED_BYTE ||
        ((pIrp->AllocationFlags & TRACKED) && HostHeadOf(pIrp)->ulMagic != IRP_MAGIC)) {
        HostBugGone(pCall);
    }
    return HostIrpOf(pIrp);
}

// Of a request in a driver's own memory nothing is noted.
inline void HostNote(HostIrp* pHost, const char* pWhat, PDRIVER_OBJECT pDriver, ULONG_PTR ulValue)
{
    if (pHost != nullptr) {
        const unsigned uNext = HostAdd(&pHost->uTransitions, 1u) - 1;
        pHost->Transitions[uNext % TRANSITIONS] = {pWhat, pDriver, ulValue};
    }
}
