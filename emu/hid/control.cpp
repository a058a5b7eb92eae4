// Control requests of the HID stack: one URB, sent down and waited for.
//
// A request of an application of this stack (an LED report, a captured enumeration) counts as busy while it
// is below, so that removal waits for it.
#include "device.h"

static NTSTATUS NTAPI UrbCompleted(PDEVICE_OBJECT, PIRP, PVOID pContext)
{
    KeSetEvent(static_cast<PKEVENT>(pContext), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SendUrb(HidDevice* pHid, PURB pUrb)
{
    PIRP pIrp = IoAllocateIrp(pHid->pLower->StackSize, FALSE);
    if (!pIrp) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    pIrp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    pNext->Parameters.Others.Argument1 = pUrb;
    IoSetCompletionRoutine(pIrp, UrbCompleted, &done, TRUE, TRUE, TRUE);
    IoCallDriver(pHid->pLower, pIrp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    NTSTATUS status = pIrp->IoStatus.Status;
    IoFreeIrp(pIrp);
    return status;
}

static USHORT Word(const UCHAR* pAt)
{
    return (USHORT)(pAt[0] | pAt[1] << 8);
}

// GET_DESCRIPTOR from device (recipient 0) or interface (recipient 1).
static bool BuildDescriptor(PURB pUrb, const UCHAR* pSetup, PUCHAR pBuffer, ULONG ulLength)
{
    if ((pSetup[0] != 0x80 && pSetup[0] != 0x81) || pSetup[1] != 6) {
        return false;
    }
    auto& urb = pUrb->UrbControlDescriptorRequest;
    urb.Hdr.Length = sizeof urb;
    urb.Hdr.Function = pSetup[0] == 0x80 ? URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE
                                         : URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE;
    urb.TransferBufferLength = ulLength;
    urb.TransferBuffer = pBuffer;
    urb.Index = pSetup[2];
    urb.DescriptorType = pSetup[3];
    urb.LanguageId = Word(pSetup + 4);
    return true;
}

// A class request to an interface; the reserved bits hold the request type as the wire has it.
static bool BuildClass(PURB pUrb, const UCHAR* pSetup, PUCHAR pBuffer, ULONG ulLength)
{
    if ((pSetup[0] & 0x7F) != 0x21) {
        return false;
    }
    auto& urb = pUrb->UrbControlVendorClassRequest;
    urb.Hdr.Length = sizeof urb;
    urb.Hdr.Function = URB_FUNCTION_CLASS_INTERFACE;
    urb.TransferFlags = pSetup[0] & 0x80 ? USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK : 0;
    urb.TransferBufferLength = ulLength;
    urb.TransferBuffer = pBuffer;
    urb.RequestTypeReservedBits = 0x22;
    urb.Request = pSetup[1];
    urb.Value = Word(pSetup + 2);
    urb.Index = Word(pSetup + 4);
    return true;
}

static bool BuildTransfer(PURB pUrb, const UCHAR* pSetup, PUCHAR pBuffer, ULONG ulLength)
{
    auto& urb = pUrb->UrbControlTransfer;
    urb.Hdr.Length = sizeof urb;
    urb.Hdr.Function = URB_FUNCTION_CONTROL_TRANSFER;
    urb.TransferFlags = USBD_DEFAULT_PIPE_TRANSFER;
    if (pSetup[0] & 0x80) {
        urb.TransferFlags |= USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    }
    urb.TransferBufferLength = ulLength;
    urb.TransferBuffer = pBuffer;
    RtlCopyMemory(urb.SetupPacket, pSetup, sizeof urb.SetupPacket);
    return true;
}

// Reads back how many bytes were moved: the length lies at the same place in all three layouts.
static ULONG MovedBytes(const URB& urb, ULONG ulAsked)
{
    ULONG ulMoved = urb.UrbControlTransfer.TransferBufferLength;
    return ulMoved < ulAsked ? ulMoved : ulAsked;
}

NTSTATUS EmuHidControl(PDEVICE_OBJECT pDevice, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength,
                       EmuHidRoute Route)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HidDevice* pHid = HidOf(pDevice);
    URB urb;
    RtlZeroMemory(&urb, sizeof urb);
    auto pBuild = Route == EmuHidRouteDescriptor ? BuildDescriptor
                  : Route == EmuHidRouteClass    ? BuildClass
                                                 : BuildTransfer;
    if (!pBuild(&urb, pSetup, pBuffer, *pulLength)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!Enter(pHid)) {
        return STATUS_DEVICE_NOT_READY;
    }
    NTSTATUS status = SendUrb(pHid, &urb);
    Leave(pHid);
    *pulLength = MovedBytes(urb, *pulLength);
    return status;
}

NTSTATUS EmuHidSendLed(PDEVICE_OBJECT pDevice, UCHAR ucLeds, EmuHidRoute Route)
{
    static const UCHAR ucSetReport[8] = {0x21, 9, 0, 2, 0, 0, 1, 0};
    ULONG ulLength = 1;
    return EmuHidControl(pDevice, ucSetReport, &ucLeds, &ulLength, Route);
}
