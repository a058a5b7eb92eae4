// What a keyboard does with each URB: reads wait, control requests of every form are brought to one form and
// answered.
//
// Descriptor, class and vendor requests become the setup packet that the wire would carry, so that the
// tables, the rules, the hook and the observers see one kind of request only.
#include "device.h"

// How a URB function is served, the size that its layout has at least, and, for a control request, the type
// byte of its setup packet; a class or vendor request gets its direction from the transfer flags.
enum UrbForm { ConfigurationForm, PipeForm, InterruptForm, SetupForm, DescriptorForm, RequestForm };

struct UrbRow {
    USHORT usFunction;
    UrbForm Form;
    USHORT usLayout;
    UCHAR ucType;
};

enum : USHORT {
    TransferLayout = sizeof(struct _URB_CONTROL_TRANSFER),
    DescriptorLayout = sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
    RequestLayout = sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST)
};

static const UrbRow Rows[] = {
    {URB_FUNCTION_SELECT_CONFIGURATION, ConfigurationForm, sizeof(struct _URB_SELECT_CONFIGURATION), 0},
    {URB_FUNCTION_ABORT_PIPE, PipeForm, sizeof(struct _URB_PIPE_REQUEST), 0},
    {URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, PipeForm, sizeof(struct _URB_PIPE_REQUEST), 0},
    {URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, InterruptForm, sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
     0},
    {URB_FUNCTION_CONTROL_TRANSFER, SetupForm, TransferLayout, 0},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, DescriptorForm, DescriptorLayout, 0x80},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, DescriptorForm, DescriptorLayout, 0x81},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT, DescriptorForm, DescriptorLayout, 0x82},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE, DescriptorForm, DescriptorLayout, 0x00},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE, DescriptorForm, DescriptorLayout, 0x01},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT, DescriptorForm, DescriptorLayout, 0x02},
    {URB_FUNCTION_CLASS_DEVICE, RequestForm, RequestLayout, 0x20},
    {URB_FUNCTION_CLASS_INTERFACE, RequestForm, RequestLayout, 0x21},
    {URB_FUNCTION_CLASS_ENDPOINT, RequestForm, RequestLayout, 0x22},
    {URB_FUNCTION_CLASS_OTHER, RequestForm, RequestLayout, 0x23},
    {URB_FUNCTION_VENDOR_DEVICE, RequestForm, RequestLayout, 0x40},
    {URB_FUNCTION_VENDOR_INTERFACE, RequestForm, RequestLayout, 0x41},
    {URB_FUNCTION_VENDOR_ENDPOINT, RequestForm, RequestLayout, 0x42},
    {URB_FUNCTION_VENDOR_OTHER, RequestForm, RequestLayout, 0x43},
};

static const UrbRow* FindRow(USHORT usFunction)
{
    for (const UrbRow& row : Rows) {
        if (row.usFunction == usFunction) {
            return &row;
        }
    }
    return nullptr;
}

PUCHAR TransferBufferOf(PVOID pBuffer, PMDL pMdl)
{
    if (pBuffer || !pMdl) {
        return static_cast<PUCHAR>(pBuffer);
    }
    return static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(pMdl, NormalPagePriority | MdlMappingNoExecute));
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

PipeRequest PipeRequestOf(PURB pUrb)
{
    const UrbRow* pRow = FindRow(pUrb->UrbHeader.Function);
    auto& transfer = pUrb->UrbControlTransfer; // buffer, MDL and length lie at one place in all three layouts
    PipeRequest request;
    request.pBuffer = TransferBufferOf(transfer.TransferBuffer, transfer.TransferBufferMDL);
    request.pulLength = &transfer.TransferBufferLength;
    if (pRow->Form == SetupForm) {
        RtlCopyMemory(request.ucSetup, transfer.SetupPacket, sizeof request.ucSetup);
    } else if (pRow->Form == DescriptorForm) { // the language is the interface's number where it is asked
        auto& urb = pUrb->UrbControlDescriptorRequest;
        UCHAR ucRequest = pRow->ucType & 0x80 ? 6 : 7;
        PutSetup(request.ucSetup, pRow->ucType, ucRequest, (USHORT)(urb.DescriptorType << 8 | urb.Index),
                 urb.LanguageId, urb.TransferBufferLength);
    } else {
        auto& urb = pUrb->UrbControlVendorClassRequest;
        UCHAR ucDirection = urb.TransferFlags & USBD_TRANSFER_DIRECTION_IN ? 0x80 : 0;
        PutSetup(request.ucSetup, pRow->ucType | ucDirection, urb.Request, urb.Value, urb.Index,
                 urb.TransferBufferLength);
    }
    return request;
}

// Serves a control request that names a buffer when it has a length, and only then. IRQL <= DISPATCH.
static NTSTATUS ServeControl(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    PipeRequest request = PipeRequestOf(pUrb);
    if ((*request.pulLength != 0) != (request.pBuffer != nullptr)) {
        *request.pulLength = 0;
        CompleteUrb(pIrp, pUrb, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return ServeByRules(pKeyboard, pIrp, pUrb);
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

// A pipe request; a reset changes nothing here. IRQL <= DISPATCH.
static NTSTATUS ServePipe(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    if (pUrb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE) {
        PurgeReads(pKeyboard, STATUS_CANCELLED);
    }
    CompleteUrb(pIrp, pUrb, STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

NTSTATUS SubmitUrb(KeyboardDevice* pKeyboard, PIRP pIrp)
{
    auto pUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(pIrp)->Parameters.Others.Argument1);
    if (!pUrb) {
        return CompleteIrp(pIrp, STATUS_INVALID_PARAMETER);
    }
    const UrbRow* pRow = FindRow(pUrb->UrbHeader.Function);
    if (!pRow || pUrb->UrbHeader.Length < pRow->usLayout) {
        CompleteUrb(pIrp, pUrb, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    switch (pRow->Form) {
    case ConfigurationForm:
        return ServeConfiguration(pKeyboard, pIrp, pUrb);
    case PipeForm:
        return ServePipe(pKeyboard, pIrp, pUrb);
    case InterruptForm:
        return ServeInterrupt(pKeyboard, pIrp, pUrb);
    default:
        return ServeControl(pKeyboard, pIrp, pUrb);
    }
}
