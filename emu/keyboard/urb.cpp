// What a keyboard does with each URB: reads wait, control requests of every form are brought to one form and
// answered.
//
// Descriptor, class and vendor requests become the setup packet that the wire would carry, so that the
// tables, the hook and the LED observer see one kind of request only.
#include "device.h"

// A control request on its way through the keyboard.
struct PipeRequest {
    UCHAR ucSetup[8];
    PUCHAR pBuffer;
    PULONG pulLength; // the URB's TransferBufferLength
};

PUCHAR TransferBufferOf(PVOID pBuffer, PMDL pMdl)
{
    if (pBuffer || !pMdl) {
        return static_cast<PUCHAR>(pBuffer);
    }
    return static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(pMdl, NormalPagePriority));
}

static VOID PutSetup(PUCHAR pSetup, UCHAR ucType, UCHAR ucRequest, USHORT usValue, USHORT usIndex,
                     ULONG ulLength)
{
    pSetup[0] = ucType;
    pSetup[1] = ucRequest;
    pSetup[2] = (UCHAR)usValue;
    pSetup[3] = (UCHAR)(usValue >> 8);
    pSetup[4] = (UCHAR)usIndex;
    pSetup[5] = (UCHAR)(usIndex >> 8);
    pSetup[6] = (UCHAR)ulLength;
    pSetup[7] = (UCHAR)(ulLength >> 8);
}

// Answers a control request and completes it. Output reports are shown to the LED observer. IRQL <= DISPATCH.
static NTSTATUS ServeControl(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb, const PipeRequest& request)
{
    const UCHAR* pSetup = request.ucSetup;
    bool bOutputReport = (pSetup[0] & 0xE0) == 0x20 && pSetup[1] == 9 && pSetup[3] == 2;
    if (*request.pulLength != 0 && !request.pBuffer) {
        *request.pulLength = 0;
        CompleteUrb(pIrp, pUrb, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (bOutputReport && pKeyboard->Options.pLed) {
        pKeyboard->Options.pLed(pKeyboard->Options.pLedContext, request.pBuffer, *request.pulLength);
    }
    NTSTATUS status = STATUS_NOT_SUPPORTED;
    if (pKeyboard->Options.pHook) {
        ULONG ulLength = *request.pulLength;
        status =
            pKeyboard->Options.pHook(pKeyboard->Options.pHookContext, pSetup, request.pBuffer, &ulLength);
        if (status != STATUS_NOT_SUPPORTED) {
            *request.pulLength = ulLength;
        }
    }
    if (status == STATUS_NOT_SUPPORTED) {
        status = AnswerControl(pKeyboard, pSetup, request.pBuffer, request.pulLength);
    }
    CompleteUrb(pIrp, pUrb, status);
    return status;
}

// GET_DESCRIPTOR: the language word is the interface number when the recipient is an interface. IRQL <=
// DISPATCH.
static NTSTATUS ServeDescriptor(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb, UCHAR ucType)
{
    auto& urb = pUrb->UrbControlDescriptorRequest;
    PipeRequest request;
    request.pBuffer = TransferBufferOf(urb.TransferBuffer, urb.TransferBufferMDL);
    request.pulLength = &urb.TransferBufferLength;
    PutSetup(request.ucSetup, ucType, 6, (USHORT)(urb.DescriptorType << 8 | urb.Index), urb.LanguageId,
             urb.TransferBufferLength);
    return ServeControl(pKeyboard, pIrp, pUrb, request);
}

// A class or vendor request; `ucType` holds kind and recipient. IRQL <= DISPATCH.
static NTSTATUS ServeClassOrVendor(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb, UCHAR ucType)
{
    auto& urb = pUrb->UrbControlVendorClassRequest;
    if (urb.TransferFlags & USBD_TRANSFER_DIRECTION_IN) {
        ucType |= 0x80;
    }
    PipeRequest request;
    request.pBuffer = TransferBufferOf(urb.TransferBuffer, urb.TransferBufferMDL);
    request.pulLength = &urb.TransferBufferLength;
    PutSetup(request.ucSetup, ucType, urb.Request, urb.Value, urb.Index, urb.TransferBufferLength);
    return ServeControl(pKeyboard, pIrp, pUrb, request);
}

static NTSTATUS ServeTransfer(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    auto& urb = pUrb->UrbControlTransfer;
    PipeRequest request;
    request.pBuffer = TransferBufferOf(urb.TransferBuffer, urb.TransferBufferMDL);
    request.pulLength = &urb.TransferBufferLength;
    RtlCopyMemory(request.ucSetup, urb.SetupPacket, sizeof request.ucSetup);
    return ServeControl(pKeyboard, pIrp, pUrb, request);
}

// SELECT_CONFIGURATION: hands out the pipe of the first interrupt-IN endpoint. IRQL <= DISPATCH.
static NTSTATUS ServeConfiguration(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    auto& urb = pUrb->UrbSelectConfiguration;
    const UCHAR* pEndpoint = FindEndpoint(pKeyboard->pDescriptors);
    if (urb.ConfigurationDescriptor && pEndpoint) {
        const UCHAR* pInterface = pKeyboard->pDescriptors->pConfiguration + 9;
        urb.ConfigurationHandle = pKeyboard;
        urb.Interface.InterfaceHandle = pKeyboard;
        urb.Interface.Class = pInterface[5];
        urb.Interface.SubClass = pInterface[6];
        urb.Interface.Protocol = pInterface[7];
        urb.Interface.NumberOfPipes = 1;
        urb.Interface.Pipes[0].MaximumPacketSize = (USHORT)(pEndpoint[4] | pEndpoint[5] << 8);
        urb.Interface.Pipes[0].EndpointAddress = pEndpoint[2];
        urb.Interface.Pipes[0].Interval = pEndpoint[6];
        urb.Interface.Pipes[0].PipeType = UsbdPipeTypeInterrupt;
        urb.Interface.Pipes[0].PipeHandle = (USBD_PIPE_HANDLE)&pKeyboard->Waiting;
    }
    CompleteUrb(pIrp, pUrb, STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

// An interrupt transfer: only reads of the one interrupt pipe. A stack that never selected a configuration
// has no pipe handle and sends null. IRQL <= DISPATCH.
static NTSTATUS ServeInterrupt(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    auto& urb = pUrb->UrbBulkOrInterruptTransfer;
    bool bOurPipe = !urb.PipeHandle || urb.PipeHandle == (USBD_PIPE_HANDLE)&pKeyboard->Waiting;
    bool bBuffer = urb.TransferBuffer || urb.TransferBufferMDL;
    if (bOurPipe && bBuffer && (urb.TransferFlags & USBD_TRANSFER_DIRECTION_IN)) {
        return WaitForReport(pKeyboard, pIrp, pUrb);
    }
    CompleteUrb(pIrp, pUrb, STATUS_INVALID_PARAMETER);
    return STATUS_INVALID_PARAMETER;
}

// The size that a URB function's layout has at least; 0 for a function that a keyboard does not know.
static USHORT LayoutOf(USHORT usFunction)
{
    switch (usFunction) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
        return sizeof(struct _URB_SELECT_CONFIGURATION);
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        return sizeof(struct _URB_PIPE_REQUEST);
    case URB_FUNCTION_CONTROL_TRANSFER:
        return sizeof(struct _URB_CONTROL_TRANSFER);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
        return sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
        return sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    default:
        return 0;
    }
}

NTSTATUS SubmitUrb(KeyboardDevice* pKeyboard, PIRP pIrp)
{
    auto pUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(pIrp)->Parameters.Others.Argument1);
    USHORT usLayout = LayoutOf(pUrb->UrbHeader.Function);
    if (usLayout == 0 || pUrb->UrbHeader.Length < usLayout) {
        CompleteUrb(pIrp, pUrb, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    switch (pUrb->UrbHeader.Function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
        return ServeConfiguration(pKeyboard, pIrp, pUrb);
    case URB_FUNCTION_CONTROL_TRANSFER:
        return ServeTransfer(pKeyboard, pIrp, pUrb);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return ServeInterrupt(pKeyboard, pIrp, pUrb);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
        return ServeDescriptor(pKeyboard, pIrp, pUrb, 0x80);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
        return ServeDescriptor(pKeyboard, pIrp, pUrb, 0x81);
    case URB_FUNCTION_VENDOR_DEVICE:
        return ServeClassOrVendor(pKeyboard, pIrp, pUrb, 0x40);
    case URB_FUNCTION_VENDOR_INTERFACE:
        return ServeClassOrVendor(pKeyboard, pIrp, pUrb, 0x41);
    case URB_FUNCTION_CLASS_DEVICE:
        return ServeClassOrVendor(pKeyboard, pIrp, pUrb, 0x20);
    case URB_FUNCTION_CLASS_INTERFACE:
        return ServeClassOrVendor(pKeyboard, pIrp, pUrb, 0x21);
    case URB_FUNCTION_ABORT_PIPE:
        PurgeReads(pKeyboard, STATUS_CANCELLED);
        break;
    default: // a pipe reset changes nothing here
        break;
    }
    CompleteUrb(pIrp, pUrb, STATUS_SUCCESS);
    return STATUS_SUCCESS;
}
