// insertscans.cpp - an application's wish that the system sees a modifier report now.
//
//   scan byte ──► ucInsertModifiers, ucInsertModifierPending = 1 ──► the read at the keyboard is called back
//   the next read ──► answered above the keyboard with the modifier report ──► InsertModifierEvent
//
// Runs in the application's thread at PASSIVE_LEVEL. Requests that wait take turns; removal of the keyboard
// and the end of the process end a wait.
#include "hotkeys/buffers.h"

#include "hotkeys/bufferfields.h"
#include "log/log.h"
#include "usb/pending.h"

namespace
{
enum { MAX_SCANS = 510 };

struct InsertScansRequest {
    ULONG ulWait;
    USHORT usCount;
    PUCHAR pScans;
};

// What came before the byte at hand.
struct ScanState {
    bool bBreak;
    bool bExtended;
    bool bPause;
};

struct ModifierScan {
    UCHAR ucScan;
    bool bExtended;
    UCHAR ucBit; // of the report's modifier byte
};

const ModifierScan ModifierScans[] = {
    {0x1D, false, 0x01}, {0x1D, true, 0x10}, {0x2A, false, 0x02}, {0x36, false, 0x20},
    {0x38, false, 0x04}, {0x38, true, 0x40}, {0x5B, true, 0x08},  {0x5C, true, 0x80},
};

// The modifier byte after this key; a break code cannot clear what the keyboard itself holds.
UCHAR ModifiersAfter(UCHAR ucScan, const ScanState& state, UCHAR ucKeyboard)
{
    UCHAR ucModifiers = ucKeyboard;
    for (const ModifierScan& row : ModifierScans) {
        if (row.ucScan == ucScan && row.bExtended == state.bExtended) {
            ucModifiers =
                static_cast<UCHAR>(state.bBreak ? ucModifiers & ~row.ucBit : ucModifiers | row.ucBit);
        }
    }
    return ucModifiers | ucKeyboard;
}

bool EndsSequence(UCHAR ucScan, const ScanState& state)
{
    return ucScan == 0x1D || ucScan == 0x2A || ucScan == 0x36 || ucScan == 0x38 ||
           ((ucScan == 0x5B || ucScan == 0x5C) && state.bExtended);
}

// A wait that removal and the end of the calling process end.
NTSTATUS WaitUnlessRemoved(DeviceContext* pContext, PKEVENT pEvent)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    NTSTATUS status = KeWaitForSingleObject(pEvent, UserRequest, UserMode, FALSE, nullptr);
    return status == STATUS_SUCCESS && !ReadShared(frame.ucRemoving) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

NTSTATUS InjectModifierReport(PDEVICE_OBJECT device, UCHAR ucModifiers, bool bWait)
{
    DeviceContext* pContext = FilterContextOf(device);
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    WriteShared(buffers.ucInsertModifiers, ucModifiers);
    if (bWait) {
        KeClearEvent(&buffers.InsertModifierEvent);
        if (ReadShared(frame.ucRemoving)) {
            return STATUS_UNSUCCESSFUL; // removal set the event before it was cleared
        }
    }
    WriteShared(buffers.ucInsertModifierPending, 1);
    (void)CancelPendingRead(device); // none there: the next read brings the report
    return bWait ? WaitUnlessRemoved(pContext, &buffers.InsertModifierEvent) : STATUS_SUCCESS;
}

NTSTATUS WalkScans(PDEVICE_OBJECT device, const InsertScansRequest& request)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    ScanState state = {};
    for (USHORT i = 0; i < request.usCount; i++) {
        UCHAR& ucScan = request.pScans[i];
        if (ucScan == 0xE1) {
            state.bPause = true;
            continue;
        }
        if (ucScan == 0xE0) {
            state.bExtended = true;
            continue;
        }
        if (ucScan & 0x80) {
            ucScan &= 0x7F;
            state.bBreak = true;
        }
        UCHAR ucModifiers = ModifiersAfter(ucScan, state, ReadShared(buffers.ucKbdModifiers));
        if (EndsSequence(ucScan, state)) {
            state = {};
        }
        NTSTATUS status = InjectModifierReport(device, ucModifiers, request.ulWait == 1);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

// A waiting request has the keyboard's InsertModifierEvent to itself.
NTSTATUS WalkScansInTurn(PDEVICE_OBJECT device, const InsertScansRequest& request)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    FrameFields& frame = FieldsOf<FrameFields>(device);
    NTSTATUS status = KeWaitForSingleObject(&buffers.InsertScansTurn, UserRequest, UserMode, FALSE, nullptr);
    if (status != STATUS_SUCCESS) {
        return STATUS_UNSUCCESSFUL;
    }
    status = ReadShared(frame.ucRemoving) ? STATUS_UNSUCCESSFUL : WalkScans(device, request);
    KeSetEvent(&buffers.InsertScansTurn, IO_NO_INCREMENT, FALSE);
    return status;
}
} // namespace

// Makes the system see a modifier report for each scan code; with the wait field 1 each is waited for.
// IRQL = PASSIVE. Owns: the request stays the caller's, its break bits are cleared.
// Fails: more than 510 bytes, unknown index, not a NORMAL keyboard, removal or end of the process in a wait.
NTSTATUS InsertScans(ULONG ulDeviceIndex, PUCHAR pRequest)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    InsertScansRequest request;
    RtlCopyMemory(&request.ulWait, pRequest, sizeof(request.ulWait));
    RtlCopyMemory(&request.usCount, pRequest + 4, sizeof(request.usCount));
    request.pScans = pRequest + 6;
    if (request.usCount > MAX_SCANS) {
        return STATUS_UNSUCCESSFUL;
    }
    LogHexDump("(InsertScans) pInsertScans ", request.usCount, request.pScans);
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld() ||
        ReadShared(FieldsOf<FrameFields>(keyboard.Context()).KbdType) != NORMALKbdType) {
        return STATUS_UNSUCCESSFUL;
    }
    return request.ulWait == 1 ? WalkScansInTurn(keyboard.Device(), request)
                               : WalkScans(keyboard.Device(), request);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeInsertScans(DeviceContext* pContext)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    KeInitializeEvent(&buffers.InsertModifierEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&buffers.InsertScansTurn, SynchronizationEvent, TRUE);
}

// Who waits sees the removal and returns; the next in line is woken by them.
// IRQL <= DISPATCH, after RefuseNewReferences.
void WakeInsertScans(DeviceContext* pContext)
{
    KeSetEvent(&FieldsOf<BufferFields>(pContext).InsertModifierEvent, IO_NO_INCREMENT, FALSE);
}
