// leds.cpp - the lock LEDs in the HID output report and as the platform's keyboard indicators, and the report
// with which the driver itself sets them.
#include "usb/submit.h"

#include "control/requests.h"
#include "usb/ledfields.h"

USHORT LedReportToFlags(USHORT usReport)
{
    return static_cast<USHORT>((usReport & LED_REPORT_NUM ? LED_FLAG_NUM : 0) |
                               (usReport & LED_REPORT_CAPS ? LED_FLAG_CAPS : 0) |
                               (usReport & LED_REPORT_SCROLL ? LED_FLAG_SCROLL : 0));
}

USHORT LedFlagsToReport(USHORT usFlags)
{
    return static_cast<USHORT>((usFlags & LED_FLAG_NUM ? LED_REPORT_NUM : 0) |
                               (usFlags & LED_FLAG_CAPS ? LED_REPORT_CAPS : 0) |
                               (usFlags & LED_FLAG_SCROLL ? LED_REPORT_SCROLL : 0));
}

// Sets the LEDs of a keyboard; bits of usFlags that are no LED are dropped. The record tells the new LEDs even
// if the keyboard does not get them.
// IRQL = PASSIVE. Fails: no memory, or as SubmitUrbSync.
NTSTATUS SendLedReport(PDEVICE_OBJECT device, USHORT usFlags)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    static const SetupRequest SetReport = {URB_FUNCTION_CLASS_INTERFACE, HID_SET_REPORT,
                                           USBD_TRANSFER_DIRECTION_OUT, HID_OUTPUT_REPORT, 0};
    LedFields& leds = FieldsOf<LedFields>(device);
    USHORT usReport = LedFlagsToReport(usFlags);
    WriteShared(leds.usLedReport, usReport);
    WriteShared(leds.usLedFlags, LedReportToFlags(usReport));

    PUCHAR pReport = static_cast<PUCHAR>(AllocateZeroed(NonPagedPoolNx, 1));
    if (pReport == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *pReport = static_cast<UCHAR>(usReport);
    NTSTATUS status = WriteToKeyboard(device, SetReport, pReport, 1);
    ExFreePoolWithTag(pReport, POOL_TAG);
    return status;
}
