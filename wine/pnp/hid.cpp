// hid.cpp - tvhid.sys: the keyboards' function driver, the emulated HID stack, with Tv64USB.sys below it.
//
// This kernel's Plug and Play knows no filters: it calls AddDevice of the function driver alone. So AddDevice here
// has Tv64USB.sys loaded and calls its AddDevice first, which is what the system does for a lower filter:
//
//     EmuHid (tvhid.sys)  ── reads ──▶  scenes take what the system was given
//     Tv64USB.sys
//     EmuKeyboard (tvbus.sys)
//
// Reads end at any thread, scenes and Plug and Play come in threads of their own: SystemLock guards the table.
#include <kernel.h>

#include "control.h"
#include "emu/hid/hid.h"
#include "gaps.h"
#include "wine/memory.h"
#include "wine/testdriver.h"

enum : ULONG { MaximumKeyboards = 8, KeptReports = 512 };

// What the system has of one keyboard.
struct SystemSide {
    PDEVICE_OBJECT pPhysical; // null: free
    PDEVICE_OBJECT pHid;
    bool bStarted;
    ULONG ulFailed;
    ULONG ulIn, ulOut; // reports put in and taken out so far
    KeyboardReport Reports[KeptReports];
};

static const WCHAR FilterService[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tv64USB";
static const WCHAR FilterDriver[] = L"\\Driver\\Tv64USB";

static PDRIVER_DISPATCH pHidPnp;
static PDRIVER_DISPATCH pPassDown;
static KSPIN_LOCK SystemLock;
static SystemSide Sides[MaximumKeyboards];

// SystemLock is held.
static SystemSide* FindSide(PDEVICE_OBJECT SystemSide::*pField, PDEVICE_OBJECT pDevice)
{
    for (SystemSide& side : Sides) {
        if (side.*pField == pDevice) {
            return &side;
        }
    }
    return nullptr;
}

// Keeps what the system read; above KeptReports the oldest are lost, which a scene would see.
static VOID Observe(PVOID pContext, const UCHAR* pReport, ULONG ulLength, NTSTATUS status)
{
    auto pSide = static_cast<SystemSide*>(pContext);
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&SystemLock);
    if (NT_SUCCESS(status)) {
        KeyboardReport& report = pSide->Reports[pSide->ulIn++ % KeptReports];
        report.ulLength = ulLength < REPORT_BYTES ? ulLength : ULONG{REPORT_BYTES};
        RtlCopyMemory(report.ucBytes, pReport, report.ulLength);
    } else {
        pSide->ulFailed++;
    }
    KeReleaseSpinLock(&SystemLock, oldIrql);
}

static NTSTATUS TellState(SystemSide& side, PVOID pBuffer, PULONG pulOutput)
{
    if (*pulOutput != sizeof(HidState)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto pState = static_cast<HidState*>(pBuffer);
    pState->ulStarted = side.bStarted;
    pState->ulReads = side.bStarted ? EmuHidOutstandingReads(side.pHid) : 0;
    pState->ulFailed = side.ulFailed;
    return STATUS_SUCCESS;
}

static NTSTATUS TakeReport(SystemSide& side, PVOID pBuffer, PULONG pulOutput)
{
    if (*pulOutput != sizeof(KeyboardReport)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (side.ulOut == side.ulIn) {
        return STATUS_NO_MORE_ENTRIES;
    }
    RtlCopyMemory(pBuffer, &side.Reports[side.ulOut++ % KeptReports], sizeof(KeyboardReport));
    return STATUS_SUCCESS;
}

static NTSTATUS UnloadFilter(PVOID pBuffer, PULONG pulOutput)
{
    if (*pulOutput != sizeof(UnloadAnswer)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    UNICODE_STRING service;
    RtlInitUnicodeString(&service, FilterService);
    auto pAnswer = static_cast<UnloadAnswer*>(pBuffer);
    pAnswer->ulStatus = static_cast<uint32_t>(ZwUnloadDriver(&service));
    pAnswer->ulBlocksLeft = TakePoolBlocks();
    pAnswer->ulGapsFilled = AreFilterGapsFilled();
    return STATUS_SUCCESS;
}

static NTSTATUS AnswerScene(ULONG ulCode, PVOID pBuffer, ULONG ulInput, PULONG pulOutput)
{
    if (ulCode == HID_UNLOAD) {
        return UnloadFilter(pBuffer, pulOutput);
    }
    if (ulInput != sizeof(uint64_t) || *static_cast<uint64_t*>(pBuffer) == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    auto pPhysical = reinterpret_cast<PDEVICE_OBJECT>(*static_cast<uint64_t*>(pBuffer));
    NTSTATUS status = STATUS_NO_SUCH_DEVICE;
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&SystemLock);
    if (SystemSide* pSide = FindSide(&SystemSide::pPhysical, pPhysical)) {
        status = ulCode == HID_STATE  ? TellState(*pSide, pBuffer, pulOutput)
                 : ulCode == HID_TAKE ? TakeReport(*pSide, pBuffer, pulOutput)
                                      : STATUS_INVALID_DEVICE_REQUEST;
    }
    KeReleaseSpinLock(&SystemLock, oldIrql);
    return status;
}

static NTSTATUS NTAPI HidControl(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return IsTestControl(pDevice) ? AnswerTestRequest(pIrp, AnswerScene) : pPassDown(pDevice, pIrp);
}

static NTSTATUS NTAPI HidOpenClose(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return IsTestControl(pDevice) ? SucceedTestRequest(pIrp) : pPassDown(pDevice, pIrp);
}

// The emulated stack's own Plug and Play; afterwards the table knows how it went.
static NTSTATUS NTAPI Pnp(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    const UCHAR ucMinor = IoGetCurrentIrpStackLocation(pIrp)->MinorFunction;
    NTSTATUS status = pHidPnp(pDevice, pIrp);
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&SystemLock);
    SystemSide* pSide = FindSide(&SystemSide::pHid, pDevice);
    if (pSide && ucMinor == IRP_MN_START_DEVICE) {
        pSide->bStarted = NT_SUCCESS(status);
    } else if (pSide && ucMinor == IRP_MN_REMOVE_DEVICE) {
        pSide->bStarted = false;
        pSide->pHid = pSide->pPhysical = nullptr;
    }
    KeReleaseSpinLock(&SystemLock, oldIrql);
    return status;
}

// Has Tv64USB.sys loaded, if it is not yet, and put below what comes.
static NTSTATUS AddFilter(PDEVICE_OBJECT pPhysical)
{
    UNICODE_STRING service, name;
    PVOID pObject;
    RtlInitUnicodeString(&service, FilterService);
    RtlInitUnicodeString(&name, FilterDriver);
    NTSTATUS status = ZwLoadDriver(&service);
    if (!NT_SUCCESS(status) && status != STATUS_IMAGE_ALREADY_LOADED) {
        return status;
    }
    status = ObReferenceObjectByName(&name, OBJ_CASE_INSENSITIVE, nullptr, 0, nullptr, KernelMode, nullptr,
                                     &pObject);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto pFilter = static_cast<PDRIVER_OBJECT>(pObject);
    status = pFilter->DriverExtension->AddDevice(pFilter, pPhysical);
    ObDereferenceObject(pFilter);
    return status;
}

static NTSTATUS NTAPI AddKeyboard(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    NTSTATUS status = AddFilter(pPhysical);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SystemSide* pSide = FindSide(&SystemSide::pPhysical, nullptr); // Plug and Play adds one device at a time
    if (!pSide) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    EmuHidOptions options = {};
    options.pObserver = Observe;
    options.pObserverContext = pSide;
    options.ulReads = 2;
    PDEVICE_OBJECT pHid;
    status = EmuHidAttach(pDriver, pPhysical, &options, &pHid);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&SystemLock);
    pSide->bStarted = false;
    pSide->ulFailed = pSide->ulIn = pSide->ulOut = 0;
    pSide->pHid = pHid;
    pSide->pPhysical = pPhysical;
    KeReleaseSpinLock(&SystemLock, oldIrql);
    return STATUS_SUCCESS;
}

// Without an unload routine: the threads of the filter's deferred calls and timers stay.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath)
{
    ReplaceImports(pDriver->DriverStart, TestDriverGaps);
    FillFilterGaps();
    KeInitializeSpinLock(&SystemLock);
    EmuHidEntry(pDriver, pRegistryPath);
    pHidPnp = pDriver->MajorFunction[IRP_MJ_PNP];
    pPassDown = pDriver->MajorFunction[IRP_MJ_CREATE];
    pDriver->MajorFunction[IRP_MJ_PNP] = Pnp;
    pDriver->MajorFunction[IRP_MJ_CREATE] = HidOpenClose;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = HidOpenClose;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = HidOpenClose;
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = HidControl;
    pDriver->DriverExtension->AddDevice = AddKeyboard;
    pDriver->DriverUnload = nullptr;
    return MakeTestControl(pDriver, L"\\Device\\TvHid", L"\\DosDevices\\TvHid");
}
