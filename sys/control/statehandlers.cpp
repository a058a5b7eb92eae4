// statehandlers.cpp - requests about the driver as a whole: its version and state, and which keyboards it
// has.
//
// Handlers of the dispatcher's table; they run in the application's thread at PASSIVE_LEVEL.
#include "control/call.h"

#include "hotkeys/fields.h"
#include "macro/fields.h"
#include "macro/macro.h"

enum : ULONG { DRIVER_VERSION = 0x00010300 }; // 1.3.0

NTSTATUS HandleRefuse(ControlCall*)
{
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS HandleFail(ControlCall*)
{
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS HandleGetVersion(ControlCall* pCall)
{
    return Answer<ULONG>(pCall, DRIVER_VERSION);
}

NTSTATUS HandleGetTime(ControlCall* pCall)
{
    return Answer<ULONG>(pCall, NotifyTime());
}

NTSTATUS HandleGetZero(ControlCall* pCall)
{
    return Answer<ULONG>(pCall, 0);
}

NTSTATUS HandleGetKeyboardCount(ControlCall* pCall)
{
    return Answer<USHORT>(pCall, pCall->usKeyboards);
}

NTSTATUS HandleGetModifiers(ControlCall* pCall)
{
    return Answer<ULONG>(pCall, ReadShared(GlobalHotkeys.ulModifierFlags));
}

NTSTATUS HandleGetMacroMode(ControlCall* pCall)
{
    return Answer<ULONG>(pCall, ReadShared(GlobalMacro.ucKorvexMode));
}

NTSTATUS HandleReloadMacros(ControlCall*)
{
    (void)ReadKorvexParameters(&GlobalFrame.RegistryPathCopy); // what cannot be read keeps its value
    return STATUS_SUCCESS;
}

NTSTATUS HandleGetCapture(ControlCall* pCall)
{
    return Answer<ULONG>(pCall, ReadShared(GlobalMacro.ucReportCapture));
}

// The value is the input's first 32 bits, not a ControlRequest; its low byte counts.
NTSTATUS HandleSetCapture(ControlCall* pCall)
{
    return SetReportCapture(pCall->pBuffer[0]);
}

// The list may have grown shorter since the count was read: then the answer is all zero.
NTSTATUS HandleGetKeyboardInfo(ControlCall* pCall)
{
    USHORT usPosition = pCall->pPayload->usCount;
    if (usPosition >= pCall->usKeyboards) {
        return STATUS_UNSUCCESSFUL;
    }
    return GetKeyboardInfo(usPosition, BeginOutput(pCall, sizeof(KeyboardInfo)));
}

NTSTATUS HandleListKeyboards(ControlCall* pCall)
{
    return ListKeyboards(BeginOutput(pCall, sizeof(KeyboardList)));
}

// A name without an end within the payload ends with it.
NTSTATUS HandleFindKeyboard(ControlCall* pCall)
{
    constexpr ULONG NAME_CHARS = ARRAYSIZE(pCall->pPayload->Name);
    WCHAR Name[NAME_CHARS + 1];
    RtlCopyMemory(Name, pCall->pPayload->Name, sizeof(pCall->pPayload->Name));
    Name[NAME_CHARS] = 0;
    ULONG ulDeviceIndex;
    NTSTATUS status = FindDeviceByInterfaceName(Name, &ulDeviceIndex);
    return NT_SUCCESS(status) ? Answer<ULONG>(pCall, ulDeviceIndex) : status;
}
