// submit.cpp - the driver's own requests to a keyboard: one URB, sent below the filter and waited for.
//
//   caller ── SubmitUrbSync ── request built for the lower device ──► USB stack
//                                                 event ◄── completed, whoever completes it
//
// The request goes to the device below, so it never meets the roads of the filter. There is no time-out: a
// keyboard that is removed meanwhile has its requests completed by the USB stack, and the removal waits here
// for whoever is still sending. Runs in the caller's thread at PASSIVE_LEVEL, several at once.
#include "usb/usb.h"

#include "log/trace.h"

// Runs the request at the lower device to its end. The event and the status block lie on this stack: nothing
// returns before the USB stack let go of them.
// IRQL = PASSIVE. Fails: no memory for the request, or as the USB stack says.
static NTSTATUS RunUrb(PDEVICE_OBJECT pLower, PURB pUrb)
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

// The URB's own status is traced, not returned.
// IRQL = PASSIVE. Owns: holds the device meanwhile. Fails: the device is being removed or is no keyboard, no
// memory for the request, or as the USB stack says.
NTSTATUS SubmitUrbSync(PDEVICE_OBJECT device, PURB pUrb)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    if (!AcquireDevice(device)) {
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = RunUrb(FilterContextOf(device)->pLowerDevice, pUrb);
    Trace("(SubmitUrbSync) %s, status 0x%08x, URB status 0x%08x\n", UrbFunctionName(pUrb->UrbHeader.Function),
          static_cast<unsigned>(status), static_cast<unsigned>(pUrb->UrbHeader.Status));
    ReleaseDevice(device);
    return status;
}
