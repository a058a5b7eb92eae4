// irp.h - what the host keeps beside a request.
//
//   HostIrp | IRP | stack locations 1..n | steps 1..n
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
    ULONG_PTR ulMagic;
    PDRIVER_OBJECT pOwner;
    HostStep* pSteps; // by CurrentLocation
    int iSteps;       // of its stack; the request's own count is written anew when it is reused
    int iLowest;      // the lowest location that was called
    bool b32;
    bool bSystem;   // the system frees it when it is complete
    bool bComplete; // finalised while somebody held it
    unsigned uHolds;
    PIO_STATUS_BLOCK pResult; // written always, unlike UserIosb
    PKTHREAD pRequester;
    ULONG ulMethod;
    ULONG ulOutput;
    ULONG ulInput;
    ULONG ulCode;
    ULONGLONG ullKey; // of its system buffer's unwritten bytes
    bool bOnStack;    // its event or status block lies with the caller, who must outlive it
    LIST_ENTRY Link;  // HostRequests::All
    unsigned uTransitions;
    HostTransition Transitions[TRANSITIONS]; // the last ones, a ring
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

void HostCheckPassedOn(PIRP pIrp, HostIrp* pHost);  // stack.cpp: on a way down
void HostCheckAnswered(PIRP pIrp, HostIrp* pHost);  // stack.cpp: at a completion
bool HostIsPower(PIO_STACK_LOCATION pLocation);     // a power request of which one at a time is under way
HostIrp* HostIrpOf(PIRP pIrp);                      // null for a request in a driver's own memory
HostIrp* HostLiveIrp(PIRP pIrp, const char* pCall); // the same; stops the run if the request is gone
PIRP HostNewIrp(CCHAR stackSize);
void HostNote(HostIrp* pHost, const char* pWhat, PDRIVER_OBJECT pDriver, ULONG_PTR ulValue); // null: nothing
std::string HostHistoryOf(HostIrp* pHost); // its last transitions, a line each
void HostDeleteIrp(HostIrp* pHost);
void HostCopyOut(PIRP pIrp, HostIrp* pHost); // the output to the requester; buffers freed
