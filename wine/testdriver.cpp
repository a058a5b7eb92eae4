// testdriver.cpp - see testdriver.h.
#include "testdriver.h"

NTSTATUS MakeTestControl(PDRIVER_OBJECT pDriver, const WCHAR* pszDevice, const WCHAR* pszLink)
{
    UNICODE_STRING device, link;
    PDEVICE_OBJECT pDevice;
    RtlInitUnicodeString(&device, pszDevice);
    RtlInitUnicodeString(&link, pszLink);
    NTSTATUS status =
        IoCreateDevice(pDriver, sizeof(ULONG), &device, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *static_cast<ULONG*>(pDevice->DeviceExtension) = TEST_CONTROL_TAG;
    status = IoCreateSymbolicLink(&link, &device);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(pDevice);
        return status;
    }
    pDevice->Flags |= DO_BUFFERED_IO;
    pDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

bool IsTestControl(PDEVICE_OBJECT pDevice)
{
    return *static_cast<ULONG*>(pDevice->DeviceExtension) == TEST_CONTROL_TAG;
}

static NTSTATUS Complete(PIRP pIrp, NTSTATUS status, ULONG ulInformation)
{
    pIrp->IoStatus.Status = status;
    pIrp->IoStatus.Information = ulInformation;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS AnswerTestRequest(PIRP pIrp, TestRequest* pRoutine)
{
    auto& request = IoGetCurrentIrpStackLocation(pIrp)->Parameters.DeviceIoControl;
    ULONG ulOutput = request.OutputBufferLength;
    NTSTATUS status = pRoutine(request.IoControlCode, pIrp->AssociatedIrp.SystemBuffer,
                               request.InputBufferLength, &ulOutput);
    return Complete(pIrp, status, NT_SUCCESS(status) ? ulOutput : 0);
}

NTSTATUS SucceedTestRequest(PIRP pIrp)
{
    return Complete(pIrp, STATUS_SUCCESS, 0);
}
