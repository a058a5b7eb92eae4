// usb.h - what goes between the HID stack and the USB stack, caught on its way down and up.
#pragma once

#include "driver/driver.h"

// internalioctl.cpp: a request's way down and up
DispatchRoutine DispatchInternalIoctl;
NTSTATUS FilterInternalIoctl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PUCHAR pucComplete);
IO_COMPLETION_ROUTINE InternalIoctlCompletion;

// urb.cpp: which URB is it
// What became of a request on its way down.
enum : UCHAR { URB_PASS = 0, URB_ANSWERED = 1, URB_PARKED = 2 };
UCHAR ShowURBInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp, UCHAR ucCompletion);
void RememberRequestedLength(PIRP Irp); // behind IoCopyCurrentIrpStackLocationToNext

// One transfer as the report road sees it.
struct Transfer {
    PURB pUrb;
    PUCHAR pBuf; // TransferBuffer, null when the transfer names only an MDL
    ULONG ulLen; // way down: what the stack asked for; completed: what came, never more than that
    PMDL pMdl;   // logged alone, never rewritten
};

// answer.cpp: reads that never reach the keyboard
UCHAR AnswerRead(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read); // way down
NTSTATUS CompleteAnsweredRead(PDEVICE_OBJECT device, PIRP Irp);          // in order, without recursion

// intercept.cpp: the road of a read
UCHAR InterceptReport(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read, UCHAR ucCompletion);

// control.cpp: control transfers, LED reports and descriptor requests
void InspectControlTransfer(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion);
void InspectDescriptorRequest(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion);
void InspectClassRequest(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion);
void DumpMdl(const char* pszTitle, PMDL pMdl);

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

// pendingreads.cpp: IRQL <= DISPATCH. Lock: takes PendingIrpLock.
NTSTATUS AddPendingIrp(PDEVICE_OBJECT device, PIRP Irp);
bool RemovePendingIrp(PDEVICE_OBJECT device, PIRP Irp); // true: the canceller completes it
bool CancelPendingRead(PDEVICE_OBJECT device);          // false: none was pending

// discard.cpp: IRQL <= DISPATCH. Lock: takes DiscardLock.
NTSTATUS AddDiscardedPacket(PDEVICE_OBJECT device, const UCHAR* pValue, UCHAR ucIsModifier);
NTSTATUS GetDiscardedPacketCount(ULONG ulDeviceIndex, PULONG pulCount);
NTSTATUS GetDiscardedPacket(ULONG ulDeviceIndex, DiscardEntry* pEntry);

// descriptors.cpp: what the keyboard says of itself
void DiagSetupPacket(const UCHAR* pPacket);
void DiagDescriptor(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucCompleted);

// names.cpp: the field's names, for trace output
const char* UrbFunctionName(USHORT usFunction);
const char* DescriptorTypeName(UCHAR ucType);
const char* StandardRequestName(UCHAR ucRequest);
const char* InterfaceProtocolName(UCHAR ucProtocol);

// leds.cpp: the lock LEDs, their two encodings, and how the driver itself sets them
enum : USHORT { LED_REPORT_NUM = 1, LED_REPORT_CAPS = 2, LED_REPORT_SCROLL = 4 };
USHORT LedReportToFlags(USHORT usReport);
USHORT LedFlagsToReport(USHORT usFlags);
NTSTATUS SendLedReport(PDEVICE_OBJECT device, USHORT usFlags); // PASSIVE
