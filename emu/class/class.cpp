// The keyboard class's driver. Requests come at PASSIVE_LEVEL in the caller's thread; each takes what it
// changes or tells under the device's lock.
#include "class.h"

namespace
{
enum : ULONG { ClassTag = 0x73734C43 };

struct ClassDevice {
    ULONG ulTag;     // (i) ClassTag
    KSPIN_LOCK Lock; // guards the two that follow
    EmuReply Answer;
    EmuClassState State;
    HeldRequests Held;
};

ClassDevice* ClassOf(PDEVICE_OBJECT pDevice)
{
    return static_cast<ClassDevice*>(pDevice->DeviceExtension);
}

EmuReply AnswerOf(ClassDevice* pClass)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Lock);
    EmuReply answer = pClass->Answer;
    KeReleaseSpinLock(&pClass->Lock, irql);
    return answer;
}

// Fills the request's buffer with the settings. IRQL PASSIVE. Fails: no room, or what it was told to answer.
NTSTATUS QueryTypematic(ClassDevice* pClass, PIRP pIrp, NTSTATUS Status)
{
    PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
    if (pLocation->Parameters.DeviceIoControl.OutputBufferLength < sizeof(KEYBOARD_TYPEMATIC_PARAMETERS)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Lock);
    KEYBOARD_TYPEMATIC_PARAMETERS record = {0, pClass->State.usRate, pClass->State.usDelayMs};
    pClass->State.ulQueries++;
    KeReleaseSpinLock(&pClass->Lock, irql);
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
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Lock);
    pClass->State.ulSets++;
    if (NT_SUCCESS(Status)) {
        pClass->State.usRate = record.Rate;
        pClass->State.usDelayMs = record.Delay;
    }
    KeReleaseSpinLock(&pClass->Lock, irql);
    return Status;
}

NTSTATUS NTAPI ClassControl(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    ClassDevice* pClass = ClassOf(pDevice);
    EmuReply answer = AnswerOf(pClass);
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
    return AnswerRequest(&pClass->Held, pIrp, status, ulInformation, answer.bHold, answer.ulDelayMs);
}

NTSTATUS NTAPI ClassCreate(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    ClassDevice* pClass = ClassOf(pDevice);
    EmuReply answer = AnswerOf(pClass);
    return AnswerRequest(&pClass->Held, pIrp, answer.Open, 0, answer.bHoldOpen, 0);
}

NTSTATUS NTAPI ClassSucceed(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return AnswerRequest(&ClassOf(pDevice)->Held, pIrp, STATUS_SUCCESS, 0, FALSE, 0);
}

VOID NTAPI ClassUnload(PDRIVER_OBJECT) {}
} // namespace

NTSTATUS NTAPI EmuClassEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    pDriver->MajorFunction[IRP_MJ_CREATE] = ClassCreate;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = ClassSucceed;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = ClassSucceed;
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = ClassControl;
    pDriver->DriverUnload = ClassUnload;
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
    NTSTATUS status =
        IoCreateDevice(pDriver, sizeof(ClassDevice), &name, FILE_DEVICE_KEYBOARD, 0, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ClassDevice* pClass = ClassOf(pDevice);
    RtlZeroMemory(pClass, sizeof *pClass);
    pClass->ulTag = ClassTag;
    pClass->State.usRate = 31;
    pClass->State.usDelayMs = 250;
    KeInitializeSpinLock(&pClass->Lock);
    InitializeHeld(&pClass->Held);
    auto plFlags = reinterpret_cast<LONG*>(&pDevice->Flags); // who opens it by name looks at them meanwhile
    InterlockedOr(plFlags, DO_BUFFERED_IO);
    InterlockedAnd(plFlags, ~DO_DEVICE_INITIALIZING);
    *ppDevice = pDevice;
    return STATUS_SUCCESS;
}

VOID EmuRemoveClassDevice(PDEVICE_OBJECT pDevice)
{
    EndHeld(&ClassOf(pDevice)->Held);
    IoDeleteDevice(pDevice);
}

VOID EmuSetClassAnswer(PDEVICE_OBJECT pDevice, const EmuReply* pAnswer)
{
    ClassDevice* pClass = ClassOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Lock);
    pClass->Answer = *pAnswer;
    KeReleaseSpinLock(&pClass->Lock, irql);
}

VOID EmuSetClassTypematic(PDEVICE_OBJECT pDevice, USHORT usRate, USHORT usDelayMs)
{
    ClassDevice* pClass = ClassOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Lock);
    pClass->State.usRate = usRate;
    pClass->State.usDelayMs = usDelayMs;
    KeReleaseSpinLock(&pClass->Lock, irql);
}

VOID EmuGetClassState(PDEVICE_OBJECT pDevice, EmuClassState* pState)
{
    ClassDevice* pClass = ClassOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pClass->Lock);
    *pState = pClass->State;
    KeReleaseSpinLock(&pClass->Lock, irql);
}

VOID EmuReleaseClass(PDEVICE_OBJECT pDevice)
{
    ReleaseHeld(&ClassOf(pDevice)->Held);
}
