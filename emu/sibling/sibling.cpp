// The siblings' driver. Requests come at PASSIVE_LEVEL in the sender's thread.
#include "sibling.h"

namespace
{
enum : ULONG { IOCTL_SET_MODIFIERS = CTL_CODE(0x22, 0x900, METHOD_BUFFERED, FILE_ANY_ACCESS) };

struct SiblingDevice {
    AnsweringDevice Answering;
    EmuSiblingOptions Options; // (i)
    UNICODE_STRING Link;       // (i) of the interface
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
    EmuReply answer = AnswerOf(&pSibling->Answering);
    NTSTATUS status = TakeModifiers(pSibling, pIrp);
    if (!NT_SUCCESS(status)) {
        return AnswerRequest(&pSibling->Answering.Held, pIrp, status, 0, FALSE, 0);
    }
    return AnswerRequest(&pSibling->Answering.Held, pIrp, answer.Status,
                         NT_SUCCESS(answer.Status) ? sizeof(ULONG) : 0, answer.bHold, answer.ulDelayMs);
}

} // namespace

NTSTATUS NTAPI EmuSiblingEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    SetAnsweringEntries(pDriver);
    pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = SiblingInternalControl;
    return STATUS_SUCCESS;
}

NTSTATUS EmuCreateSibling(PDRIVER_OBJECT pDriver, const EmuSiblingOptions* pOptions, PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const KindRow& kind = Kinds[pOptions->Kind];
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, kind.pszName);
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = CreateAnswering(pDriver, pOptions->bUnnamed ? nullptr : &name, FILE_DEVICE_UNKNOWN,
                                      sizeof(SiblingDevice), &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SiblingDevice* pSibling = SiblingOf(pDevice);
    pSibling->Options = *pOptions;
    InterlockedOr(reinterpret_cast<LONG*>(&pDevice->Flags), DO_BUS_ENUMERATED_DEVICE);
    status = IoRegisterDeviceInterface(pDevice, &kind.Class, nullptr, &pSibling->Link);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(pDevice);
        return status;
    }
    AnsweringReady(pDevice);
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
    EndHeld(&pSibling->Answering.Held);
    RtlFreeUnicodeString(&pSibling->Link);
    IoDeleteDevice(pDevice);
}

VOID EmuSetSiblingCancelDelay(PDEVICE_OBJECT pDevice, ULONG ulMs)
{
    InterlockedExchange(&SiblingOf(pDevice)->Answering.Held.lCancelMs, (LONG)ulMs);
}
