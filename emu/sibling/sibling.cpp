// The siblings' driver. Requests come at PASSIVE_LEVEL in the sender's thread.
#include "sibling.h"

namespace
{
enum : ULONG { IOCTL_SET_MODIFIERS = CTL_CODE(0x22, 0x900, METHOD_BUFFERED, FILE_ANY_ACCESS) };

struct SiblingDevice {
    EmuSiblingOptions Options; // (i)
    UNICODE_STRING Link;       // (i) of the interface
    KSPIN_LOCK Lock;           // guards Answer
    EmuReply Answer;
    HeldRequests Held;
};

struct KindRow {
    PCWSTR pszName;
    GUID Class;
};

// By EmuSiblingKind.
const KindRow Kinds[] = {
    {L"\\Device\\TvPS2_COMM", {0x8E4A2D17, 0xC3B9, 0x4E52, {0xA7, 0xF1, 0x0B, 0x96, 0xD5, 0xE3, 0xC2, 0x84}}},
    {L"\\Device\\TvPS2M_COMM",
     {0x5C19E7A3, 0x62F4, 0x4B8D, {0x9E, 0x07, 0xA1, 0xC3, 0xF8, 0x5D, 0x2B, 0x96}}},
    {L"\\Device\\TvUSBM_COMM",
     {0xE7D3B846, 0x1F2A, 0x4C95, {0xB6, 0xE8, 0x3A, 0x5C, 0x07, 0xF9, 0x1D, 0x42}}},
};

SiblingDevice* SiblingOf(PDEVICE_OBJECT pDevice)
{
    return static_cast<SiblingDevice*>(pDevice->DeviceExtension);
}

EmuReply AnswerOf(SiblingDevice* pSibling)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pSibling->Lock);
    EmuReply answer = pSibling->Answer;
    KeReleaseSpinLock(&pSibling->Lock, irql);
    return answer;
}

// The word comes in, the same four bytes go out filled. IRQL PASSIVE. Fails: a keyboard, no word, no room.
NTSTATUS TakeModifiers(SiblingDevice* pSibling, PIRP pIrp)
{
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    ULONG ulModifiers;
    if (pSibling->Options.Kind == EmuPs2KeyboardSibling ||
        pLocation->Parameters.DeviceIoControl.IoControlCode != IOCTL_SET_MODIFIERS) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (pLocation->Parameters.DeviceIoControl.InputBufferLength != sizeof ulModifiers ||
        pLocation->Parameters.DeviceIoControl.OutputBufferLength != sizeof ulModifiers) {
        return STATUS_INVALID_PARAMETER;
    }
    RtlCopyMemory(&ulModifiers, pIrp->AssociatedIrp.SystemBuffer, sizeof ulModifiers);
    if (pSibling->Options.pObserver) {
        pSibling->Options.pObserver(pSibling->Options.pObserverContext, ulModifiers);
    }
    RtlFillMemory(pIrp->AssociatedIrp.SystemBuffer, sizeof ulModifiers, 0xEE);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI SiblingInternalControl(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    SiblingDevice* pSibling = SiblingOf(pDevice);
    EmuReply answer = AnswerOf(pSibling);
    NTSTATUS status = TakeModifiers(pSibling, pIrp);
    if (!NT_SUCCESS(status)) {
        return AnswerRequest(&pSibling->Held, pIrp, status, 0, FALSE, 0);
    }
    return AnswerRequest(&pSibling->Held, pIrp, answer.Status, NT_SUCCESS(answer.Status) ? sizeof(ULONG) : 0,
                         answer.bHold, answer.ulDelayMs);
}

NTSTATUS NTAPI SiblingCreate(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    SiblingDevice* pSibling = SiblingOf(pDevice);
    EmuReply answer = AnswerOf(pSibling);
    return AnswerRequest(&pSibling->Held, pIrp, answer.Open, 0, answer.bHoldOpen, 0);
}

NTSTATUS NTAPI SiblingSucceed(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return AnswerRequest(&SiblingOf(pDevice)->Held, pIrp, STATUS_SUCCESS, 0, FALSE, 0);
}

VOID NTAPI SiblingUnload(PDRIVER_OBJECT) {}
} // namespace

NTSTATUS NTAPI EmuSiblingEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    pDriver->MajorFunction[IRP_MJ_CREATE] = SiblingCreate;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = SiblingSucceed;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = SiblingSucceed;
    pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = SiblingInternalControl;
    pDriver->DriverUnload = SiblingUnload;
    return STATUS_SUCCESS;
}

NTSTATUS EmuCreateSibling(PDRIVER_OBJECT pDriver, const EmuSiblingOptions* pOptions, PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const KindRow& kind = Kinds[pOptions->Kind];
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, kind.pszName);
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = IoCreateDevice(pDriver, sizeof(SiblingDevice), pOptions->bUnnamed ? nullptr : &name,
                                     FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SiblingDevice* pSibling = SiblingOf(pDevice);
    RtlZeroMemory(pSibling, sizeof *pSibling);
    pSibling->Options = *pOptions;
    KeInitializeSpinLock(&pSibling->Lock);
    InitializeHeld(&pSibling->Held);
    auto plFlags = reinterpret_cast<LONG*>(&pDevice->Flags); // who opens it by name looks at them meanwhile
    InterlockedOr(plFlags, DO_BUFFERED_IO | DO_BUS_ENUMERATED_DEVICE);
    status = IoRegisterDeviceInterface(pDevice, &kind.Class, nullptr, &pSibling->Link);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(pDevice);
        return status;
    }
    InterlockedAnd(plFlags, ~DO_DEVICE_INITIALIZING);
    *ppDevice = pDevice;
    return STATUS_SUCCESS;
}

NTSTATUS EmuPublishSibling(PDEVICE_OBJECT pDevice, BOOLEAN bPresent)
{
    return IoSetDeviceInterfaceState(&SiblingOf(pDevice)->Link, bPresent);
}

VOID EmuRemoveSibling(PDEVICE_OBJECT pDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    SiblingDevice* pSibling = SiblingOf(pDevice);
    (VOID) IoSetDeviceInterfaceState(&pSibling->Link, FALSE); // may be disabled already
    EndHeld(&pSibling->Held);
    RtlFreeUnicodeString(&pSibling->Link);
    IoDeleteDevice(pDevice);
}

VOID EmuSetSiblingAnswer(PDEVICE_OBJECT pDevice, const EmuReply* pAnswer)
{
    SiblingDevice* pSibling = SiblingOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pSibling->Lock);
    pSibling->Answer = *pAnswer;
    KeReleaseSpinLock(&pSibling->Lock, irql);
}

VOID EmuSetSiblingCancelDelay(PDEVICE_OBJECT pDevice, ULONG ulMs)
{
    InterlockedExchange(&SiblingOf(pDevice)->Held.lCancelMs, (LONG)ulMs);
}

VOID EmuReleaseSibling(PDEVICE_OBJECT pDevice)
{
    ReleaseHeld(&SiblingOf(pDevice)->Held);
}

ULONG EmuSiblingHeld(PDEVICE_OBJECT pDevice)
{
    return CountHeld(&SiblingOf(pDevice)->Held);
}
