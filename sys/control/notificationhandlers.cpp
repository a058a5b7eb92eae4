// notificationhandlers.cpp - requests about events, the report-processing switch and the two record queues.
//
// Handlers of the dispatcher's table; they run in the application's thread at PASSIVE_LEVEL.
#include "control/call.h"

namespace
{
enum : UCHAR { PEEK = 0, TAKE = 1 };

// A 32-bit process gives 32 bits, which its handle tables widen with their sign.
ULONGLONG EventHandleOf(const ControlCall* pCall)
{
    if (pCall->b32) {
        return static_cast<ULONGLONG>(static_cast<LONGLONG>(pCall->pPayload->lEvent));
    }
    ULONGLONG hEvent;
    RtlCopyMemory(&hEvent, pCall->pPayload, sizeof(hEvent));
    return hEvent;
}

NTSTATUS GetNotify(ControlCall* pCall, UCHAR ucRemove)
{
    NotifyRecord record;
    NTSTATUS status = GetNotifyRecord(pCall->ulDeviceIndex, &record, ucRemove);
    return NT_SUCCESS(status) ? Answer(pCall, record) : status;
}

NTSTATUS GetMacro(ControlCall* pCall, UCHAR ucRemove)
{
    MacroRecord record;
    NTSTATUS status = GetMacroRecord(&record, ucRemove);
    return NT_SUCCESS(status) ? Answer(pCall, record) : status;
}

// Makes room for the records that the payload asks for; slots that stay empty are zero.
// Fails: null, the output is too short for them.
template <typename Record> Record* BeginRecords(ControlCall* pCall, PULONG pulCount)
{
    ULONG ulCount = pCall->pPayload->usCount;
    ULONG ulBytes = ulCount * static_cast<ULONG>(sizeof(Record));
    if (pCall->ulOutLength < ulBytes) {
        return nullptr;
    }
    *pulCount = ulCount;
    return reinterpret_cast<Record*>(BeginOutput(pCall, ulBytes));
}
} // namespace

NTSTATUS HandleRegisterNotifyEvent(ControlCall* pCall)
{
    return RegisterNotifyEvent(EventHandleOf(pCall), pCall->requestorMode, pCall->ulDeviceIndex);
}

NTSTATUS HandleReleaseNotifyEvent(ControlCall* pCall)
{
    return ReleaseNotifyEvent(pCall->ulDeviceIndex);
}

NTSTATUS HandleRegisterMacroEvent(ControlCall* pCall)
{
    return RegisterMacroEvent(EventHandleOf(pCall), pCall->requestorMode);
}

NTSTATUS HandleReleaseMacroEvent(ControlCall*)
{
    return ReleaseMacroEvent();
}

NTSTATUS HandleRegisterApplicationEvent(ControlCall* pCall)
{
    return RegisterApplicationEvent(EventHandleOf(pCall), pCall->requestorMode);
}

NTSTATUS HandleStartProcessing(ControlCall* pCall)
{
    return StartReportProcessing(pCall->ulDeviceIndex);
}

NTSTATUS HandleStopProcessing(ControlCall* pCall)
{
    return StopReportProcessing(pCall->ulDeviceIndex);
}

NTSTATUS HandleGetNotifyCount(ControlCall* pCall)
{
    ULONG ulCount;
    NTSTATUS status = GetNotifyCount(pCall->ulDeviceIndex, &ulCount);
    return NT_SUCCESS(status) ? Answer(pCall, ulCount) : status;
}

NTSTATUS HandleClearNotify(ControlCall* pCall)
{
    return ClearNotifyQueue(pCall->ulDeviceIndex);
}

NTSTATUS HandlePeekNotify(ControlCall* pCall)
{
    return GetNotify(pCall, PEEK);
}

NTSTATUS HandleTakeNotify(ControlCall* pCall)
{
    return GetNotify(pCall, TAKE);
}

NTSTATUS HandleTakeManyNotify(ControlCall* pCall)
{
    ULONG ulCount;
    NotifyRecord* pRecords = BeginRecords<NotifyRecord>(pCall, &ulCount);
    if (pRecords == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    (void)TakeNotifyRecords(pCall->ulDeviceIndex, pRecords, ulCount); // an empty queue leaves the slots zero
    return STATUS_SUCCESS;
}

NTSTATUS HandleGetMacroCount(ControlCall* pCall)
{
    ULONG ulCount;
    NTSTATUS status = GetMacroCount(&ulCount);
    return NT_SUCCESS(status) ? Answer(pCall, ulCount) : status;
}

NTSTATUS HandleClearMacro(ControlCall*)
{
    return ClearMacroQueue();
}

NTSTATUS HandlePeekMacro(ControlCall* pCall)
{
    return GetMacro(pCall, PEEK);
}

NTSTATUS HandleTakeMacro(ControlCall* pCall)
{
    return GetMacro(pCall, TAKE);
}

NTSTATUS HandleTakeManyMacro(ControlCall* pCall)
{
    ULONG ulCount;
    MacroRecord* pRecords = BeginRecords<MacroRecord>(pCall, &ulCount);
    if (pRecords == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    for (ULONG i = 0; i < ulCount; i++) {
        (void)GetMacroRecord(&pRecords[i], TAKE); // an empty queue leaves the slot zero
    }
    return STATUS_SUCCESS;
}
