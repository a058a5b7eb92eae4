// submit.cpp - the driver's own requests to a keyboard, sent below the filter and waited for.
//
//   caller ── ReadFromKeyboard, WriteToKeyboard ── URB ── SubmitUrbSync ──► lower device, USB stack
//                                                             event ◄── completed, whoever completes it
//
// The request goes to the device below, so it never meets the roads of the filter. There is no time-out: a
// keyboard that is removed meanwhile has its requests completed by the USB stack, and the removal waits for
// whoever is still sending. Runs in the caller's thread at PASSIVE_LEVEL, several at once.
#include "usb/submit.h"

#include "ground/sums.h"
#include "log/events.h"

namespace
{
bool IsDescriptorRequest(const SetupRequest& request)
{
    return request.usFunction == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE ||
           request.usFunction == URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE ||
           request.usFunction == URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE;
}

// A transfer without data names no buffer.
void BuildUrb(PURB pUrb, const SetupRequest& request, PVOID pBuffer, ULONG ulBytes)
{
    RtlZeroMemory(pUrb, sizeof(*pUrb));
    pUrb->UrbHeader.Function = request.usFunction;
    PVOID pData = ulBytes != 0 ? pBuffer : nullptr;
    if (IsDescriptorRequest(request)) {
        auto& urb = pUrb->UrbControlDescriptorRequest;
        urb.Hdr.Length = sizeof(urb);
        urb.Reserved0 = request.ulFlags;
        urb.TransferBufferLength = ulBytes;
        urb.TransferBuffer = pData;
        urb.Index = static_cast<UCHAR>(request.usValue);
        urb.DescriptorType = static_cast<UCHAR>(request.usValue >> 8);
        urb.LanguageId = request.usIndex;
        return;
    }
    auto& urb = pUrb->UrbControlVendorClassRequest;
    urb.Hdr.Length = sizeof(urb);
    urb.TransferFlags = request.ulFlags;
    urb.TransferBufferLength = ulBytes;
    urb.TransferBuffer = pData;
    urb.RequestTypeReservedBits = CLASS_REQUEST_TYPE;
    urb.Request = request.ucRequest;
    urb.Value = request.usValue;
    urb.Index = request.usIndex;
}

// How much the keyboard gave; the length lies at the same place in both layouts. A URB that failed gave
// nothing, whatever the request's status says.
ULONG BytesReceived(const URB& urb, ULONG ulBytes)
{
    if (!USBD_SUCCESS(urb.UrbHeader.Status)) {
        return 0;
    }
    return LowerOf(urb.UrbControlVendorClassRequest.TransferBufferLength, ulBytes);
}

// Runs the request at the lower device to its end. The event and the status block lie on this stack: nothing
// returns before the USB stack let go of them.
// IRQL = PASSIVE. Fails: no memory for the request, or as the USB stack says.
NTSTATUS RunUrb(PDEVICE_OBJECT pLower, PURB pUrb)
{
    KEVENT done;
    IO_STATUS_BLOCK result = {};
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIRP pIrp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, pLower, nullptr, 0, nullptr, 0,
                                              TRUE, &done, &result);
    if (pIrp == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    IoGetNextIrpStackLocation(pIrp)->Parameters.Others.Argument1 = pUrb;
    NTSTATUS status = IoCallDriver(pLower, pIrp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = result.Status;
    }
    return status;
}
} // namespace

// The URB's own status is traced, not returned.
// IRQL = PASSIVE. Owns: holds the device meanwhile. Fails: the device is being removed or is no keyboard, no
// memory for the request, or as the USB stack says.
NTSTATUS SubmitUrbSync(PDEVICE_OBJECT device, PURB pUrb)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    const KeyboardReference keyboard(device);
    if (!keyboard.IsHeld()) {
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = RunUrb(FieldsOf<FrameFields>(device).pLowerDevice, pUrb);
    Trace(RequestSent, IndexOf(device), UrbFunctionName(pUrb->UrbHeader.Function), status,
          static_cast<ULONG>(pUrb->UrbHeader.Status));
    return status;
}

// After a success the bytes that the keyboard did not give are zero.
// IRQL = PASSIVE. Fails: as SubmitUrbSync; the buffer's content is then of no worth.
NTSTATUS ReadFromKeyboard(PDEVICE_OBJECT device, const SetupRequest& request, PUCHAR pBuffer, ULONG ulBytes)
{
    URB urb;
    BuildUrb(&urb, request, pBuffer, ulBytes);
    NTSTATUS status = SubmitUrbSync(device, &urb);
    ULONG ulReceived = BytesReceived(urb, ulBytes);
    if (NT_SUCCESS(status) && ulReceived < ulBytes) {
        RtlZeroMemory(pBuffer + ulReceived, ulBytes - ulReceived);
    }
    return status;
}

// IRQL = PASSIVE. Fails: as SubmitUrbSync.
NTSTATUS WriteToKeyboard(PDEVICE_OBJECT device, const SetupRequest& request, PUCHAR pBuffer, ULONG ulBytes)
{
    URB urb;
    BuildUrb(&urb, request, pBuffer, ulBytes);
    return SubmitUrbSync(device, &urb);
}
