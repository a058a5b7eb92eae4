// Opening, closing and the answer that a device was told to give.
#include "answering.h"

static AnsweringDevice* AnsweringOf(PDEVICE_OBJECT pDevice)
{
    return static_cast<AnsweringDevice*>(pDevice->DeviceExtension);
}

EmuReply AnswerOf(AnsweringDevice* pAnswering)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pAnswering->Lock);
    EmuReply answer = pAnswering->Answer;
    KeReleaseSpinLock(&pAnswering->Lock, irql);
    return answer;
}

static NTSTATUS NTAPI AnswerCreate(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    AnsweringDevice* pAnswering = AnsweringOf(pDevice);
    EmuReply answer = AnswerOf(pAnswering);
    return AnswerRequest(&pAnswering->Held, pIrp, answer.Open, 0, answer.bHoldOpen, 0);
}

static NTSTATUS NTAPI AnswerClose(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    return AnswerRequest(&AnsweringOf(pDevice)->Held, pIrp, STATUS_SUCCESS, 0, FALSE, 0);
}

static VOID NTAPI AnsweringUnload(PDRIVER_OBJECT) {}

VOID SetAnsweringEntries(PDRIVER_OBJECT pDriver)
{
    pDriver->MajorFunction[IRP_MJ_CREATE] = AnswerCreate;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = AnswerClose;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = AnswerClose;
    pDriver->DriverUnload = AnsweringUnload;
}

NTSTATUS CreateAnswering(PDRIVER_OBJECT pDriver, PUNICODE_STRING pName, ULONG ulType, ULONG ulExtension,
                         PDEVICE_OBJECT* ppDevice)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = IoCreateDevice(pDriver, ulExtension, pName, ulType, 0, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    AnsweringDevice* pAnswering = AnsweringOf(pDevice);
    RtlZeroMemory(pAnswering, ulExtension);
    KeInitializeSpinLock(&pAnswering->Lock);
    InitializeHeld(&pAnswering->Held);
    // Who opens it by name looks at the flags meanwhile.
    InterlockedOr(reinterpret_cast<LONG*>(&pDevice->Flags), DO_BUFFERED_IO);
    *ppDevice = pDevice;
    return STATUS_SUCCESS;
}

VOID AnsweringReady(PDEVICE_OBJECT pDevice)
{
    InterlockedAnd(reinterpret_cast<LONG*>(&pDevice->Flags), ~DO_DEVICE_INITIALIZING);
}

VOID EmuSetAnswer(PDEVICE_OBJECT pDevice, const EmuReply* pAnswer)
{
    AnsweringDevice* pAnswering = AnsweringOf(pDevice);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pAnswering->Lock);
    pAnswering->Answer = *pAnswer;
    KeReleaseSpinLock(&pAnswering->Lock, irql);
}

VOID EmuReleaseHeld(PDEVICE_OBJECT pDevice)
{
    ReleaseHeld(&AnsweringOf(pDevice)->Held);
}

ULONG EmuCountHeld(PDEVICE_OBJECT pDevice)
{
    return CountHeld(&AnsweringOf(pDevice)->Held);
}
