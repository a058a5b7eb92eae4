// add.cpp - add-device: a keyboard's stack gets the filter on top of it.
//
// In:  the physical device of a keyboard's stack.
// Out: a filter device whose record is complete before the first request can reach it: locks, events and
//      timers are ready before the device is attached, its kind is written last.
// Runs at PASSIVE_LEVEL in a system thread. The section is guarded by ErrorCount; a failure within it leaves
// the count raised.
#include "driver/driver.h"

#include "control/notification.h"
#include "driver/context.h"
#include "driver/fields.h"
#include "hotkeys/hotkeys.h"
#include "macro/macro.h"
#include "report/report.h"
#include "usb/usb.h"

namespace
{
enum : ULONG { LOWER_FLAGS = DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE };

// Everything of the record that does not depend on the device below; each room makes ready what is its own.
// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeContext(PDEVICE_OBJECT device, PDEVICE_OBJECT pPhysicalDevice)
{
    DeviceContext* pContext = static_cast<DeviceContext*>(device->DeviceExtension);
    RtlZeroMemory(pContext, sizeof(*pContext));
    InitializeFrame(pContext, pPhysicalDevice, GlobalRoof.ulNextDeviceIndex);
    InitializePendingReads(pContext);
    InitializeDiscard(pContext);
    InitializeKeyBuffers(pContext);
    InitializeInsertScans(pContext);
    InitializeFifo(pContext);
    InitializeParkedReads(pContext);
    InitializeNotifyQueue(pContext);
    InitializeDefinitions(pContext);
    InitializeHotkeys(pContext);
    InitializeReports(pContext);
    InitializeTypematic(device, pContext);
    InitializePlayback(device, pContext);
    InitializeKorvexLed(pContext);
    InitializeAnswers(pContext);
}

// IRQL = PASSIVE.
DEVICE_TYPE TypeOfStack(PDEVICE_OBJECT pPhysicalDevice)
{
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pPhysicalDevice);
    const DEVICE_TYPE type = pTop->DeviceType;
    ObDereferenceObject(pTop);
    return type;
}

// The index is used up only by a device that was attached; it is never given out again.
// IRQL = PASSIVE. Fails: nothing to attach to.
NTSTATUS AttachFilter(PDEVICE_OBJECT device, PDEVICE_OBJECT pPhysicalDevice)
{
    FrameFields& frame = FieldsOf<FrameFields>(static_cast<DeviceContext*>(device->DeviceExtension));
    PDEVICE_OBJECT pLower = IoAttachDeviceToDeviceStack(device, pPhysicalDevice);
    if (pLower == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    frame.pLowerDevice = pLower;
    GlobalRoof.ulNextDeviceIndex++;
    device->Flags |= pLower->Flags & LOWER_FLAGS;
    device->Characteristics = pLower->Characteristics;
    device->DeviceType = pLower->DeviceType;
    return STATUS_SUCCESS;
}
} // namespace

// IRQL = PASSIVE. Fails: ErrorCount refuses, no device object, nothing to attach to; nothing is left
// attached.
NTSTATUS AddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysicalDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    PDEVICE_OBJECT device = nullptr;
    UCHAR ucUnused;

    UpdateErrorCount(ErrorCountCheck, &GlobalRoof.ucRefuseAttach);
    if (GlobalRoof.ucRefuseAttach == 1) {
        return STATUS_UNSUCCESSFUL;
    }
    UpdateErrorCount(ErrorCountEnter, &ucUnused);
    NTSTATUS status = IoCreateDevice(pDriver, sizeof(DeviceContext), nullptr, TypeOfStack(pPhysicalDevice),
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    InitializeContext(device, pPhysicalDevice);
    status = AttachFilter(device, pPhysicalDevice);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(device);
        return status;
    }

    WriteShared(static_cast<DeviceContext*>(device->DeviceExtension)->ulDeviceKind, FILTER_DEVICE_KIND);
    PublishKeyboard(device);
    UpdateErrorCount(ErrorCountLeave, &ucUnused);
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}
