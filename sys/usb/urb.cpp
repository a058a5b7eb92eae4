// urb.cpp - which USB request block a request carries, and whose business it is.
//
//   0x0009 interrupt read        intercept.cpp, the road of a read
//   0x0008 control transfer      control.cpp
//   0x000B, 0x0028 descriptors   control.cpp
//   0x001B class request         control.cpp
//
// The block comes from another driver: its header length is checked before anything behind the header is read.
#include "usb/usb.h"

#include "log/events.h"

namespace
{
// What the stack asked for, kept while the request is below: the mark tells it from a request never passed.
const ULONG_PTR RequestedMark = static_cast<ULONG_PTR>(1) << 32;

PURB UrbOf(PIRP Irp)
{
    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(Irp);
    if (pStack->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB) {
        return nullptr;
    }
    PURB pUrb = static_cast<PURB>(pStack->Parameters.Others.Argument1);
    return pUrb != nullptr && pUrb->UrbHeader.Length >= sizeof(pUrb->UrbHeader) ? pUrb : nullptr;
}

// The transfer fields of one URB layout. Returns false when the block is too short for its layout.
template <typename Layout> bool ReadLayout(PURB pUrb, const Layout& layout, Transfer* pTransfer)
{
    if (pUrb->UrbHeader.Length < sizeof(layout)) {
        return false;
    }
    pTransfer->pUrb = pUrb;
    pTransfer->pBuf = static_cast<PUCHAR>(layout.TransferBuffer);
    pTransfer->ulLen = layout.TransferBufferLength;
    pTransfer->pMdl = layout.TransferBufferMDL;
    return true;
}

bool ReadTransfer(PURB pUrb, Transfer* pTransfer)
{
    switch (pUrb->UrbHeader.Function) {
    case URB_FUNCTION_CONTROL_TRANSFER:
        return ReadLayout(pUrb, pUrb->UrbControlTransfer, pTransfer);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return ReadLayout(pUrb, pUrb->UrbBulkOrInterruptTransfer, pTransfer);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
        return ReadLayout(pUrb, pUrb->UrbControlDescriptorRequest, pTransfer);
    case URB_FUNCTION_CLASS_INTERFACE:
        return ReadLayout(pUrb, pUrb->UrbControlVendorClassRequest, pTransfer);
    default:
        return false;
    }
}

// Completed, a transfer brought what the USB stack says, but never more than was asked for.
void BoundByRequest(PIRP Irp, Transfer* pTransfer)
{
    auto ulKept = reinterpret_cast<ULONG_PTR>(IoGetCurrentIrpStackLocation(Irp)->Parameters.Others.Argument4);
    ULONG ulRequested = static_cast<ULONG>(ulKept);
    if ((ulKept & RequestedMark) != 0 && pTransfer->ulLen > ulRequested) {
        pTransfer->ulLen = ulRequested;
    }
}
// The first interface's record; the USB stack fills in its class. No configuration: the keyboard has none from
// now on.
void TraceConfiguration(DeviceContext* pContext, PURB pUrb, UCHAR ucCompletion)
{
    const auto& selected = pUrb->UrbSelectConfiguration;
    const auto& first = selected.Interface;
    if (pUrb->UrbHeader.Length < offsetof(struct _URB_SELECT_CONFIGURATION, ConfigurationHandle)) {
        return;
    }
    if (selected.ConfigurationDescriptor == nullptr) {
        Trace(Deconfigured, IndexOf(pContext), ucCompletion);
    } else if (pUrb->UrbHeader.Length >= offsetof(struct _URB_SELECT_CONFIGURATION, Interface.Pipes)) {
        Trace(ConfigurationSelected, IndexOf(pContext), ucCompletion, first.InterfaceNumber,
              first.AlternateSetting, first.Class, first.SubClass, InterfaceProtocolName(first.Protocol),
              first.NumberOfPipes);
    }
}
} // namespace

// Keeps what the stack asked for in the request's own location; the copy for the lower driver has it not.
void RememberRequestedLength(PIRP Irp)
{
    PURB pUrb = UrbOf(Irp);
    Transfer transfer;
    if (pUrb != nullptr && ReadTransfer(pUrb, &transfer)) {
        IoGetCurrentIrpStackLocation(Irp)->Parameters.Others.Argument4 =
            reinterpret_cast<PVOID>(RequestedMark | transfer.ulLen);
    }
}

// Looks at the URB of a request, on its way down (ucCompletion 0) or completed (1).
// IRQL <= DISPATCH. Owns: nothing, unless it returns URB_PARKED: then the request may be gone already.
UCHAR ShowURBInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp, UCHAR ucCompletion)
{
    PURB pUrb = UrbOf(Irp);
    if (pUrb == nullptr || pUrb->UrbHeader.Function > URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE) {
        return URB_PASS;
    }
    Trace(UrbSeen, IndexOf(DeviceObject), ucCompletion, UrbFunctionName(pUrb->UrbHeader.Function));
    if (pUrb->UrbHeader.Function == URB_FUNCTION_SELECT_CONFIGURATION) {
        TraceConfiguration(FilterContextOf(DeviceObject), pUrb, ucCompletion);
    }
    Transfer transfer;
    if (!ReadTransfer(pUrb, &transfer)) {
        return URB_PASS;
    }
    if (ucCompletion) {
        BoundByRequest(Irp, &transfer);
    }
    switch (pUrb->UrbHeader.Function) {
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return InterceptReport(DeviceObject, Irp, transfer, ucCompletion);
    case URB_FUNCTION_CONTROL_TRANSFER:
        InspectControlTransfer(DeviceObject, transfer, ucCompletion);
        return URB_PASS;
    case URB_FUNCTION_CLASS_INTERFACE:
        InspectClassRequest(DeviceObject, transfer, ucCompletion);
        return URB_PASS;
    default:
        InspectDescriptorRequest(DeviceObject, transfer, ucCompletion);
        return URB_PASS;
    }
}
