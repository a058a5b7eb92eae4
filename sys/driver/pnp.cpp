// pnp.cpp - the Plug and Play life of a keyboard.
//
//   added ── START ──▶ started ── QUERY_REMOVE ──▶ (macros freed) ── REMOVE ──▶ gone
//                         └──── SURPRISE_REMOVAL ──▶ (application told) ── REMOVE ──▶ gone
//
// In:  Plug and Play requests, one at a time for each device, at PASSIVE_LEVEL in system threads.
// Out: the control device and the keyboard's interface come and go with the keyboards.
// Every request but REMOVE holds the device while it is here; REMOVE waits for all who hold it.
#include "driver/driver.h"

#include "control/control.h"
#include "hotkeys/hotkeys.h"
#include "macro/macro.h"
#include "siblings/siblings.h"

enum : LONGLONG { CLOSE_WAIT_100NS = 50000000 }; // 5 seconds

// A property that does not fit leaves the field as it was.
// IRQL = PASSIVE. Lock: takes InterfaceLock.
static void ReadProperty(DeviceContext* pContext, DEVICE_REGISTRY_PROPERTY property,
                         WCHAR (DeviceContext::*pField)[PROPERTY_CHARS])
{
    WCHAR buffer[PROPERTY_CHARS];
    ULONG ulBytes = 0;
    RtlZeroMemory(buffer, sizeof(buffer));
    if (NT_SUCCESS(
            IoGetDeviceProperty(pContext->pPhysicalDevice, property, sizeof(buffer), buffer, &ulBytes))) {
        LockScope lock(pContext->InterfaceLock);
        RtlCopyMemory(pContext->*pField, buffer, sizeof(buffer));
    }
}

// Counts a keyboard as started, once however often it is started.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
static void CountStarted(DeviceContext* pContext)
{
    LockScope lock(Globals.KeyboardListLock);
    if (pContext->ucStarted == 0) {
        pContext->ucStarted = 1;
        Globals.usStartedKeyboards++;
    }
}

// True for the last started keyboard. A keyboard that was not counted takes nothing off.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
static bool UncountStarted(DeviceContext* pContext)
{
    LockScope lock(Globals.KeyboardListLock);
    if (pContext->ucStarted == 0) {
        return false;
    }
    pContext->ucStarted = 0;
    return --Globals.usStartedKeyboards == 0;
}

// IRQL = PASSIVE. Fails: with the lower driver's final status; the keyboard is counted all the same.
static NTSTATUS StartKeyboard(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(pDevice);
    USHORT usUnusedRate = 0;
    USHORT usUnusedDelay = 0;

    ReadProperty(pContext, DevicePropertyDeviceDescription, &DeviceContext::DeviceDescription);
    ReadProperty(pContext, DevicePropertyHardwareID, &DeviceContext::HardwareId);
    ReadProperty(pContext, DevicePropertyPhysicalDeviceObjectName, &DeviceContext::PhysicalDeviceObjectName);
    const NTSTATUS status = ForwardAndWait(pContext, pIrp);
    CompleteRequest(pIrp, status, 0);

    CreateControlDevice(pDevice); // a failed creation is tried again by the next start
    QueryKeyboardTypematic(pContext->ulDeviceIndex, &usUnusedRate, &usUnusedDelay);
    CountStarted(pContext);
    return status;
}

// Tells the application that the last keyboard is gone and gives it time to close the driver.
// IRQL = PASSIVE. Owns: a reference on the control device across the wait.
static void WaitForApplicationClose()
{
    LARGE_INTEGER timeout;
    PDEVICE_OBJECT pControlDevice = ReferenceControlDevice();
    if (pControlDevice == nullptr) {
        return;
    }
    if (SignalApplicationEvent(pControlDevice)) {
        timeout.QuadPart = -CLOSE_WAIT_100NS;
        // closed or not, the removal goes on
        KeWaitForSingleObject(&ControlContextOf(pControlDevice)->ClosedEvent, Executive, KernelMode, FALSE,
                              &timeout);
    }
    ObDereferenceObject(pControlDevice);
}

// IRQL = PASSIVE. Fails: as the device below says.
static NTSTATUS SurpriseRemoveKeyboard(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(pDevice);
    CompleteParkedReads(pDevice);
    if (UncountStarted(pContext)) {
        WaitForApplicationClose();
    }
    return ForwardRequest(pContext, pIrp);
}

// Requests that wait for this keyboard see the removal and return; the next in line is woken by them.
// IRQL = PASSIVE, after RefuseNewReferences.
static void WakeWaiters(DeviceContext* pContext)
{
    KeSetEvent(&pContext->InsertModifierEvent, IO_NO_INCREMENT, FALSE);
    KeSetEvent(&pContext->FifoEvent, IO_NO_INCREMENT, FALSE);
}

// No timer of this keyboard is armed and none of its deferred calls runs afterwards.
// IRQL = PASSIVE.
static void StopTimers(PDEVICE_OBJECT pDevice)
{
    DeviceContext* pContext = FilterContextOf(pDevice);
    CancelTypematicOf(pDevice);
    KeCancelTimer(&pContext->KorvexDelay.Timer);
    KeRemoveQueueDpc(&pContext->KorvexDelay.Dpc);
    KeRemoveQueueDpc(&pContext->TypematicDelay.Dpc);
    KeRemoveQueueDpc(&pContext->TypematicRepeat.Dpc);
    KeFlushQueuedDpcs();
}

// Takes back what the keyboard has here. Whoever still uses it (requests, reads at the keyboard, work items)
// holds a reference and is waited for; only then are its definitions and registrations freed.
// IRQL = PASSIVE. Fails: as the device below says; the filter device is gone in any case.
static NTSTATUS RemoveKeyboard(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(pDevice);
    PDEVICE_OBJECT pLower = pContext->pLowerDevice;

    RefuseNewReferences(pDevice);
    WakeWaiters(pContext);
    CompleteParkedReads(pDevice);
    const NTSTATUS status = ForwardRequest(pContext, pIrp);

    WriteShared(pContext->ucReportProcessing, 0); // by index the device is no longer found
    StopTimers(pDevice);
    WaitForReferences(pDevice);
    StopTimers(pDevice); // a report that was under way may have started them again
    FreeKeyDefinitions(pDevice);
    DropNotifyEvent(pDevice);
    DeleteControlDevice(pDevice);
    UnlinkKeyboard(pDevice);
    IoDetachDevice(pLower);
    IoDeleteDevice(pDevice);
    return status;
}

// The minor functions of a started or starting keyboard. The caller holds the device.
// IRQL = PASSIVE. Fails: with the status that the request was completed with.
static NTSTATUS DispatchHeldPnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    switch (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return StartKeyboard(pDevice, pIrp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        FreeMacroTable();
        return ForwardRequest(FilterContextOf(pDevice), pIrp);
    case IRP_MN_SURPRISE_REMOVAL:
        return SurpriseRemoveKeyboard(pDevice, pIrp);
    default:
        return ForwardRequest(FilterContextOf(pDevice), pIrp);
    }
}

// IRQL = PASSIVE. Fails: nothing below, the device is being removed, or as the device below says.
NTSTATUS DispatchPnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (ControlContextOf(pDevice) != nullptr) {
        return DispatchControlPnp(pDevice, pIrp);
    }
    DeviceContext* pContext = FilterContextOf(pDevice);
    if (pContext == nullptr || pContext->pLowerDevice == nullptr) {
        return CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    }
    if (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        return RemoveKeyboard(pDevice, pIrp);
    }
    const KeyboardReference keyboard(pDevice);
    if (!keyboard.IsHeld()) {
        return CompleteRequest(pIrp, keyboard.Status(), 0);
    }
    return DispatchHeldPnp(pDevice, pIrp);
}
