// irp.cpp - requests: their memory, their way down, their way up, cancelling.
//
//   HostIrp | IRP | stack locations 1..n | steps 1..n
//
// For each stack location a step remembers the call that is under way in it. So the host can compare what
// a dispatch routine returned with what the request did: STATUS_PENDING and the pending mark belong together,
// any other status means that the request was completed before the return.
#include "core.h"

enum : ULONG_PTR { IRP_MAGIC = 0x2174736575716572, IRP_GONE = 0x656e6f672d707269 };
enum : UCHAR { TRACKED = 0x80 };
static const char IrpKind[] = "request";

// One dispatch call under way; lives on the stack of IofCallDriver.
struct CallFrame {
    CallFrame* pBefore; // an outer call in the same location (the driver skipped its own)
    bool bCompleted;
    bool bMarked;
};

struct Step {
    CallFrame* pFrame;
    bool bReturnedPending;
};

struct HostIrp {
    ULONG_PTR ulMagic;
    PDRIVER_OBJECT pOwner;
    Step* pSteps; // by CurrentLocation
    bool b32;
    bool bSystem;   // the system frees it when it is complete
    bool bComplete; // finalised while somebody held it
    unsigned uHolds;
    PIO_STATUS_BLOCK pResult; // written always, unlike UserIosb
    PKTHREAD pRequester;
    ULONG ulMethod;
    ULONG ulOutput;
};

static HostIrp* Find(PIRP pIrp)
{
    if (!(pIrp->AllocationFlags & TRACKED)) {
        return nullptr;
    }
    return reinterpret_cast<HostIrp*>(pIrp) - 1;
}

// The request's record; a request that is gone was completed before.
static HostIrp* FindLive(PIRP pIrp, const char* pCall)
{
    HostIrp* pHost = reinterpret_cast<HostIrp*>(pIrp) - 1;
    if (HostIsFreed(pIrp) || pIrp->AllocationFlags == 0xFD ||
        ((pIrp->AllocationFlags & TRACKED) && pHost->ulMagic != IRP_MAGIC)) {
        HostBug("MULTIPLE_IRP_COMPLETE_REQUESTS", "%s on a request that was completed or freed before",
                pCall);
    }
    return Find(pIrp);
}

class StepLock
{
public:
    StepLock()
    {
        if (g->bThreaded) {
            g->IrpLock.lock();
        }
    }
    ~StepLock()
    {
        if (g->bThreaded) {
            g->IrpLock.unlock();
        }
    }
};

static void ResetIrp(PIRP pIrp, CCHAR stackSize)
{
    UCHAR ucFlags = pIrp->AllocationFlags & TRACKED;
    memset(static_cast<void*>(pIrp), 0, IoSizeOfIrp(stackSize));
    pIrp->Type = 6;
    pIrp->Size = IoSizeOfIrp(stackSize);
    pIrp->StackCount = stackSize;
    pIrp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    pIrp->AllocationFlags = ucFlags;
    InitializeListHead(&pIrp->ThreadListEntry);
    pIrp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(pIrp + 1) + stackSize;
}

static PIRP NewIrp(CCHAR stackSize)
{
    size_t steps = static_cast<size_t>(stackSize) + 1;
    size_t irpSize = IoSizeOfIrp(stackSize);
    PKTHREAD pSelf = HostSelf();
    HostIrp* pHost = static_cast<HostIrp*>(
        HostAllocate(sizeof(HostIrp) + irpSize + steps * sizeof(Step), IrpKind, 0, pSelf->pDriver));
    *pHost = {};
    pHost->ulMagic = IRP_MAGIC;
    pHost->pOwner = pSelf->pDriver;
    pHost->b32 = pSelf->b32;
    PIRP pIrp = reinterpret_cast<PIRP>(pHost + 1);
    pIrp->AllocationFlags = TRACKED;
    ResetIrp(pIrp, stackSize);
    pIrp->Tail.Overlay.Thread = pSelf;
    pHost->pSteps = reinterpret_cast<Step*>(reinterpret_cast<UCHAR*>(pIrp) + irpSize);
    memset(pHost->pSteps, 0, steps * sizeof(Step));
    return pIrp;
}

static void DeleteIrp(HostIrp* pHost)
{
    pHost->ulMagic = IRP_GONE;
    HostRelease(pHost, IrpKind);
}

PIRP IoAllocateIrp(CCHAR stackSize, BOOLEAN)
{
    HostRequireIrql(__func__, DISPATCH_LEVEL);
    if (HostShouldFail("irp")) {
        return nullptr;
    }
    return NewIrp(stackSize);
}

static void CheckIdle(PIRP pIrp, const char* pCall)
{
    if (pIrp->CurrentLocation != pIrp->StackCount + 1 && pIrp->CurrentLocation != pIrp->StackCount) {
        // A driver may have given itself the top location.
        HostBug("IRP_FREED_IN_USE", "%s on a request that drivers still work on", pCall);
    }
    HostIrp* pHost = Find(pIrp);
    for (int i = 1; pHost != nullptr && i <= pIrp->StackCount; i++) {
        if (pHost->pSteps[i].bReturnedPending) {
            HostBug("IRP_FREED_IN_USE", "%s on a request that a driver still holds", pCall);
        }
    }
}

void IoFreeIrp(PIRP pIrp)
{
    HostRequireIrql(__func__, DISPATCH_LEVEL);
    HostIrp* pHost = FindLive(pIrp, __func__);
    if (pHost == nullptr || pHost->bSystem) {
        HostBug("IRP_FREED_BY_OTHER", "IoFreeIrp of a request that IoAllocateIrp did not give");
    }
    CheckIdle(pIrp, __func__);
    DeleteIrp(pHost);
}

void IoInitializeIrp(PIRP pIrp, USHORT, CCHAR stackSize)
{
    pIrp->AllocationFlags = 0;
    ResetIrp(pIrp, stackSize);
}

void IoReuseIrp(PIRP pIrp, NTSTATUS status)
{
    FindLive(pIrp, __func__);
    CheckIdle(pIrp, __func__);
    PKTHREAD pThread = pIrp->Tail.Overlay.Thread;
    ResetIrp(pIrp, pIrp->StackCount);
    pIrp->Tail.Overlay.Thread = pThread;
    pIrp->IoStatus.Status = status;
}

BOOLEAN IoIs32bitProcess(PIRP pIrp)
{
    HostIrp* pHost = pIrp == nullptr ? nullptr : Find(pIrp);
    return pHost != nullptr ? pHost->b32 : HostSelf()->b32;
}

// --- down

[[noreturn]] static void __attribute__((noinline))
BugOnReturn(UCHAR ucMajor, NTSTATUS status, bool bCompleted)
{
    if (!bCompleted) {
        HostBug("IRP_LOST",
                "dispatch of major 0x%02x returned 0x%08x, but the request was neither completed nor kept "
                "pending",
                ucMajor, static_cast<unsigned>(status));
    }
    HostBug("IRP_PENDING_MISMATCH",
            "dispatch of major 0x%02x returned 0x%08x, the pending mark says otherwise", ucMajor,
            static_cast<unsigned>(status));
}

static void __attribute__((noinline)) CheckCall(PDEVICE_OBJECT pDevice, PIRP pIrp, PKTHREAD pSelf)
{
    if (pSelf->Irql > DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "IoCallDriver called at IRQL %u", pSelf->Irql);
    }
    if (pSelf->uHeld != 0) {
        HostBug("IRP_UNDER_SPIN_LOCK", "IoCallDriver while the thread holds a spin lock");
    }
    HostObjectOf(pDevice, "IoCallDriver");
    UCHAR ucMajor = IoGetNextIrpStackLocation(pIrp)->MajorFunction;
    if (pIrp->CurrentLocation <= 1) {
        HostBug("NO_MORE_IRP_STACK_LOCATIONS", "IoCallDriver on a request whose locations are used up");
    }
    if (pIrp->CancelRoutine != nullptr) {
        HostBug("DRIVER_LEFT_CANCEL_ROUTINE", "IoCallDriver on a request with a cancel routine set");
    }
    if (ucMajor > IRP_MJ_MAXIMUM_FUNCTION) {
        HostBug("INVALID_MAJOR_FUNCTION", "IoCallDriver with major 0x%02x", ucMajor);
    }
    if (pSelf->Irql != PASSIVE_LEVEL &&
        (ucMajor == IRP_MJ_PNP || ucMajor == IRP_MJ_CREATE || ucMajor == IRP_MJ_CLOSE)) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "a request of major 0x%02x is sent at IRQL %u", ucMajor,
                pSelf->Irql);
    }
}

// Makes the next location the current one and calls the device's driver.
// IRQL <= DISPATCH. Lock: none held.
NTSTATUS IofCallDriver(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    HostIrp* pHost = FindLive(pIrp, "IoCallDriver");
    CheckCall(pDevice, pIrp, HostSelf());
    IoSetNextIrpStackLocation(pIrp);
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    UCHAR ucMajor = pLocation->MajorFunction;
    pLocation->DeviceObject = pDevice;
    Step* pStep = pHost == nullptr ? nullptr : &pHost->pSteps[static_cast<int>(pIrp->CurrentLocation)];
    CallFrame frame = {nullptr, false, false};
    if (pStep != nullptr) {
        StepLock lock;
        frame.pBefore = pStep->pFrame;
        pStep->pFrame = &frame;
    }
    NTSTATUS status;
    {
        HostDriverScope scope(pDevice->DriverObject, "a dispatch routine");
        status = pDevice->DriverObject->MajorFunction[ucMajor](pDevice, pIrp);
    }
    if (pStep == nullptr) {
        return status;
    }
    StepLock lock;
    if (frame.bCompleted) {
        if ((status == STATUS_PENDING) != frame.bMarked) {
            BugOnReturn(ucMajor, status, true);
        }
    } else if (status == STATUS_PENDING) {
        pStep->pFrame = frame.pBefore;
        pStep->bReturnedPending = true;
    } else {
        BugOnReturn(ucMajor, status, false);
    }
    return status;
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return IofCallDriver(pDevice, pIrp);
}

void PoStartNextPowerIrp(PIRP)
{
    HostRequireIrql(__func__, DISPATCH_LEVEL);
}

// --- up

// The request leaves a location: what its dispatch routine returned, or will return, must agree.
static void __attribute__((noinline)) RetireStep(Step* pStep, bool bMarked)
{
    StepLock lock;
    for (CallFrame* pFrame = pStep->pFrame; pFrame != nullptr; pFrame = pFrame->pBefore) {
        pFrame->bCompleted = true;
        pFrame->bMarked = bMarked;
    }
    if (pStep->bReturnedPending && !bMarked) {
        HostBug("IRP_PENDING_MISMATCH",
                "a dispatch routine returned STATUS_PENDING, but the request was not marked");
    }
    *pStep = {nullptr, false};
}

static void __attribute__((noinline)) CheckCompletion(PIRP pIrp, HostIrp*, PKTHREAD pSelf)
{
    if (pSelf->Irql > DISPATCH_LEVEL) {
        HostBug("IRQL_NOT_LESS_OR_EQUAL", "IoCompleteRequest called at IRQL %u", pSelf->Irql);
    }
    if (pSelf->uHeld != 0) {
        HostBug("IRP_UNDER_SPIN_LOCK", "IoCompleteRequest while the thread holds a spin lock");
    }
    if (pIrp->CurrentLocation > pIrp->StackCount + 1 || pIrp->CurrentLocation < 1) {
        HostBug("MULTIPLE_IRP_COMPLETE_REQUESTS", "IoCompleteRequest on a request that was completed before");
    }
    if (pIrp->IoStatus.Status == STATUS_PENDING) {
        HostBug("IRP_COMPLETED_PENDING", "IoCompleteRequest with the status STATUS_PENDING");
    }
    if (pIrp->CancelRoutine != nullptr) {
        HostBug("DRIVER_LEFT_CANCEL_ROUTINE", "IoCompleteRequest on a request with a cancel routine set");
    }
    if (pIrp->CurrentLocation <= pIrp->StackCount && pSelf->pDriver != nullptr) {
        PDEVICE_OBJECT pDevice = IoGetCurrentIrpStackLocation(pIrp)->DeviceObject;
        if (pDevice != nullptr && pDevice->DriverObject != pSelf->pDriver) {
            HostBug("MULTIPLE_IRP_COMPLETE_REQUESTS",
                    "IoCompleteRequest by a driver that no longer holds the request");
        }
    }
}

static bool Wants(PIRP pIrp, UCHAR ucControl)
{
    if (pIrp->Cancel && (ucControl & SL_INVOKE_ON_CANCEL)) {
        return true;
    }
    return ucControl & (NT_SUCCESS(pIrp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR);
}

static NTSTATUS Notify(PIRP pIrp, HostIrp* pHost, PIO_COMPLETION_ROUTINE pRoutine, PVOID pContext)
{
    bool bTop = pIrp->CurrentLocation > pIrp->StackCount;
    PDEVICE_OBJECT pDevice = bTop ? nullptr : IoGetCurrentIrpStackLocation(pIrp)->DeviceObject;
    HostDriverScope scope(pDevice != nullptr ? pDevice->DriverObject
                          : pHost != nullptr ? pHost->pOwner
                                             : nullptr,
                          "a completion routine");
    return pRoutine(pDevice, pIrp, pContext);
}

static void __attribute__((noinline)) CopyOut(PIRP pIrp, HostIrp* pHost)
{
    ULONG_PTR ulBytes = pIrp->IoStatus.Information;
    bool bError = NT_ERROR(pIrp->IoStatus.Status);
    if (!bError && pHost->ulMethod != METHOD_NEITHER && ulBytes > pHost->ulOutput) {
        HostBug("IRP_INFORMATION_BEYOND_OUTPUT", "completed with Information %llu, the output has %u bytes",
                ulBytes, pHost->ulOutput);
    }
    if (pHost->ulMethod == METHOD_BUFFERED && !bError && ulBytes != 0 && pIrp->UserBuffer != nullptr) {
        size_t offset;
        const UCHAR* pData = static_cast<const UCHAR*>(pIrp->AssociatedIrp.SystemBuffer);
        if (HostFindUnwritten(pData, ulBytes, &offset)) {
            HostBug("UNINITIALISED_OUTPUT", "the output holds memory that nobody wrote, at byte %zu of %llu",
                    offset, ulBytes);
        }
        memcpy(pIrp->UserBuffer, pData, ulBytes);
    }
    if (pIrp->AssociatedIrp.SystemBuffer != nullptr && pHost->ulMethod != METHOD_NEITHER) {
        HostRelease(pIrp->AssociatedIrp.SystemBuffer, IrpKind);
    }
    if (pIrp->MdlAddress != nullptr) {
        IoFreeMdl(pIrp->MdlAddress);
    }
}

// The request has left its last location: the system takes it back, unless its maker was to.
static void __attribute__((noinline)) Finish(PIRP pIrp, HostIrp* pHost)
{
    if (pHost == nullptr || !pHost->bSystem) {
        HostBug("IRP_NOT_RECLAIMED",
                "a request of IoAllocateIrp went up to its end: no completion routine took it");
    }
    CopyOut(pIrp, pHost);
    IO_STATUS_BLOCK result = pIrp->IoStatus;
    PIO_STATUS_BLOCK pUser = NT_ERROR(result.Status) && !pIrp->PendingReturned ? nullptr : pIrp->UserIosb;
    PKEVENT pEvent = pUser != nullptr || pHost->pResult != nullptr ? pIrp->UserEvent : nullptr;
    PIO_STATUS_BLOCK pAlways = pHost->pResult;
    bool bHeld;
    {
        HostLock lock(g->Lock);
        if (pHost->pRequester != nullptr) {
            pHost->pRequester->pRequest = nullptr;
        }
        pHost->bComplete = true;
        bHeld = pHost->uHolds != 0;
    }
    if (!bHeld) {
        DeleteIrp(pHost);
    }
    if (pUser != nullptr) {
        *pUser = result;
    }
    if (pAlways != nullptr) {
        *pAlways = result;
    }
    if (pEvent != nullptr) {
        KeSetEvent(pEvent, IO_NO_INCREMENT, FALSE);
    }
}

// Takes the request up, location by location, until a completion routine keeps it or it has left the last.
// IRQL <= DISPATCH. Lock: none held.
void IofCompleteRequest(PIRP pIrp, CCHAR)
{
    HostIrp* pHost = FindLive(pIrp, "IoCompleteRequest");
    CheckCompletion(pIrp, pHost, HostSelf());
    while (pIrp->CurrentLocation <= pIrp->StackCount) {
        PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
        UCHAR ucControl = pLocation->Control;
        PIO_COMPLETION_ROUTINE pRoutine = pLocation->CompletionRoutine;
        bool bMarked = ucControl & SL_PENDING_RETURNED;
        pIrp->PendingReturned = bMarked;
        if (pHost != nullptr) {
            RetireStep(&pHost->pSteps[static_cast<int>(pIrp->CurrentLocation)], bMarked);
        }
        pLocation->Control = 0;
        pLocation->CompletionRoutine = nullptr;
        IoSkipCurrentIrpStackLocation(pIrp);
        if (pRoutine != nullptr && Wants(pIrp, ucControl)) {
            if (Notify(pIrp, pHost, pRoutine, pLocation->Context) == STATUS_MORE_PROCESSING_REQUIRED) {
                return;
            }
        } else if (bMarked && pIrp->CurrentLocation <= pIrp->StackCount) {
            IoMarkIrpPending(pIrp);
        }
    }
    Finish(pIrp, pHost);
}

// --- requests of the system

PIRP IoBuildDeviceIoControlRequest(ULONG ulCode, PDEVICE_OBJECT pDevice, PVOID pInput, ULONG ulInput,
                                   PVOID pOutput, ULONG ulOutput, BOOLEAN bInternal, PKEVENT pEvent,
                                   PIO_STATUS_BLOCK pStatus)
{
    HostRequireIrql(__func__, PASSIVE_LEVEL);
    HostObjectOf(pDevice, __func__);
    if (HostShouldFail("irp")) {
        return nullptr;
    }
    PIRP pIrp = NewIrp(pDevice->StackSize);
    HostIrp* pHost = Find(pIrp);
    pHost->bSystem = true;
    pHost->ulMethod = METHOD_FROM_CTL_CODE(ulCode);
    pHost->ulOutput = ulOutput;
    pIrp->UserIosb = pStatus;
    pIrp->UserEvent = pEvent;
    pIrp->UserBuffer = pOutput;
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = bInternal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.OutputBufferLength = ulOutput;
    pNext->Parameters.DeviceIoControl.InputBufferLength = ulInput;
    pNext->Parameters.DeviceIoControl.IoControlCode = ulCode;
    if (pHost->ulMethod == METHOD_NEITHER) {
        pNext->Parameters.DeviceIoControl.Type3InputBuffer = pInput;
        return pIrp;
    }
    bool bBuffered = pHost->ulMethod == METHOD_BUFFERED;
    ULONG ulBuffer = bBuffered && ulOutput > ulInput ? ulOutput : ulInput;
    if (ulBuffer != 0) {
        pIrp->AssociatedIrp.SystemBuffer = HostAllocate(ulBuffer, IrpKind, 0, nullptr);
        if (ulInput != 0) {
            memcpy(pIrp->AssociatedIrp.SystemBuffer, pInput, ulInput);
        }
    }
    if (!bBuffered && ulOutput != 0) {
        PMDL pMdl = IoAllocateMdl(pOutput, ulOutput, FALSE, FALSE, pIrp);
        if (pMdl == nullptr) {
            CopyOut(pIrp, pHost);
            DeleteIrp(pHost);
            return nullptr;
        }
        pMdl->MdlFlags |= MDL_PAGES_LOCKED;
    }
    return pIrp;
}

static NTSTATUS SendAndWait(PDEVICE_OBJECT pTop, PIRP pIrp, ULONG_PTR* pInformation)
{
    KEVENT done;
    IO_STATUS_BLOCK result = {};
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    HostIrp* pHost = Find(pIrp);
    PKTHREAD pSelf = HostSelf();
    pHost->pResult = &result;
    pIrp->UserEvent = &done;
    {
        HostLock lock(g->Lock);
        pHost->pRequester = pSelf;
        pSelf->pRequest = pIrp;
    }
    if (IofCallDriver(pTop, pIrp) == STATUS_PENDING && pSelf->bTerminating) {
        HostCancelRequestOf(pSelf);
    }
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    if (pInformation != nullptr) {
        *pInformation = result.Information;
    }
    return result.Status;
}

// Sends a request of the system to the top of a stack and waits for its completion.
// IRQL: PASSIVE_LEVEL.
NTSTATUS HostSendRequest(PDEVICE_OBJECT pTop, const IO_STACK_LOCATION& location, NTSTATUS initial,
                         KPROCESSOR_MODE mode, ULONG_PTR* pInformation)
{
    PIRP pIrp = NewIrp(pTop->StackSize);
    HostIrp* pHost = Find(pIrp);
    pHost->bSystem = true;
    pHost->ulMethod = METHOD_NEITHER;
    pIrp->RequestorMode = mode;
    pIrp->IoStatus.Status = initial;
    pIrp->Tail.Overlay.OriginalFileObject = location.FileObject;
    *IoGetNextIrpStackLocation(pIrp) = location;
    return SendAndWait(pTop, pIrp, pInformation);
}

NTSTATUS HostSendControl(PFILE_OBJECT pFile, ULONG ulCode, const void* pIn, ULONG ulIn, void* pOut,
                         ULONG ulOut, ULONG_PTR* pInformation)
{
    PDEVICE_OBJECT pTop = IoGetAttachedDevice(pFile->DeviceObject);
    PIRP pIrp = IoBuildDeviceIoControlRequest(ulCode, pTop, const_cast<void*>(pIn), ulIn, pOut, ulOut, FALSE,
                                              nullptr, nullptr);
    if (pIrp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pIrp->RequestorMode = UserMode;
    pIrp->Tail.Overlay.OriginalFileObject = pFile;
    IoGetNextIrpStackLocation(pIrp)->FileObject = pFile;
    return SendAndWait(pTop, pIrp, pInformation);
}

// --- cancelling

PDRIVER_CANCEL IoSetCancelRoutine(PIRP pIrp, PDRIVER_CANCEL pRoutine)
{
    return __atomic_exchange_n(&pIrp->CancelRoutine, pRoutine, __ATOMIC_SEQ_CST);
}

// Marks the request cancelled and calls its cancel routine, which must give the cancel lock back.
// IRQL <= DISPATCH. Lock: takes the cancel lock.
BOOLEAN IoCancelIrp(PIRP pIrp)
{
    HostRequireIrql(__func__, DISPATCH_LEVEL);
    FindLive(pIrp, __func__);
    if (pIrp->CurrentLocation > pIrp->StackCount + 1) {
        HostBug("CANCEL_STATE_IN_COMPLETED_IRP", "IoCancelIrp on a request that was completed before");
    }
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    __atomic_store_n(&pIrp->Cancel, TRUE, __ATOMIC_SEQ_CST);
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
        pHost = Find(pIrp);
        pHost->uHolds++;
    }
    IoCancelIrp(pIrp);
    bool bDelete;
    {
        HostLock lock(g->Lock);
        bDelete = --pHost->uHolds == 0 && pHost->bComplete;
    }
    if (bDelete) {
        DeleteIrp(pHost);
    }
}
