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
#include "driver/fields.h"
#include "hotkeys/hotkeys.h"
#include "macro/macro.h"
#include "siblings/siblings.h"

namespace
{
enum : LONGLONG { CLOSE_WAIT_100NS = 50000000 }; // 5 seconds

// A property that does not fit leaves the field as it was.
// IRQL = PASSIVE. Lock: takes InterfaceLock.
void ReadProperty(FrameFields& frame, DEVICE_REGISTRY_PROPERTY property,
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
void CountStarted(DeviceContext* pContext)
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
bool UncountStarted(DeviceContext* pContext)
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
NTSTATUS StartKeyboard(PDEVICE_OBJECT device, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(device);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    USHORT usUnusedRate = 0;
    USHORT usUnusedDelay = 0;

    ReadProperty(frame, DevicePropertyDeviceDescription, &FrameFields::DeviceDescription);
    ReadProperty(frame, DevicePropertyHardwareID, &FrameFields::HardwareId);
    ReadProperty(frame, DevicePropertyPhysicalDeviceObjectName, &FrameFields::PhysicalDeviceObjectName);
    const NTSTATUS status = ForwardAndWait(pContext, pIrp);
    CompleteRequest(pIrp, status, 0);

    CreateControlDevice(device); // a failed creation is tried again by the next start
    QueryKeyboardTypematic(IndexOf(device), &usUnusedRate, &usUnusedDelay);
    CountStarted(pContext);
    return status;
}

// Tells the application that the last keyboard is gone and gives it time to close the driver.
// IRQL = PASSIVE. Owns: a reference on the control device across the wait.
void WaitForApplicationClose()
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
NTSTATUS SurpriseRemoveKeyboard(PDEVICE_OBJECT device, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(device);
    CompleteParkedReads(device);
    if (UncountStarted(pContext)) {
        WaitForApplicationClose();
    }
    return ForwardRequest(pContext, pIrp);
}

// No timer of this keyboard is armed and none of its deferred calls runs afterwards.
// IRQL = PASSIVE.
void StopTimers(PDEVICE_OBJECT device)
{
    StopTypematic(device);
    StopKorvexDelay(device);
    KeFlushQueuedDpcs();
}

// Takes back what the keyboard has here. Whoever still uses it (requests, reads at the keyboard, work items)
// holds a reference and is waited for; only then are its definitions and registrations freed.
// IRQL = PASSIVE. Fails: as the device below says; the filter device is gone in any case.
NTSTATUS RemoveKeyboard(PDEVICE_OBJECT device, PIRP pIrp)
{
    DeviceContext* pContext = FilterContextOf(device);
    PDEVICE_OBJECT pLower = FieldsOf<FrameFields>(pContext).pLowerDevice;

    RefuseNewReferences(device);
    WakeInsertScans(pContext);
    WakeInsertUSBPackets(pContext);
    CompleteParkedReads(device);
    const NTSTATUS status = ForwardRequest(pContext, pIrp);

    EndReportProcessing(pContext); // by index the device is no longer found
    StopTimers(device);
    WaitForReferences(device);
    StopTimers(device); // a report that was under way may have started them again
    FreeKeyDefinitions(device);
    DropNotifyEvent(device);
    DeleteControlDevice(device);
    UnlinkKeyboard(device);
    IoDetachDevice(pLower);
    IoDeleteDevice(device);
    return status;
}

// The minor functions of a started or starting keyboard. The caller holds the device.
// IRQL = PASSIVE. Fails: with the status that the request was completed with.
NTSTATUS DispatchHeldPnp(PDEVICE_OBJECT device, PIRP pIrp)
{
    switch (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return StartKeyboard(device, pIrp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        FreeMacroTable();
        return ForwardRequest(FilterContextOf(device), pIrp);
    case IRP_MN_SURPRISE_REMOVAL:
        return SurpriseRemoveKeyboard(device, pIrp);
    default:
        return ForwardRequest(FilterContextOf(device), pIrp);
    }
}
} // namespace

// IRQL = PASSIVE. Fails: nothing below, the device is being removed, or as the device below says.
NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (IsControlDevice(device)) {
        return DispatchControlPnp(device, pIrp);
    }
    if (!IsFilterDevice(device) || FieldsOf<FrameFields>(device).pLowerDevice == nullptr) {
        return CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    }
    if (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        return RemoveKeyboard(device, pIrp);
    }
    const KeyboardReference keyboard(device);
    if (!keyboard.IsHeld()) {
        return CompleteRequest(pIrp, keyboard.Status(), 0);
    }
    return DispatchHeldPnp(device, pIrp);
}
