// leds.cpp - the lock LEDs in the HID output report and as the platform's keyboard indicators.
#include "usb/usb.h"

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
