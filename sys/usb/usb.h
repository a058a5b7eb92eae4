// usb.h - what goes between the HID stack and the USB stack, caught on its way down and up.
#pragma once

#include "ground/ground.h"
#include "usb/pending.h"
#include "usb/submit.h"

// internalioctl.cpp: a request's way down and up
DispatchRoutine DispatchInternalIoctl;
NTSTATUS FilterInternalIoctl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PUCHAR pucComplete);
IO_COMPLETION_ROUTINE InternalIoctlCompletion;

// urb.cpp: which URB is it
// What became of a request on its way down.
enum : UCHAR { URB_PASS = 0, URB_ANSWERED = 1, URB_PARKED = 2 };
UCHAR ShowURBInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp, UCHAR ucCompletion);
void RememberRequestedLength(PIRP Irp); // IRQL any, behind IoCopyCurrentIrpStackLocationToNext

// One transfer as the report road sees it.
struct Transfer {
    PURB pUrb;
    PUCHAR pBuf; // TransferBuffer, null when the transfer names only an MDL
    ULONG ulLen; // way down: what the stack asked for; completed: what came, never more than that
    PMDL pMdl;   // logged alone, never rewritten
};

// answer.cpp: reads that never reach the keyboard
void InitializeAnswers(DeviceContext* pContext);                         // at add-device
UCHAR AnswerRead(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read); // way down
NTSTATUS CompleteAnsweredRead(PDEVICE_OBJECT device, PIRP Irp);          // in order, without recursion

// intercept.cpp: the road of a read
UCHAR InterceptReport(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read, UCHAR ucCompletion);

// control.cpp: control transfers, LED reports and descriptor requests. IRQL <= DISPATCH
void InspectControlTransfer(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion);
void InspectDescriptorRequest(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion);
void InspectClassRequest(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion);
void DumpMdl(const char* pszTitle, PMDL pMdl);

// descriptors.cpp: what the keyboard says of itself
void DiagSetupPacket(const UCHAR* pPacket);
void DiagDescriptor(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucCompleted);
