// submit.h - what goes out to a keyboard from the driver itself, and the words for it.
#pragma once

#include "ground/ground.h"

// submit.cpp: the driver's own requests to a keyboard. IRQL = PASSIVE.
// A request of the control pipe in the words of its setup packet. For the descriptor functions usValue is
// type and index of the descriptor, usIndex the language, and ucRequest follows from the function.
struct SetupRequest {
    USHORT usFunction; // of the URB
    UCHAR ucRequest;
    ULONG ulFlags; // of the transfer
    USHORT usValue;
    USHORT usIndex;
};

// The class and vendor requests of the HID field.
enum : UCHAR { CLASS_REQUEST_TYPE = 0x22, HID_GET_REPORT = 1, HID_SET_REPORT = 9 };
enum : USHORT { HID_OUTPUT_REPORT = 0x0200 }; // its report ID in the low byte

NTSTATUS SubmitUrbSync(PDEVICE_OBJECT device, PURB pUrb);
NTSTATUS ReadFromKeyboard(PDEVICE_OBJECT device, const SetupRequest& request, PUCHAR pBuffer, ULONG ulBytes);
NTSTATUS WriteToKeyboard(PDEVICE_OBJECT device, const SetupRequest& request, PUCHAR pBuffer, ULONG ulBytes);

// leds.cpp: the lock LEDs, their two encodings, and how the driver itself sets them. IRQL any but where it is said
enum : USHORT { LED_REPORT_NUM = 1, LED_REPORT_CAPS = 2, LED_REPORT_SCROLL = 4 };
USHORT LedReportToFlags(USHORT usReport);
USHORT LedFlagsToReport(USHORT usFlags);
NTSTATUS SendLedReport(PDEVICE_OBJECT device, USHORT usFlags); // PASSIVE

// names.cpp: the field's names, for trace output. IRQL any
const char* UrbFunctionName(USHORT usFunction);
const char* DescriptorTypeName(UCHAR ucType);
const char* StandardRequestName(UCHAR ucRequest);
const char* InterfaceProtocolName(UCHAR ucProtocol);
