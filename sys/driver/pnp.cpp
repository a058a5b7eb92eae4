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
#include "control/fields.h"
#include "driver/fields.h"
#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "hotkeys/hotkeys.h"
#include "macro/macro.h"
#include "macro/parkedfields.h"
#include "siblings/siblings.h"

enum : LONGLONG { CLOSE_WAIT_100NS = 50000000 }; // 5 seconds

// A property that does not fit leaves the field as it was.
// IRQL = PASSIVE. Lock: takes InterfaceLock.
static void ReadProperty(FrameFields& frame, DEVICE_REGISTRY_PROPERTY property,
                         WCHAR (FrameFields::*pField)[PROPERTY_CHARS])
{
    WCHAR buffer[PROPERTY_CHARS];
    ULONG ulBytes = 0;
    RtlZeroMemory(buffer, sizeof(buffer));
    if (NT_SUCCESS(IoGetDeviceProperty(frame.pPhysicalDevice, property, sizeof(buffer), buffer, &ulBytes))) {
        LockScope lock(frame.InterfaceLock);
        RtlCopyMemory(frame.*pField, buffer, sizeof(buffer));
    }
}

// Counts a keyboard as started, once however often it is started.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
static void CountStarted(DeviceContext* pContext)
{
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    LockScope lock(GlobalFrame.KeyboardListLock);
    if (roof.ucStarted == 0) {
        roof.ucStarted = 1;
        GlobalRoof.usStartedKeyboards++;
    }
}

// True for the last started keyboard. A keyboard that was not counted takes nothing off.
// IRQL = PASSIVE. Lock: takes KeyboardListLock.
static bool UncountStarted(DeviceContext* pContext)
{
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    LockScope lock(GlobalFrame.KeyboardListLock);
    if (roof.ucStarted == 0) {
        return false;
    }
    roof.ucStarted = 0;
    return --GlobalRoof.usStartedKeyboards == 0;
}

// IRQL = PASSIVE. Fails: with the lower driver's final status; the keyboard is counted all the same.
static NTSTATUS StartKeyboard(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(pDevice);
    USHORT usUnusedRate = 0;
    USHORT usUnusedDelay = 0;

    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    ReadProperty(frame, DevicePropertyDeviceDescription, &FrameFields::DeviceDescription);
    ReadProperty(frame, DevicePropertyHardwareID, &FrameFields::HardwareId);
    ReadProperty(frame, DevicePropertyPhysicalDeviceObjectName, &FrameFields::PhysicalDeviceObjectName);
    const NTSTATUS status = ForwardAndWait(pContext, pIrp);
    CompleteRequest(pIrp, status, 0);

    CreateControlDevice(pDevice); // a failed creation is tried again by the next start
    QueryKeyboardTypematic(IndexOf(pDevice), &usUnusedRate, &usUnusedDelay);
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

// No timer of this keyboard is armed and none of its deferred calls runs afterwards.
// IRQL = PASSIVE.
static void StopTimers(PDEVICE_OBJECT pDevice)
{
    StopTypematic(pDevice);
    StopKorvexDelay(pDevice);
    KeFlushQueuedDpcs();
}

// Takes back what the keyboard has here. Whoever still uses it (requests, reads at the keyboard, work items)
// holds a reference and is waited for; only then are its definitions and registrations freed.
// IRQL = PASSIVE. Fails: as the device below says; the filter device is gone in any case.
static NTSTATUS RemoveKeyboard(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(pDevice);
    PDEVICE_OBJECT pLower = FieldsOf<FrameFields>(pContext).pLowerDevice;

    RefuseNewReferences(pDevice);
    WakeInsertScans(pContext);
    WakeInsertUSBPackets(pContext);
    CompleteParkedReads(pDevice);
    const NTSTATUS status = ForwardRequest(pContext, pIrp);

    EndReportProcessing(pContext); // by index the device is no longer found
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
    if (IsControlDevice(pDevice)) {
        return DispatchControlPnp(pDevice, pIrp);
    }
    if (!IsFilterDevice(pDevice) || FieldsOf<FrameFields>(pDevice).pLowerDevice == nullptr) {
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
