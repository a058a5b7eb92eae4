// The keyboards' driver: entry, making of keyboards, Plug and Play, power.
//
// A keyboard is a physical device object, the bottom of its stack: it completes what it gets. START_DEVICE
// can be delayed or refused by the keyboard's options. REMOVE_DEVICE deletes the device object; its memory
// stays as long as somebody holds a reference, and then answers that it is gone.
#include "device.h"

// IRQL <= DISPATCH. Owns: nothing. Fails: never; another driver's device stops the run.
KeyboardDevice* KeyboardOf(PDEVICE_OBJECT pDevice)
{
    auto pKeyboard = static_cast<KeyboardDevice*>(pDevice->DeviceExtension);
    if (pKeyboard->ulTag != KeyboardTag) {
        DbgPrint("emu: not a keyboard\n");
        return nullptr;
    }
    return pKeyboard;
}

NTSTATUS CompleteIrp(PIRP pIrp, NTSTATUS Status)
{
    pIrp->IoStatus.Status = Status;
    pIrp->IoStatus.Information = 0;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return Status;
}

// The delay of a start is over. IRQL DISPATCH.
static VOID NTAPI StartDelayOver(PKDPC, PVOID pContext, PVOID, PVOID)
{
    auto pKeyboard = static_cast<KeyboardDevice*>(pContext);
    PIRP pIrp = pKeyboard->pStart;
    pKeyboard->pStart = nullptr;
    CompleteIrp(pIrp, pKeyboard->Options.StartStatus);
}

// IRQL PASSIVE. Fails: with the status that the keyboard's options tell.
static NTSTATUS StartKeyboard(KeyboardDevice* pKeyboard, PIRP pIrp)
{
    if (pKeyboard->Options.ulStartDelayMs == 0) {
        return CompleteIrp(pIrp, pKeyboard->Options.StartStatus);
    }
    LARGE_INTEGER due;
    due.QuadPart = -(LONGLONG)pKeyboard->Options.ulStartDelayMs * 10000;
    IoMarkIrpPending(pIrp);
    pKeyboard->pStart = pIrp;
    KeSetTimer(&pKeyboard->StartTimer, due, &pKeyboard->StartDpc);
    return STATUS_PENDING;
}

// Takes the keyboard apart: no DPC runs and no read waits when the device object goes.
// IRQL PASSIVE. Owns: frees the kept reports.
static NTSTATUS RemoveKeyboard(KeyboardDevice* pKeyboard, PIRP pIrp)
{
    MarkGone(pKeyboard);
    PurgeReads(pKeyboard, STATUS_DELETE_PENDING);
    PurgeHeld(pKeyboard);
    KeCancelTimer(&pKeyboard->AnswerTimer);
    KeRemoveQueueDpc(&pKeyboard->AnswerDpc);
    KeRemoveQueueDpc(&pKeyboard->DeliverDpc);
    KeFlushQueuedDpcs();
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    PUCHAR pKept = pKeyboard->pKept;
    pKeyboard->pKept = nullptr;
    pKeyboard->ulKept = 0;
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    ExFreePoolWithTag(pKept, KeyboardTag);
    IoDeleteDevice(pKeyboard->pSelf);
    return CompleteIrp(pIrp, STATUS_SUCCESS);
}

static NTSTATUS NTAPI KeyboardPnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    KeyboardDevice* pKeyboard = KeyboardOf(pDevice);
    switch (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return StartKeyboard(pKeyboard, pIrp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
        return CompleteIrp(pIrp, STATUS_SUCCESS);
    case IRP_MN_SURPRISE_REMOVAL:
        MarkGone(pKeyboard);
        PurgeReads(pKeyboard, STATUS_DELETE_PENDING);
        PurgeHeld(pKeyboard);
        return CompleteIrp(pIrp, STATUS_SUCCESS);
    case IRP_MN_REMOVE_DEVICE:
        return RemoveKeyboard(pKeyboard, pIrp);
    default: // the bottom of a stack leaves the status of what it does not know
        return CompleteIrp(pIrp, pIrp->IoStatus.Status);
    }
}

static NTSTATUS NTAPI KeyboardPower(PDEVICE_OBJECT, PIRP pIrp)
{
    UCHAR ucMinor = IoGetCurrentIrpStackLocation(pIrp)->MinorFunction;
    bool bKnown = ucMinor == IRP_MN_SET_POWER || ucMinor == IRP_MN_QUERY_POWER;
    PoStartNextPowerIrp(pIrp);
    return CompleteIrp(pIrp, bKnown ? STATUS_SUCCESS : pIrp->IoStatus.Status);
}

static NTSTATUS NTAPI KeyboardInternalControl(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    if (pLocation->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB) {
        return CompleteIrp(pIrp, STATUS_INVALID_DEVICE_REQUEST);
    }
    return SubmitUrb(KeyboardOf(pDevice), pIrp);
}

static NTSTATUS NTAPI KeyboardSucceed(PDEVICE_OBJECT, PIRP pIrp)
{
    return CompleteIrp(pIrp, STATUS_SUCCESS);
}

static NTSTATUS NTAPI KeyboardRefuse(PDEVICE_OBJECT, PIRP pIrp)
{
    return CompleteIrp(pIrp, STATUS_INVALID_DEVICE_REQUEST);
}

static VOID NTAPI KeyboardUnload(PDRIVER_OBJECT) {}

NTSTATUS NTAPI EmuKeyboardEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& pRoutine : pDriver->MajorFunction) {
        pRoutine = KeyboardRefuse;
    }
    pDriver->MajorFunction[IRP_MJ_CREATE] = KeyboardSucceed;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = KeyboardSucceed;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = KeyboardSucceed;
    pDriver->MajorFunction[IRP_MJ_PNP] = KeyboardPnp;
    pDriver->MajorFunction[IRP_MJ_POWER] = KeyboardPower;
    pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = KeyboardInternalControl;
    pDriver->DriverUnload = KeyboardUnload;
    return STATUS_SUCCESS;
}

NTSTATUS EmuCreateKeyboard(PDRIVER_OBJECT pDriver, const EmuDescriptors* pDescriptors,
                           const EmuKeyboardOptions* pOptions, PDEVICE_OBJECT* ppPhysical)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    auto pKept = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, KeptBytes, KeyboardTag));
    if (!pKept) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = IoCreateDevice(pDriver, sizeof(KeyboardDevice), nullptr, FILE_DEVICE_KEYBOARD,
                                     FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(pKept, KeyboardTag);
        return status;
    }
    auto pKeyboard = static_cast<KeyboardDevice*>(pDevice->DeviceExtension);
    RtlZeroMemory(pKeyboard, sizeof *pKeyboard);
    pKeyboard->ulTag = KeyboardTag;
    pKeyboard->pSelf = pDevice;
    pKeyboard->pDescriptors = pDescriptors;
    pKeyboard->Options = *pOptions;
    pKeyboard->pKept = pKept;
    KeInitializeSpinLock(&pKeyboard->Lock);
    InitializeListHead(&pKeyboard->Waiting);
    InitializeListHead(&pKeyboard->Held);
    KeInitializeDpc(&pKeyboard->DeliverDpc, DeliverDpc, pKeyboard);
    KeInitializeTimer(&pKeyboard->AnswerTimer);
    KeInitializeDpc(&pKeyboard->AnswerDpc, AnswerDpc, pKeyboard);
    KeInitializeTimer(&pKeyboard->StartTimer);
    KeInitializeDpc(&pKeyboard->StartDpc, StartDelayOver, pKeyboard);
    pDevice->Flags |= DO_BUFFERED_IO | DO_BUS_ENUMERATED_DEVICE | DO_POWER_PAGABLE;
    pDevice->Flags &= ~DO_DEVICE_INITIALIZING;
    *ppPhysical = pDevice;
    return STATUS_SUCCESS;
}
