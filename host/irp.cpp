// irp.cpp - requests: their memory, and cancelling them.
#include "irp.h"

const char HostIrpKind[] = "request";
const char HostIrpBufferKind[] = "request buffer";

void HostBugGone(const char* pCall)
{
    HostBug("MULTIPLE_IRP_COMPLETE_REQUESTS", "%s on a request that was completed or freed before", pCall);
}

// What of a request is not zero.
static void SetUp(PIRP pIrp, CCHAR stackSize, UCHAR ucFlags)
{
    pIrp->Type = 6;
    pIrp->Size = IoSizeOfIrp(stackSize);
    pIrp->StackCount = stackSize;
    pIrp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    pIrp->AllocationFlags = ucFlags;
    InitializeListHead(&pIrp->ThreadListEntry);
    pIrp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(pIrp + 1) + stackSize;
}

// A record that nothing is known of yet.
// Lock: held.
static HostIrp* TakeRecord()
{
    HostIrp* pHost = g->Irps.pSpare;
    if (pHost == nullptr) {
        g->Irps.Records.push_back(std::make_unique<HostIrp>());
        return g->Irps.Records.back().get();
    }
    ASAN_UNPOISON_MEMORY_REGION(pHost, sizeof(*pHost));
    g->Irps.pSpare = pHost->pNext;
    enum : size_t { ZERO = offsetof(HostIrp, bSystem), ZERO_END = offsetof(HostIrp, Transitions) };
    memset(reinterpret_cast<UCHAR*>(pHost) + ZERO, 0, ZERO_END - ZERO);
    return pHost;
}

// Lock: held.
static void GiveRecord(HostIrp* pHost)
{
    pHost->pNext = g->Irps.pSpare;
    g->Irps.pSpare = pHost;
    ASAN_POISON_MEMORY_REGION(pHost, sizeof(*pHost));
}

PIRP HostNewIrp(CCHAR stackSize)
{
    const size_t irpSize = IoSizeOfIrp(stackSize);
    const size_t bytes =
        sizeof(HostIrpHead) + irpSize + (static_cast<size_t>(stackSize) + 1) * sizeof(HostStep);
    PKTHREAD pSelf = HostSelf();
    HostIrpHead* pHead = static_cast<HostIrpHead*>(HostAllocateBare(bytes, HostIrpKind, pSelf->pDriver));
    memset(static_cast<void*>(pHead), 0, bytes);
    PIRP pIrp = reinterpret_cast<PIRP>(pHead + 1);
    SetUp(pIrp, stackSize, TRACKED);
    pIrp->Tail.Overlay.Thread = pSelf;
    HostLock lock(g->Lock);
    HostIrp* pHost = TakeRecord();
    *pHead = {IRP_MAGIC, pHost};
    pHost->pIrp = pIrp;
    pHost->pOwner = pSelf->pDriver;
    pHost->b32 = pSelf->b32;
    pHost->pSteps = reinterpret_cast<HostStep*>(reinterpret_cast<UCHAR*>(pIrp) + irpSize);
    pHost->iSteps = stackSize;
    pHost->iLowest = stackSize + 1;
    HostNote(pHost, "made", pSelf->pDriver, static_cast<ULONG_PTR>(stackSize));
    InsertTailList(&g->Irps.All, &pHost->Link);
    return pIrp;
}

void HostDeleteIrp(HostIrp* pHost)
{
    HostIrpHead* pHead = HostHeadOf(pHost->pIrp);
    pHead->ulMagic = IRP_GONE;
    if (pHost->bOnStack) { // built, never sent
        HostAdd(&pHost->pIrp->Tail.Overlay.Thread->uOnStack, -1u);
    }
    {
        HostLock lock(g->Lock);
        RemoveEntryList(&pHost->Link);
        GiveRecord(pHost);
    }
    HostRelease(pHead, HostIrpKind);
}

PIRP IoAllocateIrp(CCHAR stackSize, BOOLEAN)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    if (HostShouldFail("irp")) {
        return nullptr;
    }
    return HostNewIrp(stackSize);
}

static void CheckIdle(PIRP pIrp, const char* pCall)
{
    if (pIrp->CurrentLocation != pIrp->StackCount + 1 && pIrp->CurrentLocation != pIrp->StackCount) {
        // A driver may have given itself the top location.
        HostBug("IRP_FREED_IN_USE", "%s on a request that drivers still work on", pCall);
    }
    HostIrp* pHost = HostIrpOf(pIrp);
    for (int i = 1; pHost != nullptr && i <= pIrp->StackCount; i++) {
        if (pHost->pSteps[i].bReturnedPending) {
            HostBug("IRP_FREED_IN_USE", "%s on a request that a driver still holds", pCall);
        }
    }
}

void IoFreeIrp(PIRP pIrp)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostIrp* pHost = HostLiveIrp(pIrp, __func__);
    if (pHost == nullptr || pHost->bSystem) {
        HostBug("IRP_FREED_BY_OTHER", "IoFreeIrp of a request that IoAllocateIrp did not give");
    }
    CheckIdle(pIrp, __func__);
    HostDeleteIrp(pHost);
}

void IoReuseIrp(PIRP pIrp, NTSTATUS status)
{
    HostIrp* pHost = HostLiveIrp(pIrp, __func__);
    CheckIdle(pIrp, __func__);
    if (pHost != nullptr) {
        pHost->iLowest = pIrp->StackCount + 1;
    }
    PKTHREAD pThread = pIrp->Tail.Overlay.Thread;
    const UCHAR ucFlags = pIrp->AllocationFlags & TRACKED;
    const CCHAR stackSize = pIrp->StackCount;
    memset(static_cast<void*>(pIrp), 0, IoSizeOfIrp(stackSize));
    SetUp(pIrp, stackSize, ucFlags);
    pIrp->Tail.Overlay.Thread = pThread;
    pIrp->IoStatus.Status = status;
}

BOOLEAN IoIs32bitProcess(PIRP pIrp)
{
    HostIrp* pHost = pIrp == nullptr ? nullptr : HostIrpOf(pIrp);
    return pHost != nullptr ? pHost->b32 : HostSelf()->b32;
}

PDRIVER_CANCEL IoSetCancelRoutine(PIRP pIrp, PDRIVER_CANCEL pRoutine)
{
    SCHEDULE_POINT();
    return HostExchange(&pIrp->CancelRoutine, pRoutine);
}

// Marks the request cancelled and calls its cancel routine, which must give the cancel lock back.
// IRQL <= DISPATCH. Lock: takes the cancel lock.
BOOLEAN IoCancelIrp(PIRP pIrp)
{
    HostEnter(__func__, DISPATCH_LEVEL);
    HostLiveIrp(pIrp, __func__);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    __atomic_store_n(&pIrp->Cancel, TRUE, __ATOMIC_SEQ_CST);
    HostNote(HostIrpOf(pIrp), "cancel asked", HostSelf()->pDriver, pIrp->CancelIrql);
    PDRIVER_CANCEL pRoutine = IoSetCancelRoutine(pIrp, nullptr);
    if (pRoutine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    pIrp->CancelIrql = irql;
    PDEVICE_OBJECT pDevice =
        pIrp->CurrentLocation > pIrp->StackCount ? nullptr : IoGetCurrentIrpStackLocation(pIrp)->DeviceObject;
    PKTHREAD pSelf = HostSelf();
    PDRIVER_OBJECT pBefore = pSelf->pDriver;
    pSelf->pDriver = pDevice != nullptr ? pDevice->DriverObject : pBefore;
    pRoutine(pDevice, pIrp);
    pSelf->pDriver = pBefore;
    if (pSelf->uHeld != 0 || pSelf->Irql != irql) {
        HostBug("CANCEL_LOCK_HELD_ON_RETURN", "a cancel routine returned at IRQL %u with %u locks held",
                pSelf->Irql, pSelf->uHeld);
    }
    return TRUE;
}

// Cancels the request that a thread of an application waits for.
// Lock: takes Lock.
void HostCancelRequestOf(PKTHREAD pThread)
{
    HostIrp* pHost;
    PIRP pIrp;
    {
        HostLock lock(g->Lock);
        pIrp = pThread->pRequest;
        if (pIrp == nullptr) {
            return;
        }
        pHost = HostIrpOf(pIrp);
        pHost->uHolds++;
    }
    IoCancelIrp(pIrp);
    bool bDelete;
    {
        HostLock lock(g->Lock);
        bDelete = --pHost->uHolds == 0 && pHost->bComplete;
    }
    if (bDelete) {
        HostDeleteIrp(pHost);
    }
}
