// The keyboard class's driver. Requests come at PASSIVE_LEVEL in the caller's thread; each takes what it
// changes or tells under the device's lock.
#include "class.h"

namespace
{
struct ClassDevice {
    AnsweringDevice Answering;
    EmuClassState State; // (l) Answering.Lock
};

ClassDevice* ClassOf(PDEVICE_OBJECT pDevice)
{
    return static_cast<ClassDevice*>(pDevice->DeviceExtension);
}

// Fills the request's buffer with the settings. IRQL PASSIVE. Fails: no room, or what it was told to answer.
NTSTATUS QueryTypematic(ClassDevice* pClass, PIRP pIrp, NTSTATUS Status)
{
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    if (pLocation->Parameters.DeviceIoControl.OutputBufferLength < sizeof(KEYBOARD_TYPEMATIC_PARAMETERS)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Answering.Lock);
    KEYBOARD_TYPEMATIC_PARAMETERS record = {0, pClass->State.usRate, pClass->State.usDelayMs};
    pClass->State.ulQueries++;
    KeReleaseSpinLock(&pClass->Answering.Lock, irql);
    RtlCopyMemory(pIrp->AssociatedIrp.SystemBuffer, &record, sizeof record);
    return Status;
}

// Takes the settings over, unless it shall fail. IRQL PASSIVE. Fails: as QueryTypematic.
NTSTATUS SetTypematic(ClassDevice* pClass, PIRP pIrp, NTSTATUS Status)
{
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    KEYBOARD_TYPEMATIC_PARAMETERS record;
    if (pLocation->Parameters.DeviceIoControl.InputBufferLength < sizeof record) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(&record, pIrp->AssociatedIrp.SystemBuffer, sizeof record);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Answering.Lock);
    pClass->State.ulSets++;
    if (NT_SUCCESS(Status)) {
        pClass->State.usRate = record.Rate;
        pClass->State.usDelayMs = record.Delay;
    }
    KeReleaseSpinLock(&pClass->Answering.Lock, irql);
    return Status;
}

NTSTATUS NTAPI ClassControl(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    ClassDevice* pClass = ClassOf(pDevice);
    EmuReply answer = AnswerOf(&pClass->Answering);
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    ULONG_PTR ulInformation = 0;
    switch (IoGetCurrentIrpStackLocation(pIrp)->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_KEYBOARD_QUERY_TYPEMATIC:
        status = QueryTypematic(pClass, pIrp, answer.Status);
        ulInformation = NT_SUCCESS(status) ? sizeof(KEYBOARD_TYPEMATIC_PARAMETERS) : 0;
        break;
    case IOCTL_KEYBOARD_SET_TYPEMATIC:
        status = SetTypematic(pClass, pIrp, answer.Status);
        break;
    default:
        break;
    }
    return AnswerRequest(&pClass->Answering.Held, pIrp, status, ulInformation, answer.bHold,
                         answer.ulDelayMs);
}

} // namespace

NTSTATUS NTAPI EmuClassEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    SetAnsweringEntries(pDriver);
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = ClassControl;
    return STATUS_SUCCESS;
}

NTSTATUS EmuCreateClassDevice(PDRIVER_OBJECT pDriver, USHORT usNumber, PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    WCHAR text[] = L"\\Device\\KeyboardClass0";
    text[ARRAYSIZE(text) - 2] = (WCHAR)(L'0' + usNumber);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = CreateAnswering(pDriver, &name, FILE_DEVICE_KEYBOARD, sizeof(ClassDevice), &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ClassDevice* pClass = ClassOf(pDevice);
    pClass->State.usRate = 31;
    pClass->State.usDelayMs = 250;
    AnsweringReady(pDevice);
    *ppDevice = pDevice;
    return STATUS_SUCCESS;
}

VOID EmuRemoveClassDevice(PDEVICE_OBJECT pDevice)
{
    EndHeld(&ClassOf(pDevice)->Answering.Held);
    IoDeleteDevice(pDevice);
}

VOID EmuSetClassTypematic(PDEVICE_OBJECT pDevice, USHORT usRate, USHORT usDelayMs)
{
    ClassDevice* pClass = ClassOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Answering.Lock);
    pClass->State.usRate = usRate;
    pClass->State.usDelayMs = usDelayMs;
    KeReleaseSpinLock(&pClass->Answering.Lock, irql);
}

VOID EmuGetClassState(PDEVICE_OBJECT pDevice, EmuClassState* pState)
{
    ClassDevice* pClass = ClassOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Answering.Lock);
    *pState = pClass->State;
    KeReleaseSpinLock(&pClass->Answering.Lock, irql);
}
