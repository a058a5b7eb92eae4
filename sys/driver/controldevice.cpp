// controldevice.cpp - the device that applications open.
//
// The control device exists while at least one keyboard is counted: the start that finds none creates it,
// the removal that finds one deletes it. With it live the registrations for the sibling drivers' arrivals.
//
//   pControlDevice   changed under ControlDeviceMutex and KeyboardListLock, so that ReferenceControlDevice
//                    needs the spin lock only
//
// Runs at PASSIVE_LEVEL in Plug and Play threads. ControlDeviceMutex makes creation, deletion, open and close
// come one after the other; the arrival callbacks must not take it: the system may call them while it registers and
// unregisters, which happens under it, and also afterwards.
// Applications cannot open the device before its initialising flag is cleared.
#include "driver/driver.h"

#include "control/control.h"
#include "driver/fields.h"
#include "siblings/siblings.h"

namespace
{
const GUID Ps2KeyboardClass = {0x8E4A2D17, 0xC3B9, 0x4E52, {0xA7, 0xF1, 0x0B, 0x96, 0xD5, 0xE3, 0xC2, 0x84}};
const GUID Ps2MouseClass = {0x5C19E7A3, 0x62F4, 0x4B8D, {0x9E, 0x07, 0xA1, 0xC3, 0xF8, 0x5D, 0x2B, 0x96}};
const GUID UsbMouseClass = {0xE7D3B846, 0x1F2A, 0x4C95, {0xB6, 0xE8, 0x3A, 0x5C, 0x07, 0xF9, 0x1D, 0x42}};

const WCHAR ControlDeviceName[] = L"\\Device\\TvUSB_COMM";
const WCHAR ControlLinkName[] = L"\\DosDevices\\TvUSB";

// IRQL = PASSIVE. Lock: takes KeyboardListLock.
void SetControlDevice(PDEVICE_OBJECT pControlDevice)
{
    LockScope lock(GlobalFrame.KeyboardListLock);
    WriteShared(GlobalFrame.pControlDevice, pControlDevice);
}

// A registration that fails leaves the handle null: the arrivals of that class stay unseen, no more.
// IRQL = PASSIVE.
void RegisterArrival(SiblingLink* pLink, const GUID& interfaceClass,
                     PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pCallback, PVOID pContext)
{
    PVOID hNotification = nullptr;
    const NTSTATUS status = IoRegisterPlugPlayNotification(
        EventCategoryDeviceInterfaceChange, PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES,
        const_cast<GUID*>(&interfaceClass), GlobalFrame.pDriverObject, pCallback, pContext, &hNotification);
    pLink->hInterfaceNotification = NT_SUCCESS(status) ? hNotification : nullptr;
}

// IRQL = PASSIVE.
void UnregisterArrival(SiblingLink* pLink)
{
    if (pLink->hInterfaceNotification != nullptr) {
        IoUnregisterPlugPlayNotification(pLink->hInterfaceNotification);
        pLink->hInterfaceNotification = nullptr;
    }
}

// The named device, open to those it is meant for only, and its link.
// IRQL = PASSIVE, under ControlDeviceMutex. Fails: name or link taken, no memory; nothing is left.
NTSTATUS CreateNamedDevice(PDEVICE_OBJECT* ppControlDevice) REQUIRES_LOCK(GlobalRoof.ControlDeviceMutex)
{
    UNICODE_STRING deviceName;
    UNICODE_STRING linkName;
    RtlInitUnicodeString(&deviceName, ControlDeviceName);
    RtlInitUnicodeString(&linkName, ControlLinkName);

    NTSTATUS status = IoCreateDevice(GlobalFrame.pDriverObject, sizeof(ControlContext), &deviceName,
                                     FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, ppControlDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = SecureControlDevice(*ppControlDevice); // before anybody can find it
    if (NT_SUCCESS(status)) {
        status = IoCreateSymbolicLink(&linkName, &deviceName);
    }
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(*ppControlDevice);
        *ppControlDevice = nullptr;
    }
    return status;
}

// The initialising flag is cleared last, so no open meets a half-made record.
// IRQL = PASSIVE, under ControlDeviceMutex. Fails: as CreateNamedDevice.
NTSTATUS BuildControlDevice() REQUIRES_LOCK(GlobalRoof.ControlDeviceMutex)
{
    PDEVICE_OBJECT pControlDevice = nullptr;
    const NTSTATUS status = CreateNamedDevice(&pControlDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ControlContext* pControl = static_cast<ControlContext*>(pControlDevice->DeviceExtension);
    pControlDevice->Flags |= DO_BUFFERED_IO;
    RtlZeroMemory(pControl, sizeof(*pControl));
    KeInitializeEvent(&pControl->ClosedEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&pControl->NotificationsGone, NotificationEvent, FALSE);
    pControl->lNotifications = 1;
    WriteShared(pControl->ulDeviceKind, CONTROL_DEVICE_KIND);
    SetControlDevice(pControlDevice);

    const PVOID pContext = BeginArrivals();
    RegisterArrival(&pControl->Ps2Keyboard, Ps2KeyboardClass, Ps2KeyboardArrival, pContext);
    RegisterArrival(&pControl->Ps2Mouse, Ps2MouseClass, Ps2MouseArrival, pContext);
    RegisterArrival(&pControl->UsbMouse, UsbMouseClass, UsbMouseArrival, pContext);
    pControlDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

// The event that an application registered goes with the device, whether its handle is open or not.
// IRQL = PASSIVE, under ControlDeviceMutex.
void TearDownControlDevice(PDEVICE_OBJECT pControlDevice) REQUIRES_LOCK(GlobalRoof.ControlDeviceMutex)
{
    ControlContext* pControl = ControlContextOf(pControlDevice);
    UNICODE_STRING linkName;
    EndArrivals();
    UnregisterArrival(&pControl->Ps2Keyboard);
    UnregisterArrival(&pControl->Ps2Mouse);
    UnregisterArrival(&pControl->UsbMouse);
    ReleaseAllEvents();

    RtlInitUnicodeString(&linkName, ControlLinkName);
    IoDeleteSymbolicLink(&linkName);
    SetControlDevice(nullptr);
    EndNotifications(pControl);
    ReleaseApplicationEvent(pControlDevice);
    IoDeleteDevice(pControlDevice);
}
} // namespace

// The first of the keyboards makes the control device; each is counted once and gets its interface.
// IRQL = PASSIVE. Lock: takes ControlDeviceMutex. Fails: no control device (the keyboard is not counted), or
// no interface.
NTSTATUS CreateControlDevice(PDEVICE_OBJECT pFilterDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    DeviceContext* pContext = FilterContextOf(pFilterDevice);
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    NTSTATUS status = STATUS_SUCCESS;
    UCHAR ucUnused;

    {
        MutexScope lock(GlobalRoof.ControlDeviceMutex);
        if (GlobalFrame.usKeyboardCount == 0) {
            status = BuildControlDevice();
        }
        if (NT_SUCCESS(status) && roof.ucKeyboardCounted == 0) {
            roof.ucKeyboardCounted = 1;
            WriteShared(GlobalFrame.usKeyboardCount, GlobalFrame.usKeyboardCount + 1);
        }
    }
    if (!NT_SUCCESS(status)) {
        UpdateErrorCount(ErrorCountLeave, &ucUnused);
        return status;
    }
    return PublishInterface(pContext);
}

// The last of the counted keyboards takes the control device along.
// IRQL = PASSIVE. Lock: takes ControlDeviceMutex.
void DeleteControlDevice(PDEVICE_OBJECT pFilterDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    DeviceContext* pContext = FilterContextOf(pFilterDevice);
    RoofFields& roof = FieldsOf<RoofFields>(pContext);
    WithdrawInterface(pContext);
    if (roof.ucKeyboardCounted == 0) {
        return;
    }
    MutexScope lock(GlobalRoof.ControlDeviceMutex);
    if (GlobalFrame.usKeyboardCount == 1 && GlobalFrame.pControlDevice != nullptr) {
        TearDownControlDevice(GlobalFrame.pControlDevice);
    }
    roof.ucKeyboardCounted = 0;
    WriteShared(GlobalFrame.usKeyboardCount, GlobalFrame.usKeyboardCount - 1);
}

// The control device has no relations to tell; every other minor function succeeds.
// IRQL = PASSIVE.
NTSTATUS DispatchControlPnp(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (IoGetCurrentIrpStackLocation(pIrp)->MinorFunction == IRP_MN_QUERY_DEVICE_RELATIONS) {
        return CompleteRequest(pIrp, STATUS_NOT_IMPLEMENTED, 0);
    }
    return DispatchPassThrough(device, pIrp);
}
