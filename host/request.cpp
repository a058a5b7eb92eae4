// request.cpp - requests that the system makes: for a driver, for an application, for itself.
#include "irp.h"

PIRP IoBuildDeviceIoControlRequest(ULONG ulCode, PDEVICE_OBJECT pDevice, PVOID pInput, ULONG ulInput,
                                   PVOID pOutput, ULONG ulOutput, BOOLEAN bInternal, PKEVENT pEvent,
                                   PIO_STATUS_BLOCK pStatus)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostObjectOf(pDevice, __func__);
    if (HostShouldFail("irp")) {
        return nullptr;
    }
    PIRP pIrp = HostNewIrp(pDevice->StackSize);
    HostIrp* pHost = HostIrpOf(pIrp);
    pHost->bSystem = true;
    pHost->ulMethod = METHOD_FROM_CTL_CODE(ulCode);
    pHost->ulOutput = ulOutput;
    pHost->ulInput = ulInput;
    pHost->ulCode = ulCode;
    pIrp->UserIosb = pStatus;
    pIrp->UserEvent = pEvent;
    if (pStatus != nullptr || pEvent != nullptr) {
        HostAdd(&HostSelf()->uOnStack, 1u);
        HostLock lock(g->Lock); // who looks for requests on a stack looks at every one
        pHost->bOnStack = true;
    }
    pIrp->UserBuffer = pOutput;
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = bInternal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.OutputBufferLength = ulOutput;
    pNext->Parameters.DeviceIoControl.InputBufferLength = ulInput;
    pNext->Parameters.DeviceIoControl.IoControlCode = ulCode;
    if (pHost->ulMethod == METHOD_NEITHER) {
        pNext->Parameters.DeviceIoControl.Type3InputBuffer = pInput;
        return pIrp;
    }
    bool bBuffered = pHost->ulMethod == METHOD_BUFFERED;
    ULONG ulBuffer = bBuffered && ulOutput > ulInput ? ulOutput : ulInput;
    if (ulBuffer != 0) {
        pIrp->AssociatedIrp.SystemBuffer = HostAllocateBare(ulBuffer, HostIrpBufferKind, nullptr);
        pHost->ullKey =
            HostFillOutput(static_cast<UCHAR*>(pIrp->AssociatedIrp.SystemBuffer), ulInput, ulBuffer);
        if (ulInput != 0) {
            HostTellOutput("a request", pInput, ulInput);
            memcpy(pIrp->AssociatedIrp.SystemBuffer, pInput, ulInput);
        }
    }
    if (!bBuffered && ulOutput != 0) {
        PMDL pMdl = IoAllocateMdl(pOutput, ulOutput, FALSE, FALSE, pIrp);
        if (pMdl == nullptr) {
            HostCopyOut(pIrp, pHost);
            HostDeleteIrp(pHost);
            return nullptr;
        }
        pMdl->MdlFlags |= MDL_PAGES_LOCKED;
    }
    return pIrp;
}

static NTSTATUS SendAndWait(PDEVICE_OBJECT pTop, PIRP pIrp, ULONG_PTR* pInformation)
{
    KEVENT done;
    IO_STATUS_BLOCK result = {};
    HostInitHeader(&done.Header, NotificationEvent, sizeof(KEVENT), 0);
    HostIrp* pHost = HostIrpOf(pIrp);
    PKTHREAD pSelf = HostSelf();
    pHost->pResult = &result;
    pIrp->UserEvent = &done;
    {
        HostLock lock(g->Lock);
        pHost->pRequester = pSelf;
        pSelf->pRequest = pIrp;
    }
    NTSTATUS status = HostCallDriver(pTop, pIrp, true);
    if (status == STATUS_PENDING && pSelf->bTerminating) {
        HostCancelRequestOf(pSelf);
    }
    if (!HostTakesTurns() || done.Header.SignalState == 0) { // else who signalled it has let go of it
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    if (pInformation != nullptr) {
        *pInformation = result.Information;
    }
    return status == STATUS_PENDING ? result.Status : status;
}

// Sends a request of the system to the top of a stack and waits for its completion.
// IRQL: PASSIVE_LEVEL.
NTSTATUS HostSendRequest(PDEVICE_OBJECT pTop, const IO_STACK_LOCATION& location, NTSTATUS initial,
                         KPROCESSOR_MODE mode, ULONG_PTR* pInformation)
{
    PIRP pIrp = HostNewIrp(pTop->StackSize);
    HostIrp* pHost = HostIrpOf(pIrp);
    pHost->bSystem = true;
    pHost->ulMethod = METHOD_NEITHER;
    pIrp->RequestorMode = mode;
    pIrp->IoStatus.Status = initial;
    pIrp->Tail.Overlay.OriginalFileObject = location.FileObject;
    *IoGetNextIrpStackLocation(pIrp) = location;
    return SendAndWait(pTop, pIrp, pInformation);
}

NTSTATUS HostSendControl(PFILE_OBJECT pFile, ULONG ulCode, const void* pIn, ULONG ulIn, void* pOut,
                         ULONG ulOut, ULONG_PTR* pInformation)
{
    PDEVICE_OBJECT pTop = IoGetAttachedDevice(pFile->DeviceObject);
    PIRP pIrp = IoBuildDeviceIoControlRequest(ulCode, pTop, const_cast<void*>(pIn), ulIn, pOut, ulOut, FALSE,
                                              nullptr, nullptr);
    if (pIrp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pIrp->RequestorMode = UserMode;
    pIrp->Tail.Overlay.OriginalFileObject = pFile;
    IoGetNextIrpStackLocation(pIrp)->FileObject = pFile;
    return SendAndWait(pTop, pIrp, pInformation);
}
