// intercept.cpp - the road of a read of the interrupt pipe.
//
//   way down    answer.cpp: is something queued to answer it with?  else on to the keyboard
//   completed   modifier word ──► the first of: macro mode, discard mode, point of sale, report engine
//
// Interfaces of another kind, empty transfers and the controllers' foreign report IDs pass untouched, and so
// does a completed rollover report. The report is rewritten in place, before the HID stack sees it.
#include "usb/usb.h"

#include "control/fields.h"
#include "control/notification.h"
#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/macro.h"
#include "report/report.h"
#include "usb/roadfields.h"

namespace
{
bool IsForeignReport(ULONG ulKbdType, UCHAR ucReportId)
{
    return (ulKbdType == JaalaaEXTENDEDKbdType && ucReportId == 3) ||
           (ulKbdType == ChicEXTENDEDKbdType && ucReportId == 1);
}

// Too many keys at once: the key positions are all 0x01, whatever the modifiers are; the report engine leaves alone
// only what IsAllRollover means.
bool AreKeysRollover(const Transfer& read)
{
    if (read.ulLen < 8) {
        return false;
    }
    for (ULONG i = 2; i < 8; i++) {
        if (read.pBuf[i] != 0x01) {
            return false;
        }
    }
    return true;
}

void NotifyDiscardedEscape(PDEVICE_OBJECT device)
{
    KeyDefinition definition = {}; // no definition any more: ulId 0
    (void)GetDefinitionOfType(device, 11, &definition);
    (void)QueueEvent(device, definition.ulId, 1, 0, NOTIFY_SOURCE_REPORT);
    SignalNotifyEvent(device);
}

// The system sees nothing; modifier changes and lock keys are held back for the time after, Esc is told.
void PassDiscardMode(PDEVICE_OBJECT device, const Transfer& read)
{
    UCHAR ucModifiers = read.pBuf[0];
    if (ExchangeShared(GlobalRoad.ucDiscardLastModifiers, ucModifiers) != ucModifiers) {
        (void)AddDiscardedPacket(device, &ucModifiers, 1); // a full ring drops it
    }
    for (ULONG i = read.ulLen == 8 ? 2 : 1; i < read.ulLen; i++) {
        UCHAR ucUsage = read.pBuf[i];
        if (ucUsage == USAGE_ESCAPE) {
            NotifyDiscardedEscape(device);
        } else if (ucUsage == USAGE_SCROLL_LOCK || ucUsage == USAGE_NUM_LOCK || ucUsage == USAGE_CAPS_LOCK) {
            (void)AddDiscardedPacket(device, &ucUsage, 0); // a full ring drops it
        }
    }
    ULONG ulFrom = read.ulLen == 8 ? 0 : 1;
    RtlZeroMemory(read.pBuf + ulFrom, read.ulLen - ulFrom);
}

// What the keyboard sent goes to the first mode that applies.
void HandleReport(PDEVICE_OBJECT device, const Transfer& read, ULONG ulKbdType)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    NotifyFields& told = FieldsOf<NotifyFields>(device);
    if (read.ulLen == 8) {
        WriteShared(buffers.ucKbdModifiers, read.pBuf[0]);
        UpdateModifierFlags(device, read.pBuf, 8, 1);
    }
    ULONG ulKeyDefTypes = ReadShared(hotkeys.ulKeyDefTypes);
    bool bProcessing = ReadShared(told.ucReportProcessing) == 1;
    const ULONG ulDevice = IndexOf(device);
    if (IsMacroModeReport(ulKeyDefTypes)) {
        Trace(ReportTaken, ulDevice, "macro", {read.pBuf, read.ulLen});
        PassMacroMode(device, read.pBuf, read.ulLen, ulKbdType, ulKeyDefTypes);
    } else if (bProcessing && (ulKeyDefTypes & KEYDEF_DISCARD)) {
        Trace(ReportTaken, ulDevice, "discard", {read.pBuf, read.ulLen});
        PassDiscardMode(device, read);
    } else if (bProcessing && (ulKeyDefTypes & KEYDEF_POINT_OF_SALE)) {
        Trace(ReportTaken, ulDevice, "sale", {read.pBuf, read.ulLen});
        (void)HandleOPOSPacket(device, read.ulLen, read.pBuf);
    } else if (bProcessing && (ulKeyDefTypes & KEYDEF_HOTKEY)) {
        Trace(ReportTaken, ulDevice, "hotkeys", {read.pBuf, read.ulLen});
        (void)DiagUSBPacket(device, read.ulLen, read.pBuf); // a report without a handler goes on as it is
    } else {
        Trace(ReportTaken, ulDevice, "none", {read.pBuf, read.ulLen});
    }
}
} // namespace

// The road of one interrupt transfer, in the direction given. Returns what became of a read on its way down.
// IRQL <= DISPATCH. Owns: as ShowURBInfo.
UCHAR InterceptReport(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read, UCHAR ucCompletion)
{
    ULONG ulKbdType = ReadShared(FieldsOf<FrameFields>(device).KbdType);
    if (ulKbdType == OTHERKbdType ||
        (read.pUrb->UrbBulkOrInterruptTransfer.TransferFlags & USBD_TRANSFER_DIRECTION_IN) == 0) {
        return URB_PASS;
    }
    if (read.pBuf == nullptr || read.ulLen == 0) {
        if (read.pMdl != nullptr) {
            DumpMdl("(ShowURBInfo) TransferBufferMDL", read.pMdl);
        }
        return URB_PASS;
    }
    if (IsForeignReport(ulKbdType, read.pBuf[0])) {
        return URB_PASS;
    }
    LogHexDump("(ShowURBInfo) TransferBuffer", read.ulLen, read.pBuf);
    if (!ucCompletion) {
        return AnswerRead(device, Irp, read);
    }
    if (AreKeysRollover(read)) {
        Trace(Rollover, IndexOf(device), {read.pBuf, read.ulLen});
    } else {
        HandleReport(device, read, ulKbdType);
    }
    return URB_PASS;
}
