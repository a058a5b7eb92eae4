// answer.cpp - reads that are answered above the keyboard, because something is queued for the system.
//
// In this order: a whole report (FIFO), the application's modifier report, a report held back in discard
// mode, the release of inserted keys, inserted keys. What a pop returns decides, not an earlier count.
//
// The stack above reads again from its completion routine, and that read may be answered too, hundreds of
// times in a row. So answered reads are completed one after the other: who comes while another one is
// being completed leaves its read in the list and returns STATUS_PENDING.
//
//   read 1 ──► complete ─┬─► stack reads ──► read 2 answered ──► list ──► STATUS_PENDING
//                        └◄─ back; then complete read 2, and so on until the list is empty
#include "usb/usb.h"

#include "ground/sums.h"
#include "hotkeys/bufferfields.h"
#include "hotkeys/buffers.h"
#include "hotkeys/fields.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/parked.h"
#include "macro/parkedfields.h"
#include "report/keys.h"
#include "usb/pendingfields.h"
#include "usb/roadfields.h"

namespace
{
UCHAR Answered(DeviceContext* pContext, const Transfer& read, const char* pszWith)
{
    Trace(ReadAnswered, IndexOf(pContext), pszWith, {read.pBuf, read.ulLen});
    read.pUrb->UrbHeader.Status = USBD_STATUS_SUCCESS; // the length stays what the stack asked for
    return URB_ANSWERED;
}

NTSTATUS PlaceFifoReport(PDEVICE_OBJECT device, const Transfer& read)
{
    return TakeFifoReport(device, read.pBuf, read.ulLen, "(ShowURBInfo) insertUSBPacket",
                          "(ShowURBInfo) Inserted TransferBuffer");
}

// The pacing timer runs: the read waits for it. One that finds no place is answered at once instead.
UCHAR ParkRead(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read)
{
    IoMarkIrpPending(Irp);
    NTSTATUS status = ParkReadRequest(device, Irp);
    if (NT_SUCCESS(status)) {
        return URB_PARKED;
    }
    if (status == STATUS_CANCELLED) {
        read.pUrb->UrbHeader.Status = USBD_STATUS_CANCELED;
    } else {
        if (!NT_SUCCESS(PlaceFifoReport(device, read))) {
            RtlZeroMemory(read.pBuf, read.ulLen);
        }
        (void)Answered(FilterContextOf(device), read, "a whole report");
        status = STATUS_SUCCESS;
    }
    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_KEYBOARD_INCREMENT);
    return URB_PARKED;
}

// A report of zeros with one byte set. The position lies inside the report or the byte is dropped.
void PlaceSingleByte(const Transfer& read, ULONG ulPosition, UCHAR ucValue)
{
    RtlZeroMemory(read.pBuf, LowerOf(read.ulLen, 8));
    if (ulPosition < read.ulLen) {
        read.pBuf[ulPosition] = ucValue;
    }
}

bool PlaceModifierReport(DeviceContext* pContext, const Transfer& read)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    if (ReadShared(buffers.ucInsertModifierPending) == 0 ||
        ExchangeShared(buffers.ucInsertModifierPending, 0) == 0) {
        return false;
    }
    PlaceSingleByte(read, 0, ReadShared(buffers.ucKbdModifiers) | ReadShared(buffers.ucInsertModifiers));
    LogHexDump("(ShowURBInfo) insert modifier packet", LowerOf(read.ulLen, 8), read.pBuf);
    KeSetEvent(&buffers.InsertModifierEvent, IO_KEYBOARD_INCREMENT, FALSE);
    return true;
}

bool PlaceDiscardedReport(DeviceContext* pContext, const Transfer& read)
{
    PendingFields& pending = FieldsOf<PendingFields>(pContext);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(pContext);
    DiscardEntry entry;
    if (ReadShared(pending.ulDiscardCount) == 0 || (ReadShared(hotkeys.ulKeyDefTypes) & KEYDEF_DISCARD) ||
        !NT_SUCCESS(TakeDiscardedPacket(pContext, &entry))) {
        return false;
    }
    PlaceSingleByte(read, entry.ucIsModifier ? 0 : 2, entry.ucValue);
    LogHexDump("(ShowURBInfo) insert discarded packet", LowerOf(read.ulLen, 8), read.pBuf);
    return true;
}

bool PlaceEmptyReport(DeviceContext* pContext, const Transfer& read)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    if (ReadShared(road.ucSendEmptyPacket) == 0 || ExchangeShared(road.ucSendEmptyPacket, 0) == 0) {
        return false;
    }
    ULONG ulFrom = FirstKeyPosition(read.ulLen);
    RtlZeroMemory(read.pBuf + ulFrom, read.ulLen - ulFrom);
    return true;
}

// The oldest inserted keys take the key positions, those behind them stay empty; the last of them has the next
// read release them.
bool PlaceInsertedKeys(PDEVICE_OBJECT device, const Transfer& read)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    RoadFields& road = FieldsOf<RoadFields>(device);
    if (ReadShared(buffers.usInsertCount) == 0) {
        return false;
    }
    ULONG ulFrom = FirstKeyPosition(read.ulLen);
    ULONG i = ulFrom;
    while (i < read.ulLen && GetDataFromInsertBuffer(device, &read.pBuf[i])) {
        i++;
    }
    if (i == ulFrom) {
        return false;
    }
    RtlZeroMemory(read.pBuf + i, read.ulLen - i); // the stack's buffer may hold an older report
    LogHexDump("(ShowUSBInfo) completing irp with packet: ", read.ulLen, read.pBuf);
    if (ReadShared(buffers.usInsertCount) == 0) {
        WriteShared(road.ucSendEmptyPacket, 1);
    }
    return true;
}

PIRP NextAnsweredRead(DeviceContext* pContext)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    LockScope lock(road.AnswerLock);
    PIRP Irp = road.pFirstAnswered;
    if (Irp == nullptr) {
        road.ucAnswering = 0;
        return nullptr;
    }
    road.pFirstAnswered = reinterpret_cast<PIRP>(Irp->Tail.Overlay.ListEntry.Flink);
    return Irp;
}

// Returns true when another one is completing and takes this read over.
bool LeaveAnsweredRead(DeviceContext* pContext, PIRP Irp)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    LockScope lock(road.AnswerLock);
    if (!road.ucAnswering) {
        road.ucAnswering = 1;
        return false;
    }
    IoMarkIrpPending(Irp);
    Irp->Tail.Overlay.ListEntry.Flink = nullptr;
    if (road.pFirstAnswered == nullptr) {
        road.pFirstAnswered = Irp;
    } else {
        road.pLastAnswered->Tail.Overlay.ListEntry.Flink = reinterpret_cast<PLIST_ENTRY>(Irp);
    }
    road.pLastAnswered = Irp;
    return true;
}
} // namespace

// Answers a read on its way down, or lets it pass to the keyboard. A parked read is not touched again.
// IRQL <= DISPATCH. Owns: URB_PARKED: the request is the macro mode's, or completed already.
UCHAR AnswerRead(PDEVICE_OBJECT device, PIRP Irp, const Transfer& read)
{
    DeviceContext* pContext = FilterContextOf(device);
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    if (ReadShared(buffers.ulFifoCount) > 0) {
        if (ReadShared(GlobalPace.ucKorvexTimerRunning) == 1) {
            return ParkRead(device, Irp, read);
        }
        if (NT_SUCCESS(PlaceFifoReport(device, read))) {
            return Answered(pContext, read, "a whole report");
        }
    }
    if (ReadShared(frame.KbdType) == NORMALKbdType) {
        if (PlaceModifierReport(pContext, read)) {
            return Answered(pContext, read, "modifiers of the application");
        }
        if (PlaceDiscardedReport(pContext, read)) {
            return Answered(pContext, read, "a key of discard mode");
        }
    }
    if (PlaceEmptyReport(pContext, read)) {
        return Answered(pContext, read, "the release of given keys");
    }
    if (PlaceInsertedKeys(device, read)) {
        return Answered(pContext, read, "given keys");
    }
    return URB_PASS;
}

// Completes an answered read with the status it carries, in the order in which reads were answered.
// IRQL <= DISPATCH. Lock: takes AnswerLock. Owns: the request is gone when it returns. Returns: what the
// dispatch routine shall return.
NTSTATUS CompleteAnsweredRead(PDEVICE_OBJECT device, PIRP Irp)
{
    DeviceContext* pContext = FilterContextOf(device);
    NTSTATUS status = Irp->IoStatus.Status;
    Irp->IoStatus.Information = 0;
    if (LeaveAnsweredRead(pContext, Irp)) {
        return STATUS_PENDING;
    }
    while (Irp != nullptr) {
        IoCompleteRequest(Irp, IO_KEYBOARD_INCREMENT);
        Irp = NextAnsweredRead(pContext);
    }
    return status;
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeAnswers(DeviceContext* pContext)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    KeInitializeSpinLock(&road.AnswerLock.Lock);
}
