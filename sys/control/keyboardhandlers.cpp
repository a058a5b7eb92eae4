// keyboardhandlers.cpp - requests about one keyboard: its definitions, insertions, settings and memory.
//
// Handlers of the dispatcher's table; they run in the application's thread at PASSIVE_LEVEL. What a request
// asks for beyond its buffers is refused before anything is sent to the keyboard.
#include "control/call.h"
#include "ground/sums.h"
#include "hotkeys/hotkeys.h"
#include "siblings/siblings.h"

namespace
{
enum : ULONG { DEVICE_DESCRIPTOR_BYTES = 18, MAX_STRING_BYTES = 256 };

// The answer to a size query is the number of bytes reported; the bytes are zero.
// Fails: the output is shorter than that.
NTSTATUS ReportSize(ControlCall* pCall, ULONG ulSize)
{
    if (pCall->ulOutLength < ulSize) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    BeginOutput(pCall, ulSize);
    return STATUS_SUCCESS;
}

NTSTATUS ReadMemory(ControlCall* pCall, MemoryReader* pRead)
{
    USHORT usAddress = pCall->pPayload->Memory.usAddress;
    USHORT usLength = pCall->pPayload->Memory.usLength;
    if (usLength > pCall->ulOutLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG ulLength = 0;
    PUCHAR pOut = BeginOutput(pCall, usLength);
    NTSTATUS status = pRead(pCall->ulDeviceIndex, usAddress, usLength, pOut, &ulLength);
    if (NT_SUCCESS(status) && usLength == 0) {
        return ReportSize(pCall, ulLength);
    }
    pCall->ulInformation = ulLength;
    return status;
}

NTSTATUS WriteMemory(ControlCall* pCall, MemoryWriter* pWrite)
{
    const MemoryAccess* pMemory = &pCall->pPayload->Memory;
    USHORT usLength = pMemory->usLength;
    if (pCall->ulPayloadOffset + offsetof(MemoryAccess, ucData) + usLength > pCall->ulInLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG ulLength = 0;
    NTSTATUS status = pWrite(pCall->ulDeviceIndex, pMemory->usAddress, usLength, pMemory->ucData, &ulLength);
    return NT_SUCCESS(status) ? ReportSize(pCall, ulLength) : status;
}
} // namespace

NTSTATUS HandleAddDefinition(ControlCall* pCall)
{
    return AddKeyDefinitionByIndex(pCall->ulDeviceIndex, &pCall->pPayload->Definition);
}

NTSTATUS HandleRemoveDefinition(ControlCall* pCall)
{
    return RemoveKeyDefinitionByIndex(pCall->ulDeviceIndex, pCall->pPayload->ulId);
}

// The scan bytes must lie inside the payload.
NTSTATUS HandleInsertScans(ControlCall* pCall)
{
    if (pCall->pPayload->Scans.usCount > sizeof(pCall->pPayload->Scans.ucScans)) {
        return STATUS_UNSUCCESSFUL;
    }
    return InsertScans(pCall->ulDeviceIndex, pCall->pPayload->ucBytes);
}

// So must the entries.
NTSTATUS HandleInsertPackets(ControlCall* pCall)
{
    if (pCall->pPayload->Packets.usCount > ARRAYSIZE(pCall->pPayload->Packets.Entries)) {
        return STATUS_UNSUCCESSFUL;
    }
    return InsertUSBPackets(pCall->ulDeviceIndex, pCall->pPayload->ucBytes);
}

// Reported even when it fails, then as zeros.
NTSTATUS HandleGetTypematic(ControlCall* pCall)
{
    USHORT usAnswer[2] = {0, 0};
    NTSTATUS status = QueryKeyboardTypematic(pCall->ulDeviceIndex, &usAnswer[0], &usAnswer[1]);
    RtlCopyMemory(BeginOutput(pCall, sizeof(usAnswer)), usAnswer, sizeof(usAnswer));
    return status;
}

NTSTATUS HandleSetTypematic(ControlCall* pCall)
{
    return SetKeyboardTypematic(pCall->ulDeviceIndex, pCall->pPayload->usWords[0],
                                pCall->pPayload->usWords[1]);
}

// Reported even when it fails, then as zeros.
NTSTATUS HandleGetLeds(ControlCall* pCall)
{
    USHORT usLedFlags = 0;
    NTSTATUS status = GetLedFlags(pCall->ulDeviceIndex, &usLedFlags);
    RtlCopyMemory(BeginOutput(pCall, sizeof(usLedFlags)), &usLedFlags, sizeof(usLedFlags));
    return status;
}

NTSTATUS HandleSetLeds(ControlCall* pCall)
{
    return SetKeyboardLeds(pCall->ulDeviceIndex, static_cast<UCHAR>(pCall->pPayload->usLedFlags));
}

NTSTATUS HandleGetReservedStatus(ControlCall* pCall)
{
    UCHAR ucStatus;
    NTSTATUS status = GetReservedStatus(pCall->ulDeviceIndex, &ucStatus);
    return NT_SUCCESS(status) ? Answer(pCall, ucStatus) : status;
}

NTSTATUS HandleGetControlPipe(ControlCall* pCall)
{
    ULONG ulControlPipe;
    NTSTATUS status = GetControlPipe(pCall->ulDeviceIndex, &ulControlPipe);
    return NT_SUCCESS(status) ? Answer(pCall, ulControlPipe) : status;
}

// An output without room for all of it gets nothing.
NTSTATUS HandleReadDeviceDescriptor(ControlCall* pCall)
{
    UCHAR Descriptor[DEVICE_DESCRIPTOR_BYTES] = {};
    if (pCall->ulOutLength < sizeof(Descriptor)) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = GetDeviceDescriptor(pCall->ulDeviceIndex, Descriptor);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(BeginOutput(pCall, sizeof(Descriptor)), Descriptor, sizeof(Descriptor));
    }
    return status;
}

// A string that the output has no room for is not copied: as many zeros as there is room for are reported.
NTSTATUS HandleReadStringDescriptor(ControlCall* pCall)
{
    UCHAR ucIndex = static_cast<UCHAR>(pCall->pPayload->Descriptor.ulIndex);
    USHORT usLanguage = static_cast<USHORT>(pCall->pPayload->Descriptor.ulLanguage);
    ULONG ulRoom = LowerOf(pCall->ulOutLength, MAX_STRING_BYTES);
    PUCHAR pOut = BeginOutput(pCall, ulRoom);
    ULONG ulLength = 0;
    NTSTATUS status =
        GetStringDescriptor(pCall->ulDeviceIndex, ucIndex, usLanguage, pOut, pCall->ulOutLength, &ulLength);
    pCall->ulInformation = LowerOf(ulLength, ulRoom);
    return status;
}

NTSTATUS HandleSendKeyCommand(ControlCall* pCall)
{
    return SendKeyCommand(pCall->ulDeviceIndex, &pCall->pPayload->Command);
}

NTSTATUS HandleReadDescriptorMemory(ControlCall* pCall)
{
    return ReadMemory(pCall, ReadDescriptorMemory);
}

NTSTATUS HandleWriteDescriptorMemory(ControlCall* pCall)
{
    return WriteMemory(pCall, WriteDescriptorMemory);
}

NTSTATUS HandleReadEEprom(ControlCall* pCall)
{
    return ReadMemory(pCall, ReadQuintoraEEprom);
}

NTSTATUS HandleWriteEEprom(ControlCall* pCall)
{
    return WriteMemory(pCall, WriteQuintoraEEprom);
}

NTSTATUS HandleReadVendorMemory(ControlCall* pCall)
{
    return ReadMemory(pCall, ReadVendorMemory);
}

NTSTATUS HandleWriteVendorMemory(ControlCall* pCall)
{
    return WriteMemory(pCall, WriteVendorMemory);
}
