// add.cpp - add-device: a keyboard's stack gets the filter on top of it.
//
// In:  the physical device of a keyboard's stack.
// Out: a filter device whose record is complete before the first request can reach it: locks, events and
//      timers are ready before the device is attached, its kind is written last.
// Runs at PASSIVE_LEVEL in a system thread. The section is guarded by ErrorCount; a failure within it leaves
// the count raised.
#include "driver/driver.h"

#include "hotkeys/hotkeys.h"
#include "macro/macro.h"

enum : ULONG { LOWER_FLAGS = DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE };

// IRQL = PASSIVE.
static void InitializeTimer(TimerWithDpc* pTimer, PKDEFERRED_ROUTINE pRoutine, PDEVICE_OBJECT pDevice)
{
    KeInitializeTimer(&pTimer->Timer);
    KeInitializeDpc(&pTimer->Dpc, pRoutine, pDevice);
}

// IRQL = PASSIVE, nobody else knows the record yet.
static void InitializeLocks(DeviceContext* pContext)
{
    KeInitializeSpinLock(&pContext->InterfaceLock.Lock);
    KeInitializeSpinLock(&pContext->PendingIrpLock.Lock);
    KeInitializeSpinLock(&pContext->AnswerLock.Lock);
    KeInitializeSpinLock(&pContext->DiscardLock.Lock);
    KeInitializeSpinLock(&pContext->KeyDefLock.Lock);
    KeInitializeSpinLock(&pContext->TypematicLock.Lock);
    KeInitializeSpinLock(&pContext->BufferLock.Lock);
    KeInitializeSpinLock(&pContext->FifoLock.Lock);
    KeInitializeSpinLock(&pContext->ParkLock.Lock);
    KeInitializeSpinLock(&pContext->NotifyLock.Lock);
    KeInitializeMutex(&pContext->DefinitionMutex.Object, 0);
    KeInitializeMutex(&pContext->LedMutex.Object, 0);
}

// Everything of the record that does not depend on the device below.
// IRQL = PASSIVE, nobody else knows the record yet.
static void InitializeContext(PDEVICE_OBJECT pDevice, PDEVICE_OBJECT pPhysicalDevice)
{
    DeviceContext* pContext = static_cast<DeviceContext*>(pDevice->DeviceExtension);
    RtlZeroMemory(pContext, sizeof(*pContext));
    pContext->pPhysicalDevice = pPhysicalDevice;
    pContext->ulDeviceIndex = Globals.ulNextDeviceIndex;
    pContext->ucSendUpEventImmediately = Settings.ulSendUpEventImmediately != 0;
    pContext->ucRunDiagNormalPacket02 = Settings.ulRunDiagNormalPacket02 != 0;
    pContext->lReferences = 1;

    InitializeLocks(pContext);
    InitializeHotkeys(pContext);
    KeInitializeEvent(&pContext->ReferencesGone, NotificationEvent, FALSE);
    KeInitializeEvent(&pContext->InsertModifierEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&pContext->InsertScansTurn, SynchronizationEvent, TRUE);
    KeInitializeEvent(&pContext->FifoEvent, SynchronizationEvent, FALSE);
    InitializeTimer(&pContext->KorvexDelay, KorvexDelayCallback, pDevice);
    InitializeTimer(&pContext->TypematicDelay, TypematicDelayCallback, pDevice);
    InitializeTimer(&pContext->TypematicRepeat, TypematicRepeatCallback, pDevice);
}

// IRQL = PASSIVE.
static DEVICE_TYPE TypeOfStack(PDEVICE_OBJECT pPhysicalDevice)
{
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pPhysicalDevice);
    const DEVICE_TYPE type = pTop->DeviceType;
    ObDereferenceObject(pTop);
    return type;
}

// The index is used up only by a device that was attached; it is never given out again.
// IRQL = PASSIVE. Fails: nothing to attach to.
static NTSTATUS AttachFilter(PDEVICE_OBJECT pDevice, PDEVICE_OBJECT pPhysicalDevice)
{
    DeviceContext* pContext = static_cast<DeviceContext*>(pDevice->DeviceExtension);
    PDEVICE_OBJECT pLower = IoAttachDeviceToDeviceStack(pDevice, pPhysicalDevice);
    if (pLower == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    pContext->pLowerDevice = pLower;
    Globals.ulNextDeviceIndex++;
    pDevice->Flags |= pLower->Flags & LOWER_FLAGS;
    pDevice->Characteristics = pLower->Characteristics;
    pDevice->DeviceType = pLower->DeviceType;
    return STATUS_SUCCESS;
}

// IRQL = PASSIVE. Fails: ErrorCount refuses, no device object, nothing to attach to; nothing is left
// attached.
NTSTATUS AddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysicalDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    PDEVICE_OBJECT pDevice = nullptr;
    UCHAR ucUnused;

    UpdateErrorCount(ErrorCountCheck, &Globals.ucRefuseAttach);
    if (Globals.ucRefuseAttach == 1) {
        return STATUS_UNSUCCESSFUL;
    }
    UpdateErrorCount(ErrorCountEnter, &ucUnused);
    NTSTATUS status = IoCreateDevice(pDriver, sizeof(DeviceContext), nullptr, TypeOfStack(pPhysicalDevice),
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    InitializeContext(pDevice, pPhysicalDevice);
    status = AttachFilter(pDevice, pPhysicalDevice);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(pDevice);
        return status;
    }

    WriteShared(static_cast<DeviceContext*>(pDevice->DeviceExtension)->ulDeviceKind, FILTER_DEVICE_KIND);
    PublishKeyboard(pDevice);
    UpdateErrorCount(ErrorCountLeave, &ucUnused);
    pDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}
