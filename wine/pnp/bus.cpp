// bus.cpp - tvbus.sys: a root-enumerated bus whose devices are emulated keyboards.
//
//   scene ── BUS_PLUG, BUS_PULL ──▶ Ports ── IoInvalidateDeviceRelations ──▶ the system asks, starts and removes
//   scene ── BUS_REPORT ──▶ EmuKeyboardReport ──▶ the read that waits at the keyboard
//
// A port is taken from the plugging in to the end of REMOVE_DEVICE. The bus tells of a port's keyboard as long as
// it is plugged in. Scenes and Plug and Play come in threads of their own, so PortLock guards the table.
#include <kernel.h>

#include "control.h"
#include "emu/keyboard/keyboard.h"
#include "gaps.h"
#include "wine/send.h"
#include "wine/testdriver.h"

enum : ULONG { BusTag = 0x73754276, MaximumPorts = 8 };

struct BusDevice {
    ULONG ulTag;
    PDEVICE_OBJECT pLower;
};

struct Port {
    PDEVICE_OBJECT pKeyboard; // null: free
    const EmuDescriptors* pKind;
    bool bPlugged;
    EmuMemory Memory;
};

static PDRIVER_OBJECT pBusDriver;
static PDEVICE_OBJECT pBusPhysical; // null until the bus is there
static PDRIVER_DISPATCH pKeyboardPnp;
static KSPIN_LOCK PortLock;
static Port Ports[MaximumPorts];

// PortLock is held.
static Port* FindPort(PDEVICE_OBJECT pKeyboard)
{
    for (Port& port : Ports) {
        if (port.pKeyboard == pKeyboard) {
            return &port;
        }
    }
    return nullptr;
}

static PDEVICE_OBJECT DeviceOf(const void* pNumber)
{
    return reinterpret_cast<PDEVICE_OBJECT>(*static_cast<const uint64_t*>(pNumber));
}

// The keyboard of a number, referenced; null when there is none any more.
static PDEVICE_OBJECT ReferenceKeyboard(const void* pNumber)
{
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&PortLock);
    Port* pPort = DeviceOf(pNumber) ? FindPort(DeviceOf(pNumber)) : nullptr;
    PDEVICE_OBJECT pKeyboard = pPort ? pPort->pKeyboard : nullptr;
    if (pKeyboard) {
        ObReferenceObject(pKeyboard);
    }
    KeReleaseSpinLock(&PortLock, oldIrql);
    return pKeyboard;
}

// One scene plugs at a time.
static NTSTATUS Plug(ULONG ulKind, uint64_t* pNumber)
{
    static const EmuDescriptors* const pKinds[KEYBOARD_KINDS] = {&EmuBootKeyboard, &EmuChicKeyboard};
    Port* pPort = FindPort(nullptr);
    if (!pBusPhysical || !pPort || ulKind >= KEYBOARD_KINDS) {
        return STATUS_DEVICE_NOT_READY;
    }
    EmuKeyboardOptions options = {};
    PDEVICE_OBJECT pKeyboard;
    EmuClearMemory(&pPort->Memory);
    options.pMemory = &pPort->Memory;
    NTSTATUS status = EmuCreateKeyboard(pBusDriver, pKinds[ulKind], &options, &pKeyboard);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&PortLock);
    pPort->pKind = pKinds[ulKind];
    pPort->bPlugged = true;
    pPort->pKeyboard = pKeyboard;
    KeReleaseSpinLock(&PortLock, oldIrql);
    *pNumber = reinterpret_cast<uint64_t>(pKeyboard);
    IoInvalidateDeviceRelations(pBusPhysical, BusRelations);
    return STATUS_SUCCESS;
}

static NTSTATUS Pull(PDEVICE_OBJECT pKeyboard)
{
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&PortLock);
    if (Port* pPort = FindPort(pKeyboard)) {
        pPort->bPlugged = false;
    }
    KeReleaseSpinLock(&PortLock, oldIrql);
    IoInvalidateDeviceRelations(pBusPhysical, BusRelations);
    return STATUS_SUCCESS;
}

// Asks the whole stack whether it may be removed, which this kernel's Plug and Play never does itself.
static NTSTATUS AskRemove(PDEVICE_OBJECT pKeyboard)
{
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pKeyboard);
    NTSTATUS status = SendToTop(pTop, IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE, nullptr, STATUS_NOT_SUPPORTED);
    ObDereferenceObject(pTop);
    return status;
}

static ULONG CountKeyboards()
{
    ULONG ulCount = 0;
    for (const Port& port : Ports) {
        ulCount += port.pKeyboard != nullptr;
    }
    return ulCount;
}

// A request that names a keyboard.
static NTSTATUS AnswerForKeyboard(ULONG ulCode, PVOID pBuffer, ULONG ulInput, PULONG pulOutput)
{
    PDEVICE_OBJECT pKeyboard = ulInput >= sizeof(uint64_t) ? ReferenceKeyboard(pBuffer) : nullptr;
    if (!pKeyboard) {
        return STATUS_NO_SUCH_DEVICE;
    }
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    auto pReport = static_cast<const KeyboardReport*>(pBuffer);
    if (ulCode == BUS_REPORT && ulInput == sizeof(KeyboardReport) && pReport->ulLength <= REPORT_BYTES) {
        status = EmuKeyboardReport(pKeyboard, pReport->ucBytes, pReport->ulLength);
    } else if (ulCode == BUS_ASK_REMOVE) {
        status = AskRemove(pKeyboard);
    } else if (ulCode == BUS_PULL) {
        status = Pull(pKeyboard);
    }
    ObDereferenceObject(pKeyboard);
    *pulOutput = 0;
    return status;
}

static NTSTATUS AnswerScene(ULONG ulCode, PVOID pBuffer, ULONG ulInput, PULONG pulOutput)
{
    if (ulCode == BUS_PLUG && ulInput == sizeof(ULONG) && *pulOutput == sizeof(uint64_t)) {
        return Plug(*static_cast<const ULONG*>(pBuffer), static_cast<uint64_t*>(pBuffer));
    }
    if (ulCode == BUS_COUNT && *pulOutput == sizeof(ULONG)) {
        *static_cast<ULONG*>(pBuffer) = CountKeyboards();
        return STATUS_SUCCESS;
    }
    return AnswerForKeyboard(ulCode, pBuffer, ulInput, pulOutput);
}

static NTSTATUS NTAPI BusControl(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    if (IsTestControl(pDevice)) {
        return AnswerTestRequest(pIrp, AnswerScene);
    }
    pIrp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// The keyboards that are plugged in, each with a reference for the system.
static PDEVICE_RELATIONS TellKeyboards()
{
    auto pRelations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(
        PagedPool, sizeof(DEVICE_RELATIONS) + MaximumPorts * sizeof(PDEVICE_OBJECT), BusTag));
    if (!pRelations) {
        return nullptr;
    }
    pRelations->Count = 0;
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&PortLock);
    for (Port& port : Ports) {
        if (port.pKeyboard && port.bPlugged) {
            ObReferenceObject(port.pKeyboard);
            pRelations->Objects[pRelations->Count++] = port.pKeyboard;
        }
    }
    KeReleaseSpinLock(&PortLock, oldIrql);
    return pRelations;
}

// Plug and Play of the bus itself.
static NTSTATUS BusPnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    PDEVICE_OBJECT pLower = static_cast<BusDevice*>(pDevice->DeviceExtension)->pLower;
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    const UCHAR ucMinor = pLocation->MinorFunction;
    pIrp->IoStatus.Status = STATUS_SUCCESS;
    if (ucMinor == IRP_MN_QUERY_DEVICE_RELATIONS &&
        pLocation->Parameters.QueryDeviceRelations.Type == BusRelations) {
        PDEVICE_RELATIONS pRelations = TellKeyboards();
        pIrp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(pRelations);
        pIrp->IoStatus.Status = pRelations ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    }
    IoSkipCurrentIrpStackLocation(pIrp);
    NTSTATUS status = IoCallDriver(pLower, pIrp);
    if (ucMinor == IRP_MN_REMOVE_DEVICE) {
        pBusPhysical = nullptr;
        IoDetachDevice(pLower);
        IoDeleteDevice(pDevice);
    }
    return status;
}

// A list of one text, which the system frees.
static PWSTR MakeIdList(const WCHAR* pszId)
{
    UNICODE_STRING id;
    RtlInitUnicodeString(&id, pszId);
    auto pList = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, id.Length + 2 * sizeof(WCHAR), BusTag));
    if (pList) {
        RtlZeroMemory(pList, id.Length + 2 * sizeof(WCHAR));
        RtlCopyMemory(pList, id.Buffer, id.Length);
    }
    return pList;
}

// What the system finds the keyboard's driver by. The port is its instance: the same one when it is plugged in again.
static NTSTATUS TellId(const Port& port, BUS_QUERY_ID_TYPE type, PULONG_PTR pInformation)
{
    WCHAR szInstance[2] = {static_cast<WCHAR>(L'0' + (&port - Ports)), 0};
    PWSTR pList;
    switch (type) {
    case BusQueryDeviceID:
    case BusQueryHardwareIDs:
        pList = MakeIdList(port.pKind->pHardwareId);
        break;
    case BusQueryCompatibleIDs:
        pList = MakeIdList(L"USB\\Class_03");
        break;
    case BusQueryInstanceID:
        pList = MakeIdList(szInstance);
        break;
    default:
        return STATUS_NOT_SUPPORTED;
    }
    *pInformation = reinterpret_cast<ULONG_PTR>(pList);
    return pList ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

static NTSTATUS CompletePnp(PIRP pIrp, NTSTATUS status)
{
    pIrp->IoStatus.Status = status;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

// Plug and Play of a keyboard: what a bus knows is answered here, the keyboard itself does the rest.
static NTSTATUS PortPnp(Port& port, PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    switch (pLocation->MinorFunction) {
    case IRP_MN_QUERY_ID:
        return CompletePnp(pIrp,
                           TellId(port, pLocation->Parameters.QueryId.IdType, &pIrp->IoStatus.Information));
    case IRP_MN_QUERY_CAPABILITIES:
        pLocation->Parameters.DeviceCapabilities.Capabilities->UniqueID = 1;
        pLocation->Parameters.DeviceCapabilities.Capabilities->SurpriseRemovalOK = 1;
        return CompletePnp(pIrp, STATUS_SUCCESS);
    case IRP_MN_REMOVE_DEVICE: {
        NTSTATUS status = pKeyboardPnp(pDevice, pIrp);
        KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&PortLock);
        port.pKeyboard = nullptr;
        KeReleaseSpinLock(&PortLock, oldIrql);
        return status;
    }
    default:
        return pKeyboardPnp(pDevice, pIrp);
    }
}

static NTSTATUS NTAPI Pnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    if (*static_cast<ULONG*>(pDevice->DeviceExtension) == BusTag) {
        return BusPnp(pDevice, pIrp);
    }
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&PortLock);
    Port* pPort = FindPort(pDevice);
    KeReleaseSpinLock(&PortLock, oldIrql);
    return pPort ? PortPnp(*pPort, pDevice, pIrp) : CompletePnp(pIrp, STATUS_NO_SUCH_DEVICE);
}

static NTSTATUS NTAPI AddBus(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    PDEVICE_OBJECT pDevice;
    NTSTATUS status =
        IoCreateDevice(pDriver, sizeof(BusDevice), nullptr, FILE_DEVICE_BUS_EXTENDER, 0, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto pBus = static_cast<BusDevice*>(pDevice->DeviceExtension);
    pBus->ulTag = BusTag;
    pBus->pLower = IoAttachDeviceToDeviceStack(pDevice, pPhysical);
    pBusPhysical = pPhysical;
    pDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

// Without an unload routine: the threads of the deferred calls and of the clock stay.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath)
{
    ReplaceImports(pDriver->DriverStart, TestDriverGaps);
    KeInitializeSpinLock(&PortLock);
    EmuKeyboardEntry(pDriver, pRegistryPath);
    pBusDriver = pDriver;
    pKeyboardPnp = pDriver->MajorFunction[IRP_MJ_PNP];
    pDriver->MajorFunction[IRP_MJ_PNP] = Pnp;
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = BusControl;
    pDriver->DriverExtension->AddDevice = AddBus;
    pDriver->DriverUnload = nullptr;
    return MakeTestControl(pDriver, L"\\Device\\TvBus", L"\\DosDevices\\TvBus");
}
