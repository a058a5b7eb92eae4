// history.cpp - what happened to each request, and requests that nobody will ever complete.
//
// A request is lost when the driver or device that returned STATUS_PENDING for it goes away before it was
// completed. The last transitions tell how it came there. Any thread, any IRQL.
#include "irp.h"

void HostNotePending(PIRP pIrp)
{
    HostNote(HostIrpOf(pIrp), "marked pending", HostSelf()->pDriver, 0);
}

std::string HostHistoryOf(HostIrp* pHost)
{
    std::string text;
    unsigned uFirst = pHost->uTransitions > TRANSITIONS ? pHost->uTransitions - TRANSITIONS : 0;
    for (unsigned i = uFirst; i < pHost->uTransitions; i++) {
        const HostTransition& one = pHost->Transitions[i % TRANSITIONS];
        char value[40];
        snprintf(value, sizeof(value), " (0x%llx)", one.ulValue);
        text += std::string("\n  ") + one.pWhat + " " +
                (one.pDriver == nullptr ? "the system" : HostUtf8(HostServiceOf(one.pDriver))) + value;
    }
    return text;
}

template <typename Visit> static void ForEachRequest(Visit visit)
{
    for (PLIST_ENTRY pEntry = g->Irps.All.Flink; pEntry != &g->Irps.All; pEntry = pEntry->Flink) {
        visit(CONTAINING_RECORD(pEntry, HostIrp, Link));
    }
}

static bool IsHeld(HostIrp* pHost, PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pDevice)
{
    HostStepLock lock;
    for (int i = 1; i <= pHost->iSteps; i++) {
        const HostStep& step = pHost->pSteps[i];
        if (step.bReturnedPending && (step.pDriver == pDriver || step.pDevice == pDevice)) {
            return true;
        }
    }
    return false;
}

// Tells the requests that a driver made and did not free, and those that it holds although it goes.
// Lock: takes Lock.
unsigned HostAuditRequests(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    HostLock lock(g->Lock);
    ForEachRequest([&](HostIrp* pHost) {
        if (pDriver != nullptr && IsHeld(pHost, pDriver, nullptr)) {
            HostLeak(uLeaks, "request: lost, held by the driver that goes%s", HostHistoryOf(pHost).c_str());
        } else if (pHost->pOwner == pDriver) {
            HostLeak(uLeaks, "request: never freed%s", HostHistoryOf(pHost).c_str());
        }
    });
    return uLeaks;
}

// A device that goes may hold no request.
// Lock: takes Lock.
void HostCheckNoRequests(PDEVICE_OBJECT pDevice)
{
    HostLock lock(g->Lock);
    ForEachRequest([&](HostIrp* pHost) {
        if (IsHeld(pHost, nullptr, pDevice)) {
            HostBug("IRP_LOST", "IoDeleteDevice of a device that holds a request%s",
                    HostHistoryOf(pHost).c_str());
        }
    });
}

// A routine returns: what lay on its stack is gone, so no request may still write there.
// Lock: takes Lock.
void HostCheckNoStackObjects(PKTHREAD pThread, const void* pReturned)
{
    const ULONG_PTR ulEnd = reinterpret_cast<ULONG_PTR>(pReturned);
    const ULONG_PTR ulDepth = 0x20000;
    auto gone = [&](const void* p) {
        ULONG_PTR ul = reinterpret_cast<ULONG_PTR>(p);
        return ul < ulEnd && ul > ulEnd - ulDepth;
    };
    HostLock lock(g->Lock);
    ForEachRequest([&](HostIrp* pHost) {
        PIRP pIrp = pHost->pIrp;
        if (pHost->bOnStack && pIrp->Tail.Overlay.Thread == pThread &&
            (gone(pIrp->UserEvent) || gone(pIrp->UserIosb))) {
            HostBug("IRP_OUTLIVES_STACK",
                    "a routine returned while its event or status block belongs to a request under way%s",
                    HostHistoryOf(pHost).c_str());
        }
    });
}
