// control.cpp - control transfers, LED output reports and descriptor requests.
//
// From them the driver learns the keyboard's type (descriptors.cpp), its control pipe and its LEDs, and with
// the macro feature on it lets the Scroll Lock LED show the macro mode.
#include "usb/usb.h"

#include "log/events.h"
#include "log/log.h"
#include "macro/fields.h"
#include "usb/ledfields.h"

namespace
{
enum : UCHAR { REQUEST_GET_DESCRIPTOR = 6, REQUEST_SET_DESCRIPTOR = 7, REQUEST_GET_INTERFACE = 10 };
enum : USHORT { VALUE_REPORT_DESCRIPTOR = 0x2200 };

// Class SET_REPORT, output report 0, one byte.
const UCHAR SetLedSetup[8] = {0x21, 0x09, 0x00, 0x02, 0x00, 0x00, 0x01, 0x00};

void DumpTransfer(const Transfer& transfer)
{
    if (transfer.pBuf != nullptr) {
        LogHexDump("(ShowURBInfo) TransferBuffer", transfer.ulLen, transfer.pBuf);
    } else if (transfer.pMdl != nullptr) {
        DumpMdl("(ShowURBInfo) TransferBufferMDL", transfer.pMdl);
    }
}

// Whether an LED output report went out, in the words of the wire.
bool IsLedTransfer(const Transfer& transfer)
{
    const auto& control = transfer.pUrb->UrbControlTransfer;
    return (control.TransferFlags & USBD_TRANSFER_DIRECTION_IN) == 0 && transfer.pBuf != nullptr &&
           transfer.ulLen != 0 && RtlEqualMemory(control.SetupPacket, SetLedSetup, sizeof(SetLedSetup));
}

// The same in the words of the stack above; most USB stacks turn the request into the transfer.
bool IsLedPacket(const Transfer& transfer)
{
    const auto& request = transfer.pUrb->UrbControlVendorClassRequest;
    return (request.TransferFlags & USBD_TRANSFER_DIRECTION_IN) == 0 && transfer.pBuf != nullptr &&
           transfer.ulLen == 1 && request.RequestTypeReservedBits == CLASS_REQUEST_TYPE &&
           request.Request == HID_SET_REPORT && request.Value == HID_OUTPUT_REPORT && request.Index == 0;
}

// An LED output report has reached the keyboard.
void RememberLeds(PDEVICE_OBJECT device, UCHAR ucReport)
{
    LedFields& leds = FieldsOf<LedFields>(device);
    WriteShared(leds.usLedReport, ucReport);
    WriteShared(leds.usLedFlags, LedReportToFlags(ucReport));
}
} // namespace

// Dumps what an MDL describes; one that cannot be mapped is not dumped.
void DumpMdl(const char* pszTitle, PMDL pMdl)
{
    if (!IsLogOn(LOG_TRAFFIC)) {
        return;
    }
    const void* pBytes = pMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)
                             ? pMdl->MappedSystemVa
                             : MmMapLockedPagesSpecifyCache(pMdl, KernelMode, MmCached, nullptr, FALSE,
                                                            NormalPagePriority | MdlMappingNoExecute);
    if (pBytes != nullptr) {
        LogHexDump(pszTitle, MmGetMdlByteCount(pMdl), pBytes);
    }
}

// A control transfer with its setup packet.
// IRQL <= DISPATCH. Fails: never.
void InspectControlTransfer(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion)
{
    const auto& control = transfer.pUrb->UrbControlTransfer;
    const UCHAR* pSetup = control.SetupPacket;
    WriteShared(FieldsOf<LedFields>(device).ulControlPipe,
                static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(control.PipeHandle)));
    DiagSetupPacket(pSetup);
    USHORT usValue = static_cast<USHORT>(pSetup[2] | pSetup[3] << 8);
    if (usValue == VALUE_REPORT_DESCRIPTOR) {
        LogHexDump("(ShowURBInfo) HID class report descriptor", transfer.ulLen, transfer.pBuf);
    } else if (pSetup[1] == REQUEST_GET_DESCRIPTOR || pSetup[1] == REQUEST_SET_DESCRIPTOR ||
               pSetup[1] == REQUEST_GET_INTERFACE) {
        DiagDescriptor(device, transfer.pBuf, transfer.ulLen, ucCompletion);
    } else {
        DumpTransfer(transfer);
    }
    if (ucCompletion && IsLedTransfer(transfer)) {
        RememberLeds(device, transfer.pBuf[0]);
    }
}

// A descriptor asked for without a setup packet.
// IRQL <= DISPATCH. Fails: never.
void InspectDescriptorRequest(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion)
{
    const auto& request = transfer.pUrb->UrbControlDescriptorRequest;
    Trace(DescriptorRequest, IndexOf(device), ucCompletion, DescriptorTypeName(request.DescriptorType),
          request.Index);
    if (ucCompletion && transfer.pBuf != nullptr) {
        DiagDescriptor(device, transfer.pBuf, transfer.ulLen, 1);
    } else {
        DumpTransfer(transfer);
    }
}

// A class request to the interface; an LED report shows the macro mode while its feature is on.
// IRQL <= DISPATCH. Owns: the one LED byte is rewritten in place. Fails: never.
void InspectClassRequest(PDEVICE_OBJECT device, const Transfer& transfer, UCHAR ucCompletion)
{
    DumpTransfer(transfer);
    if (!IsLedPacket(transfer)) {
        return;
    }
    if (ucCompletion) {
        RememberLeds(device, transfer.pBuf[0]);
        return;
    }
    LogHexDump("(ShowURBInfo) LED-Packet is going down", transfer.ulLen, transfer.pBuf);
    if (ReadShared(SettingsOfMacro.ucKorvexLEDDisabled) == 0 &&
        ReadShared(SettingsOfMacro.ulKorvexHotkey) != 0) {
        UCHAR ucScroll = ReadShared(GlobalMacro.ucKorvexMode) ? LED_REPORT_SCROLL : 0;
        transfer.pBuf[0] = static_cast<UCHAR>((transfer.pBuf[0] & ~LED_REPORT_SCROLL) | ucScroll);
        LogHexDump("(ShowURBInfo) modified LED-Packet is going down", transfer.ulLen, transfer.pBuf);
    }
}
