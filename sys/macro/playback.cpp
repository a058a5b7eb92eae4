// playback.cpp - macros in a report, and the reports that they play, paced by a timer.
//
//   report ── macro keys leave it ──► FIFO ──► the next read at once ──► KorvexDelayTimer runs
//                                       └────► reads parked meanwhile ◄── one at each expiry ─┘
//
// A macro key that stays held starts its macro again with every report that still carries it. What the FIFO
// has no room for is not played.
#include "macro/macro.h"

#include "hotkeys/buffers.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/parkedfields.h"

namespace
{
void PlayMacro(PDEVICE_OBJECT device, const MacroTableRecord* pRecord)
{
    FifoEntry entry = {};
    entry.usLength = MacroTableRecord::ReportBytes;
    for (ULONG i = 0; i < pRecord->usActionCount; i++) {
        RtlCopyMemory(entry.ucData, pRecord->Action(i), entry.usLength);
        (void)InsertUSBPacketFifin(device, &entry); // no room: dropped, and the next one tried
    }
}

// The modifier byte: the bits that the macro asks for leave it.
void PassModifiers(PDEVICE_OBJECT device, PUCHAR pBuf, const MacroTableRecord* pRecord)
{
    const UCHAR ucMask = static_cast<UCHAR>(pRecord->usKey);
    if ((pRecord->usKey >> 8) == 0 || (pBuf[0] & ucMask) == 0) {
        return;
    }
    Trace(ModifierMacro, IndexOf(device), pRecord->usKey);
    pBuf[0] = static_cast<UCHAR>(pBuf[0] & ~ucMask);
    PlayMacro(device, pRecord);
}

// One position behind it: the key leaves the report, and the byte that moves in is there for the macros left.
void PassKey(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulPosition,
             const MacroTableRecord* pRecord)
{
    if ((pRecord->usKey >> 8) != 0 || static_cast<UCHAR>(pRecord->usKey) != pBuf[ulPosition]) {
        return;
    }
    Trace(KeyMacro, IndexOf(device), pRecord->usKey);
    (void)RemoveKeyFromBuffer(pBuf, ulLen, ulPosition); // the report keeps its length
    PlayMacro(device, pRecord);
}

void PassPosition(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulPosition, const MacroTable* pTable)
{
    for (const MacroTableRecord* pRecord : pTable->Records) {
        if (pRecord == nullptr) {
            return;
        }
        if (ulPosition == 0) {
            PassModifiers(device, pBuf, pRecord);
        } else {
            PassKey(device, pBuf, ulLen, ulPosition, pRecord);
        }
    }
}

// The oldest queued report, or else an empty one; a report that came out sets the pace for the next.
void FillParkedRead(PDEVICE_OBJECT device, PIRP request)
{
    auto pUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(request)->Parameters.Others.Argument1);
    auto pBuf = static_cast<PUCHAR>(pUrb->UrbBulkOrInterruptTransfer.TransferBuffer);
    const ULONG ulLen = pUrb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    if (NT_SUCCESS(TakeFifoReport(device, pBuf, ulLen, "(KorvexDelayCallback) insertUSBPacket",
                                  "(KorvexDelayCallback) Inserted TransferBuffer"))) {
        StartKorvexDelay(device);
    } else {
        RtlZeroMemory(pBuf, ulLen);
    }
}
} // namespace

// Takes the macro keys out of a report and queues what they play.
// IRQL <= DISPATCH. Lock: takes MacroTableLock, FifoLock. Owns: rewrites the report.
void CheckForKorvexHotkey(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen)
{
    MacroTable* pTable = AcquireMacroTable();
    if (pTable != nullptr) {
        for (ULONG i = 0; i < ulLen; i++) {
            PassPosition(device, pBuf, ulLen, i, pTable);
        }
        ReleaseMacroTable(pTable);
    }
    LogHexDump("(CheckForKorvexHotkey) leaving with", ulLen, pBuf);
}

// The pace is over: the oldest parked read gets the next report. With none parked the pacing stops; with no
// report left it stops too, and whatever is still parked comes back empty now, for nobody would call again.
// IRQL = DISPATCH. Lock: takes ParkLock, FifoLock.
void NTAPI KorvexDelayCallback(PKDPC, PVOID pArgument, PVOID, PVOID)
{
    PDEVICE_OBJECT device = static_cast<PDEVICE_OBJECT>(pArgument);
    PIRP request;
    EndKorvexDelay(device);
    do {
        (void)GetFirstParkedRequest(device, &request); // null when none is parked
        if (request != nullptr) {
            FillParkedRead(device, request);
            CompleteParkedRequest(device, request, STATUS_SUCCESS);
        }
    } while (request != nullptr && !IsKorvexDelayArmed(device));
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializePlayback(PDEVICE_OBJECT device, DeviceContext* pContext)
{
    ParkedFields& parked = FieldsOf<ParkedFields>(pContext);
    InitializeTimer(&parked.KorvexDelay, KorvexDelayCallback, device);
}
