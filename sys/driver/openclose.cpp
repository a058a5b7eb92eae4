// openclose.cpp - how many handles of the driver are open, and what the last one leaves behind.
//
// In:  create, close and cleanup requests to any device of the driver.
// Out: at the last close everything that the application had set up is released and ClosedEvent is set.
// Runs at PASSIVE_LEVEL in the caller's thread. ControlDeviceMutex makes the change of the count and what
// follows from it one step against other opens and closes and against the control device's deletion.
#include "driver/driver.h"

#include "control/control.h"
#include "hotkeys/hotkeys.h"

// The open of a filter device is waited for: only one that succeeded is counted.
// IRQL = PASSIVE. Fails: as the open was completed.
static NTSTATUS PassCreate(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    if (ControlContextOf(pDevice) != nullptr || !AcquireDevice(pDevice)) {
        return DispatchPassThrough(pDevice, pIrp); // completes it here
    }
    DeviceContext* pContext = FilterContextOf(pDevice);
    NTSTATUS status;
    if (pContext->pLowerDevice == nullptr) {
        status = CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    } else {
        status = ForwardAndWait(pContext, pIrp);
        IoCompleteRequest(pIrp, IO_NO_INCREMENT); // with the information that the lower driver gave
    }
    ReleaseDevice(pDevice);
    return status;
}

// IRQL = PASSIVE. Lock: takes ControlDeviceMutex. Fails: as the open was completed.
NTSTATUS DispatchCreate(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const NTSTATUS status = PassCreate(pDevice, pIrp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KeWaitForSingleObject(&Globals.ControlDeviceMutex, Executive, KernelMode, FALSE, nullptr);
    Globals.usOpenCount++;
    if (Globals.pControlDevice != nullptr) {
        KeClearEvent(&ControlContextOf(Globals.pControlDevice)->ClosedEvent);
    }
    KeReleaseMutex(&Globals.ControlDeviceMutex, FALSE);
    return status;
}

// What the application had set up, released in this order.
// IRQL = PASSIVE, under ControlDeviceMutex.
static void ReleaseApplication(PDEVICE_OBJECT pControlDevice)
{
    FreeAllKeyDefinitions();
    StopAllReportProcessing();
    KeSetEvent(&ControlContextOf(pControlDevice)->ClosedEvent, IO_NO_INCREMENT, FALSE);
    ReleaseAllEvents();
    ReleaseApplicationEvent(pControlDevice);
}

// IRQL = PASSIVE. Lock: takes ControlDeviceMutex. Fails: as the close was completed.
NTSTATUS DispatchClose(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const NTSTATUS status = DispatchPassThrough(pDevice, pIrp);

    KeWaitForSingleObject(&Globals.ControlDeviceMutex, Executive, KernelMode, FALSE, nullptr);
    if (Globals.usOpenCount > 0) {
        Globals.usOpenCount--;
    }
    if (Globals.pControlDevice != nullptr && Globals.usOpenCount == 0) {
        ReleaseApplication(Globals.pControlDevice);
    } else if (Globals.usOpenCount == 0) {
        (void)
            ReleaseMacroEvent(); // registered through a handle that outlived its control device, or not at all
    }
    KeReleaseMutex(&Globals.ControlDeviceMutex, FALSE);
    return status;
}

// IRQL = PASSIVE.
NTSTATUS DispatchCleanup(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return DispatchPassThrough(pDevice, pIrp);
}
