// arrivals.cpp - which of the three sibling drivers are there.
//
//   counter 0 ── arrival ──▶ 1, work item ── OpenSibling ──▶ connected (the sibling's device opened)
//       ◀── removal at 1 ──── not connected any more         further arrivals and removals only count
//
// In:  arrivals and removals of the siblings' interfaces, while the control device exists.
// Out: ucConnected of the three links. The counters are the driver's, the links the control device's: a new
//      control device starts with no link connected and with the counters as they are.
// The system calls the callbacks at PASSIVE_LEVEL, one at a time for each registration. Undoing a registration does
// not wait for them: one that comes late would be counted although the next registration tells all interfaces anew.
// So each registration carries the number of its generation, and only the newest generation's callbacks count. The
// work routines run in system worker threads and may be late: a link whose interfaces went meanwhile is left alone.
#include "siblings/siblings.h"

#include "siblings/fields.h"

namespace
{
struct Sibling {
    PCWSTR pszDevice;
    SiblingLink ControlContext::*pLink;
    UCHAR SiblingGlobals::*pucArrivals;
};

const Sibling Ps2Keyboard = {L"\\Device\\TvPS2_COMM", &ControlContext::Ps2Keyboard,
                             &SiblingGlobals::ucPs2KeyboardArrivals};
const Sibling Ps2Mouse = {L"\\Device\\TvPS2M_COMM", &ControlContext::Ps2Mouse,
                          &SiblingGlobals::ucPs2MouseArrivals};
const Sibling UsbMouse = {L"\\Device\\TvUSBM_COMM", &ControlContext::UsbMouse,
                          &SiblingGlobals::ucUsbMouseArrivals};

// IRQL = PASSIVE. Lock: takes SiblingLock.
ULONG BeginGeneration()
{
    LockScope lock(GlobalSiblings.SiblingLock);
    return ++GlobalSiblings.ulArrivalGeneration;
}
} // namespace

// The context for the registrations that are made now.
// IRQL = PASSIVE. Lock: takes SiblingLock.
PVOID BeginArrivals()
{
    return reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(BeginGeneration()));
}

// What the registrations that are undone now still tell is late.
// IRQL = PASSIVE. Lock: takes SiblingLock.
void EndArrivals()
{
    (void)BeginGeneration();
}

// The number of a notification GUID of the platform, counted from 1; 0 for any other.
// IRQL any.
ULONG ClassifyPnpEvent(const GUID* pEvent)
{
    static const GUID* const Events[] = {
        &GUID_HWPROFILE_QUERY_CHANGE,         &GUID_HWPROFILE_CHANGE_CANCELLED,
        &GUID_HWPROFILE_CHANGE_COMPLETE,      &GUID_DEVICE_INTERFACE_ARRIVAL,
        &GUID_DEVICE_INTERFACE_REMOVAL,       &GUID_TARGET_DEVICE_QUERY_REMOVE,
        &GUID_TARGET_DEVICE_REMOVE_CANCELLED, &GUID_TARGET_DEVICE_REMOVE_COMPLETE,
    };
    for (ULONG i = 0; i < ARRAYSIZE(Events); i++) {
        if (RtlCompareMemory(pEvent, Events[i], sizeof(GUID)) == sizeof(GUID)) {
            return i + 1;
        }
    }
    return 0;
}

namespace
{
// IRQL = PASSIVE. Lock: takes SiblingLock.
ULONG RemovalsOf(const SiblingLink* pLink)
{
    LockScope lock(GlobalSiblings.SiblingLock);
    return pLink->ulRemovals;
}

// Unless the interfaces that were there when the device was opened have gone meanwhile.
// IRQL = PASSIVE. Lock: takes SiblingLock.
void MarkConnected(const Sibling* pSibling, SiblingLink* pLink, ULONG ulRemovals)
{
    LockScope lock(GlobalSiblings.SiblingLock);
    if (GlobalSiblings.*pSibling->pucArrivals != 0 && pLink->ulRemovals == ulRemovals) {
        WriteShared(pLink->ucConnected, 1);
    }
}

// Opens the sibling's device to see that it answers. From its first line on the next arrival queues anew.
// IRQL = PASSIVE. Owns: frees the link's work item.
void NTAPI OpenSibling(PDEVICE_OBJECT pControlDevice, PVOID pContext)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const Sibling* pSibling = static_cast<const Sibling*>(pContext);
    SiblingLink* pLink = &(ControlContextOf(pControlDevice)->*pSibling->pLink);
    IoFreeWorkItem(ExchangeShared(pLink->pWorkItem, static_cast<PIO_WORKITEM>(nullptr)));
    const ULONG ulRemovals = RemovalsOf(pLink);
    PFILE_OBJECT pFile;
    PDEVICE_OBJECT device;
    if (NT_SUCCESS(OpenNamedDevice(pSibling->pszDevice, &pFile, &device))) {
        ObDereferenceObject(pFile);
        MarkConnected(pSibling, pLink, ulRemovals);
    }
}

// One that is queued already will see this arrival too. Without a work item the link stays down.
// IRQL = PASSIVE. Owns: the work item, until its routine frees it.
void QueueOpen(PDEVICE_OBJECT pControlDevice, const Sibling* pSibling)
{
    SiblingLink* pLink = &(ControlContextOf(pControlDevice)->*pSibling->pLink);
    PIO_WORKITEM pWorkItem = IoAllocateWorkItem(pControlDevice);
    PIO_WORKITEM pQueued = nullptr;
    if (pWorkItem == nullptr) {
        return;
    }
    if (CompareExchangeShared(pLink->pWorkItem, pQueued, pWorkItem)) {
        IoQueueWorkItem(pWorkItem, OpenSibling, DelayedWorkQueue, const_cast<Sibling*>(pSibling));
    } else {
        IoFreeWorkItem(pWorkItem);
    }
}

// Counts first, so that a work routine finds its arrival counted. A late one is passed over.
// IRQL = PASSIVE. Lock: takes SiblingLock.
void CountArrival(PDEVICE_OBJECT pControlDevice, const Sibling* pSibling, ULONG ulGeneration)
{
    UCHAR ucBefore;
    {
        LockScope lock(GlobalSiblings.SiblingLock);
        if (ulGeneration != GlobalSiblings.ulArrivalGeneration) {
            return;
        }
        ucBefore = GlobalSiblings.*pSibling->pucArrivals;
        WriteShared(GlobalSiblings.*pSibling->pucArrivals, ucBefore + 1);
    }
    if (ucBefore == 0 && pControlDevice != nullptr) {
        QueueOpen(pControlDevice, pSibling);
    }
}

// IRQL = PASSIVE. Lock: takes SiblingLock.
void CountRemoval(PDEVICE_OBJECT pControlDevice, const Sibling* pSibling, ULONG ulGeneration)
{
    LockScope lock(GlobalSiblings.SiblingLock);
    if (ulGeneration != GlobalSiblings.ulArrivalGeneration) {
        return;
    }
    const UCHAR ucBefore = GlobalSiblings.*pSibling->pucArrivals;
    WriteShared(GlobalSiblings.*pSibling->pucArrivals, ucBefore - 1);
    if (ucBefore == 1 && pControlDevice != nullptr) {
        SiblingLink* pLink = &(ControlContextOf(pControlDevice)->*pSibling->pLink);
        WriteShared(pLink->ucConnected, 0);
        pLink->ulRemovals++;
    }
}

// IRQL = PASSIVE. Lock: takes KeyboardListLock, then SiblingLock.
NTSTATUS FollowSibling(PVOID pNotification, PVOID pContext, const Sibling* pSibling)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const ULONG ulGeneration = static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(pContext));
    PDEVICE_OBJECT pControlDevice = ReferenceControlDevice();
    switch (ClassifyPnpEvent(&static_cast<DEVICE_INTERFACE_CHANGE_NOTIFICATION*>(pNotification)->Event)) {
    case PNP_INTERFACE_ARRIVAL:
        CountArrival(pControlDevice, pSibling, ulGeneration);
        break;
    case PNP_INTERFACE_REMOVAL:
        CountRemoval(pControlDevice, pSibling, ulGeneration);
        break;
    default:
        break;
    }
    if (pControlDevice != nullptr) {
        ObDereferenceObject(pControlDevice);
    }
    return STATUS_SUCCESS;
}
} // namespace

// IRQL = PASSIVE. Fails: never.
NTSTATUS NTAPI Ps2KeyboardArrival(PVOID pNotification, PVOID pContext)
{
    return FollowSibling(pNotification, pContext, &Ps2Keyboard);
}

// IRQL = PASSIVE. Fails: never.
NTSTATUS NTAPI Ps2MouseArrival(PVOID pNotification, PVOID pContext)
{
    return FollowSibling(pNotification, pContext, &Ps2Mouse);
}

// IRQL = PASSIVE. Fails: never.
NTSTATUS NTAPI UsbMouseArrival(PVOID pNotification, PVOID pContext)
{
    return FollowSibling(pNotification, pContext, &UsbMouse);
}

// At driver entry, on zeroed state. IRQL = PASSIVE.
void InitializeSiblings()
{
    GlobalSiblings.usTypematicRate = 23;
    GlobalSiblings.usTypematicDelay = 1;
    KeInitializeSpinLock(&GlobalSiblings.SiblingLock.Lock);
    KeInitializeEvent(&GlobalSiblings.SiblingRequestsEnd, NotificationEvent, FALSE);
}
