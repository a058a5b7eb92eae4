// openclose.cpp - how many handles of the driver are open, and what the last one leaves behind.
//
//   create ── counted ──▶ completed ── failed ──▶ taken off the count ◀── close
//                                                        │ it was the last
//                                                        ▼
//                                   what the application had set up goes, ClosedEvent is set
//
// An open is counted before it is passed on, so that the count can refuse it: 65,535 are the most.
// Runs at PASSIVE_LEVEL in the caller's thread. ControlDeviceMutex makes the change of the count and what
// follows from it one step against other opens and closes and against the control device's deletion.
#include "driver/driver.h"

#include "control/control.h"
#include "driver/fields.h"
#include "hotkeys/hotkeys.h"

namespace
{
// The open of a filter device is waited for: only one that succeeded is counted.
// IRQL = PASSIVE. Fails: as the open was completed.
NTSTATUS PassCreate(PDEVICE_OBJECT device, PIRP pIrp)
{
    const KeyboardReference keyboard(device);
    if (!keyboard.IsHeld()) {
        return DispatchPassThrough(device, pIrp); // completes it here, as it does the control device's
    }
    if (FieldsOf<FrameFields>(keyboard.Context()).pLowerDevice == nullptr) {
        return CompleteRequest(pIrp, STATUS_UNSUCCESSFUL, 0);
    }
    const NTSTATUS status = ForwardAndWait(keyboard.Context(), pIrp);
    IoCompleteRequest(pIrp, IO_NO_INCREMENT); // with the information that the lower driver gave
    return status;
}

// IRQL = PASSIVE. Lock: takes ControlDeviceMutex. Fails: false, there are as many as can be counted.
bool CountOpen()
{
    MutexScope lock(GlobalRoof.ControlDeviceMutex);
    const bool bRoom = GlobalRoof.usOpenCount != MAXUSHORT;
    if (bRoom) {
        GlobalRoof.usOpenCount++;
    }
    if (bRoom && GlobalFrame.pControlDevice != nullptr) {
        KeClearEvent(&ControlContextOf(GlobalFrame.pControlDevice)->ClosedEvent);
    }
    return bRoom;
}

// What the application had set up, released in this order, whether its control device is still there or not.
// IRQL = PASSIVE, under ControlDeviceMutex.
void ReleaseApplication(PDEVICE_OBJECT pControlDevice) REQUIRES_LOCK(GlobalRoof.ControlDeviceMutex)
{
    FreeAllKeyDefinitions();
    StopAllReportProcessing();
    if (pControlDevice != nullptr) {
        KeSetEvent(&ControlContextOf(pControlDevice)->ClosedEvent, IO_NO_INCREMENT, FALSE);
    }
    ReleaseAllEvents();
    if (pControlDevice != nullptr) {
        ReleaseApplicationEvent(pControlDevice);
    }
}

// IRQL = PASSIVE. Lock: takes ControlDeviceMutex.
void UncountOpen()
{
    MutexScope lock(GlobalRoof.ControlDeviceMutex);
    if (GlobalRoof.usOpenCount > 0) {
        GlobalRoof.usOpenCount--;
    }
    if (GlobalRoof.usOpenCount == 0) {
        ReleaseApplication(GlobalFrame.pControlDevice);
    }
}
} // namespace

// IRQL = PASSIVE. Lock: takes ControlDeviceMutex. Fails: too many are open, or as the open was completed.
NTSTATUS DispatchCreate(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    CriticalRegion region; // it holds the keyboard while those below open
    if (!CountOpen()) {
        return CompleteRequest(pIrp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    const NTSTATUS status = PassCreate(device, pIrp);
    if (!NT_SUCCESS(status)) {
        UncountOpen();
    }
    return status;
}

// IRQL = PASSIVE. Lock: takes ControlDeviceMutex. Fails: as the close was completed.
NTSTATUS DispatchClose(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const NTSTATUS status = DispatchPassThrough(device, pIrp);
    UncountOpen();
    return status;
}

// IRQL = PASSIVE.
NTSTATUS DispatchCleanup(PDEVICE_OBJECT device, PIRP pIrp)
{
    return DispatchPassThrough(device, pIrp);
}
