// The HID stack's frame: entry, attaching, Plug and Play, power; everything else is passed down.
//
// START_DEVICE goes down first and is completed here when the keyboard is enumerated and read. Requests of an
// application to the keyboard's device interface arrive here and go down to the drivers below.
#include "device.h"

HidDevice* HidOf(PDEVICE_OBJECT pDevice)
{
    auto pHid = static_cast<HidDevice*>(pDevice->DeviceExtension);
    return pHid->ulTag == HidTag ? pHid : nullptr;
}

bool Enter(HidDevice* pHid)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    bool bOpen = pHid->bOpen != FALSE;
    if (bOpen && pHid->ulBusy++ == 0) {
        KeClearEvent(&pHid->Idle);
    }
    KeReleaseSpinLock(&pHid->Lock, irql);
    return bOpen;
}

VOID Leave(HidDevice* pHid)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pHid->Lock);
    if (--pHid->ulBusy == 0) {
        KeSetEvent(&pHid->Idle, IO_NO_INCREMENT, FALSE);
    }
    KeReleaseSpinLock(&pHid->Lock, irql);
}

static NTSTATUS NTAPI PassDown(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IoSkipCurrentIrpStackLocation(pIrp);
    return IoCallDriver(HidOf(pDevice)->pLower, pIrp);
}

static NTSTATUS NTAPI PassPower(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    PoStartNextPowerIrp(pIrp);
    IoSkipCurrentIrpStackLocation(pIrp);
    return PoCallDriver(HidOf(pDevice)->pLower, pIrp);
}

static NTSTATUS NTAPI StartedBelow(PDEVICE_OBJECT, PIRP, PVOID pContext)
{
    KeSetEvent(static_cast<PKEVENT>(pContext), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Lets the drivers below start and waits for them. IRQL PASSIVE. Fails: with their status.
static NTSTATUS StartBelow(HidDevice* pHid, PIRP pIrp)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(pIrp);
    IoSetCompletionRoutine(pIrp, StartedBelow, &done, TRUE, TRUE, TRUE);
    IoCallDriver(pHid->pLower, pIrp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return pIrp->IoStatus.Status;
}

// A device that is started again without a stop between begins anew.
// IRQL PASSIVE. Fails: with the first step that fails; nothing of this stack is below then.
static NTSTATUS StartHid(HidDevice* pHid, PIRP pIrp)
{
    StopReads(pHid);
    NTSTATUS status = StartBelow(pHid, pIrp);
    if (NT_SUCCESS(status) && !pHid->Options.bNoEnumeration) {
        status = Enumerate(pHid);
    }
    if (NT_SUCCESS(status)) {
        status = StartReads(pHid);
    }
    pIrp->IoStatus.Status = status;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

// IRQL PASSIVE. Owns: the device object goes.
static NTSTATUS RemoveHid(HidDevice* pHid, PIRP pIrp)
{
    pHid->Options.bPatient ? CloseReads(pHid) : StopReads(pHid);
    NTSTATUS status = PassDown(pHid->pSelf, pIrp);
    StopReads(pHid);
    IoDetachDevice(pHid->pLower);
    IoDeleteDevice(pHid->pSelf);
    return status;
}

static NTSTATUS NTAPI HidPnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HidDevice* pHid = HidOf(pDevice);
    switch (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return StartHid(pHid, pIrp);
    case IRP_MN_REMOVE_DEVICE:
        pIrp->IoStatus.Status = STATUS_SUCCESS;
        return RemoveHid(pHid, pIrp);
    case IRP_MN_SURPRISE_REMOVAL: // what the keyboard holds ends when it hears of it; the removal waits
        pIrp->IoStatus.Status = STATUS_SUCCESS;
        pHid->Options.bPatient ? CloseReads(pHid) : CallReadsBack(pHid);
        return PassDown(pDevice, pIrp);
    case IRP_MN_STOP_DEVICE:
        pIrp->IoStatus.Status = STATUS_SUCCESS;
        StopReads(pHid);
        return PassDown(pDevice, pIrp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
        pIrp->IoStatus.Status = STATUS_SUCCESS;
        return PassDown(pDevice, pIrp);
    default:
        return PassDown(pDevice, pIrp);
    }
}

static NTSTATUS NTAPI HidAddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    EmuHidOptions options = {};
    PDEVICE_OBJECT pDevice;
    return EmuHidAttach(pDriver, pPhysical, &options, &pDevice);
}

static VOID NTAPI HidUnload(PDRIVER_OBJECT) {}

NTSTATUS NTAPI EmuHidEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& pRoutine : pDriver->MajorFunction) {
        pRoutine = PassDown;
    }
    pDriver->MajorFunction[IRP_MJ_PNP] = HidPnp;
    pDriver->MajorFunction[IRP_MJ_POWER] = PassPower;
    pDriver->DriverExtension->AddDevice = HidAddDevice;
    pDriver->DriverUnload = HidUnload;
    return STATUS_SUCCESS;
}

NTSTATUS EmuHidAttach(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical, const EmuHidOptions* pOptions,
                      PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (pOptions->ulReads > EmuHidMaximumReads || pOptions->ulPacketBytes > EmuHidMaximumPacket) {
        return STATUS_INVALID_PARAMETER;
    }
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = IoCreateDevice(pDriver, sizeof(HidDevice), nullptr, FILE_DEVICE_KEYBOARD,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto pHid = static_cast<HidDevice*>(pDevice->DeviceExtension);
    RtlZeroMemory(pHid, sizeof *pHid);
    pHid->ulTag = HidTag;
    pHid->pSelf = pDevice;
    pHid->Options = *pOptions;
    if (pHid->Options.ulReads == 0) {
        pHid->Options.ulReads = 1;
    }
    KeInitializeSpinLock(&pHid->Lock);
    KeInitializeEvent(&pHid->Idle, NotificationEvent, TRUE);
    pHid->pLower = IoAttachDeviceToDeviceStack(pDevice, pPhysical);
    if (!pHid->pLower) {
        IoDeleteDevice(pDevice);
        return STATUS_NO_SUCH_DEVICE;
    }
    pDevice->Flags |= pHid->pLower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE);
    pDevice->Flags &= ~DO_DEVICE_INITIALIZING;
    *ppDevice = pDevice;
    return STATUS_SUCCESS;
}
