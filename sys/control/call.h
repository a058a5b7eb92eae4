// call.h - one control request between the dispatcher and its handler, and the table's rows.
//
//   system buffer   in:   ulDeviceIndex, payload at 4 or 8 ──► handler reads all it needs
//                   out:  from offset 0                    ◄── BeginOutput, then the handler writes
//
// Input and output share the buffer, so BeginOutput ends the reading: it clears the bytes that will be
// reported, and nothing that a handler leaves unwritten reaches the application.
#pragma once

#include "control/control.h"

struct ControlCall {
    PUCHAR pBuffer; // the system buffer, null when neither side has a length
    ULONG ulInLength;
    ULONG ulOutLength;
    KPROCESSOR_MODE requestorMode;
    USHORT usKeyboards; // usKeyboardCount, read once

    // Rows that take a ControlRequest.
    bool b32;
    ULONG ulDeviceIndex;
    ULONG ulPayloadOffset;
    RequestPayload* pPayload;

    ULONG ulInformation; // bytes from the buffer's start that are reported; BeginOutput sets it
};

// Clears ulBytes at the buffer's start, which are reported from now on. What the row's checks and the handler
// allowed lies within the output length.
inline PUCHAR BeginOutput(ControlCall* pCall, ULONG ulBytes)
{
    RtlZeroMemory(pCall->pBuffer, ulBytes);
    pCall->ulInformation = ulBytes;
    return pCall->pBuffer;
}

// The answer is one value.
template <typename Value> NTSTATUS Answer(ControlCall* pCall, Value value)
{
    RtlCopyMemory(BeginOutput(pCall, sizeof(value)), &value, sizeof(value));
    return STATUS_SUCCESS;
}

// Does the work of one code; the row's checks have passed. IRQL = PASSIVE. Fails: with the status told to the
// application; nothing is reported then unless the row says so.
using ControlHandler = NTSTATUS(ControlCall* pCall);

// What a row may check, in its order.
enum CheckStep : UCHAR {
    CheckNone,
    CheckKeyboards, // a keyboard is started; fails with STATUS_UNSUCCESSFUL
    CheckBuffer,    // the system buffer is there
    CheckRecord,    // it holds a whole ControlRequest
    CheckOut,       // the output length reaches the row's minimum
    CheckIn,        // the input length does
};

struct CheckList {
    CheckStep steps[4];
};

enum RequestOutcome : UCHAR {
    AsHandled,     // the handler's status; its bytes only after a success
    PlainFailure,  // any failure is STATUS_UNSUCCESSFUL
    ReportAnyway,  // the bytes even after a failure
    HiddenFailure, // a failure is STATUS_SUCCESS without bytes
};

struct RequestRow {
    ULONG ulCode;
    CheckList checks;
    ULONG ulMinimum;      // of the output length, or of the input length for CheckIn
    NTSTATUS shortStatus; // of a missing buffer or a short length
    RequestOutcome outcome;
    ControlHandler* pHandler;
};

// table.cpp: IRQL any
const RequestRow* FindRequestRow(ULONG ulCode); // null: unknown

// statehandlers.cpp: driver-wide state
ControlHandler HandleRefuse, HandleFail;
ControlHandler HandleGetVersion, HandleGetTime, HandleGetZero;
ControlHandler HandleGetKeyboardCount, HandleGetModifiers;
ControlHandler HandleGetMacroMode, HandleReloadMacros, HandleGetCapture, HandleSetCapture;
ControlHandler HandleGetKeyboardInfo, HandleListKeyboards, HandleFindKeyboard;

// notificationhandlers.cpp: events, report processing, queues
ControlHandler HandleRegisterNotifyEvent, HandleReleaseNotifyEvent;
ControlHandler HandleRegisterMacroEvent, HandleReleaseMacroEvent, HandleRegisterApplicationEvent;
ControlHandler HandleStartProcessing, HandleStopProcessing;
ControlHandler HandleGetNotifyCount, HandleClearNotify, HandlePeekNotify, HandleTakeNotify,
    HandleTakeManyNotify;
ControlHandler HandleGetMacroCount, HandleClearMacro, HandlePeekMacro, HandleTakeMacro, HandleTakeManyMacro;

// keyboardhandlers.cpp: one keyboard
ControlHandler HandleAddDefinition, HandleRemoveDefinition;
ControlHandler HandleInsertScans, HandleInsertPackets;
ControlHandler HandleGetTypematic, HandleSetTypematic;
ControlHandler HandleGetLeds, HandleSetLeds, HandleGetReservedStatus, HandleGetControlPipe;
ControlHandler HandleReadDeviceDescriptor, HandleReadStringDescriptor, HandleSendKeyCommand;
ControlHandler HandleReadDescriptorMemory, HandleWriteDescriptorMemory;
ControlHandler HandleReadEEprom, HandleWriteEEprom;
ControlHandler HandleReadVendorMemory, HandleWriteVendorMemory;
