// dispatch.cpp - the road of a control request, sent to the control device or to a filter device.
//
//   IRP ── IsIoctlAllowed ── row of the table ── its checks ── its handler ── its outcome ── completed
//
// No request goes down a stack: each is completed here, synchronously, in the caller's thread at
// PASSIVE_LEVEL, and not suspended meanwhile: it holds keyboards. Requests are not serialised; the dispatcher keeps
// nothing between them.
#include "control/call.h"

namespace
{
ControlCall BeginCall(PIRP pIrp)
{
    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(pIrp);
    ControlCall call = {};
    call.pBuffer = static_cast<PUCHAR>(pIrp->AssociatedIrp.SystemBuffer);
    call.ulInLength = pStack->Parameters.DeviceIoControl.InputBufferLength;
    call.ulOutLength = pStack->Parameters.DeviceIoControl.OutputBufferLength;
    call.requestorMode = pIrp->RequestorMode;
    call.usKeyboards = ReadShared(GlobalFrame.usKeyboardCount);
    return call;
}

// The caller's process decides where the payload lies and how long the record is.
bool OpenRecord(PIRP pIrp, ControlCall* pCall)
{
    pCall->b32 = IoIs32bitProcess(pIrp) != FALSE;
    ULONG ulSize = pCall->b32 ? sizeof(ControlRequest32) : sizeof(ControlRequest64);
    if (pCall->pBuffer == nullptr || pCall->ulInLength < ulSize) {
        return false;
    }
    RtlCopyMemory(&pCall->ulDeviceIndex, pCall->pBuffer, sizeof(pCall->ulDeviceIndex));
    pCall->ulPayloadOffset = static_cast<ULONG>(pCall->b32 ? offsetof(ControlRequest32, Payload)
                                                           : offsetof(ControlRequest64, Payload));
    pCall->pPayload = reinterpret_cast<RequestPayload*>(pCall->pBuffer + pCall->ulPayloadOffset);
    return true;
}

bool PassesStep(CheckStep step, const RequestRow& row, PIRP pIrp, ControlCall* pCall)
{
    switch (step) {
    case CheckKeyboards:
        return pCall->usKeyboards != 0;
    case CheckBuffer:
        return pCall->pBuffer != nullptr;
    case CheckRecord:
        return OpenRecord(pIrp, pCall);
    case CheckOut:
        return pCall->ulOutLength >= row.ulMinimum;
    case CheckIn:
        return pCall->ulInLength >= row.ulMinimum;
    case CheckNone:
        break;
    }
    return true;
}

NTSTATUS CheckRequest(const RequestRow& row, PIRP pIrp, ControlCall* pCall)
{
    for (CheckStep step : row.checks.steps) {
        if (!PassesStep(step, row, pIrp, pCall)) {
            return step == CheckKeyboards ? STATUS_UNSUCCESSFUL : row.shortStatus;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS RunHandler(const RequestRow& row, ControlCall* pCall)
{
    NTSTATUS status = row.pHandler(pCall);
    if (NT_SUCCESS(status)) {
        return status;
    }
    if (row.outcome != ReportAnyway) {
        pCall->ulInformation = 0;
    }
    switch (row.outcome) {
    case PlainFailure:
        return STATUS_UNSUCCESSFUL;
    case HiddenFailure:
        return STATUS_SUCCESS;
    default:
        return status;
    }
}
} // namespace

// Some codes are refused whatever they carry, one for what it carries.
// IRQL = PASSIVE.
BOOLEAN IsIoctlAllowed(PIRP pIrp)
{
    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(pIrp);
    const UCHAR* pBuffer = static_cast<const UCHAR*>(pIrp->AssociatedIrp.SystemBuffer);
    switch (pStack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_TVUSB_REFUSED_806:
    case IOCTL_TVUSB_REFUSED_807:
    case IOCTL_TVUSB_REFUSED_808:
    case IOCTL_TVUSB_REFUSED_809:
    case IOCTL_TVUSB_REFUSED_812:
        return FALSE;
    case IOCTL_TVUSB_CHECK_ZERO: // looked at in the 64-bit layout, whoever calls
        return pBuffer == nullptr || pStack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(ULONG) ||
               pStack->Parameters.DeviceIoControl.InputBufferLength < sizeof(ControlRequest64) ||
               (pBuffer[offsetof(ControlRequest64, Payload)] & 0x06) == 0;
    default:
        return TRUE;
    }
}

// IRQL = PASSIVE. Owns: completes the request. Fails: with the status it completed with.
NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT device, PIRP pIrp)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    UNREFERENCED_PARAMETER(device);
    CriticalRegion region;
    ControlCall call = BeginCall(pIrp);
    ULONG ulCode = IoGetCurrentIrpStackLocation(pIrp)->Parameters.DeviceIoControl.IoControlCode;
    const RequestRow* pRow = IsIoctlAllowed(pIrp) ? FindRequestRow(ulCode) : nullptr;
    if (pRow == nullptr) {
        return CompleteRequest(pIrp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    NTSTATUS status = CheckRequest(*pRow, pIrp, &call);
    if (NT_SUCCESS(status)) {
        status = RunHandler(*pRow, &call);
    }
    return CompleteRequest(pIrp, status, call.ulInformation);
}
