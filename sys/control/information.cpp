// information.cpp - what the driver knows of its keyboards, read from their records; no hardware is touched.
//
// List positions and entries follow the walk of the keyboards, newest first, which is not the order of their
// indexes. Runs in the application's thread.
#include "control/control.h"

#include "macro/fields.h"
#include "usb/ledfields.h"
#include "usb/roadfields.h"

namespace
{
// Copies up to and including the first 0; what follows it in the field is not written.
void CopyText(char16_t (&To)[PROPERTY_CHARS], const WCHAR (&From)[PROPERTY_CHARS])
{
    ULONG i = 0;
    while (i < PROPERTY_CHARS - 1 && From[i] != 0) {
        To[i] = From[i];
        i++;
    }
    To[i] = 0;
}

// IRQL <= DISPATCH. Lock: takes InterfaceLock.
void DescribeKeyboard(DeviceContext* pContext, KeyboardInfo* pInfo)
{
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    LockScope lock(frame.InterfaceLock);
    pInfo->ulDeviceIndex = IndexOf(pContext);
    CopyText(pInfo->HardwareId, frame.HardwareId);
    CopyText(pInfo->DeviceObjectName, frame.PhysicalDeviceObjectName);
    CopyText(pInfo->Description, frame.DeviceDescription);
    pInfo->Reserved[0] = 0;
}
} // namespace

// IRQL = PASSIVE. Fails: never; a position behind the last keyboard writes nothing.
NTSTATUS GetKeyboardInfo(USHORT usPosition, PVOID pBuffer)
{
    ULONG ulPosition = 0;
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        if (ulPosition == usPosition) {
            DescribeKeyboard(FilterContextOf(device), static_cast<KeyboardInfo*>(pBuffer));
            break;
        }
        ulPosition++;
    }
    return STATUS_SUCCESS;
}

// Keyboards that the list has no room for are left out.
// IRQL <= DISPATCH. Fails: never.
NTSTATUS ListKeyboards(PVOID pBuffer)
{
    KeyboardList* pList = static_cast<KeyboardList*>(pBuffer);
    RtlZeroMemory(pList, sizeof(*pList));
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        if (pList->usCount == ARRAYSIZE(pList->Entries)) {
            break;
        }
        const LedFields& leds = FieldsOf<LedFields>(device);
        pList->Entries[pList->usCount] = {IndexOf(device), ReadShared(leds.ulControlPipe)};
        pList->usCount++;
    }
    return STATUS_SUCCESS;
}

namespace
{
// Copies one field of a keyboard's record.
// IRQL <= DISPATCH. Fails: unknown index, *pValue untouched.
template <typename Fields, typename Value>
NTSTATUS ReadField(ULONG ulDeviceIndex, Value Fields::*pField, Value* pValue)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    *pValue = ReadShared(FieldsOf<Fields>(keyboard.Context()).*pField);
    return STATUS_SUCCESS;
}
} // namespace

// The lock LEDs in the platform's indicator encoding.
NTSTATUS GetLedFlags(ULONG ulDeviceIndex, PUSHORT pusLedFlags)
{
    return ReadField(ulDeviceIndex, &LedFields::usLedFlags, pusLedFlags);
}

NTSTATUS GetReservedStatus(ULONG ulDeviceIndex, PUCHAR pucStatus)
{
    return ReadField(ulDeviceIndex, &RoadFields::ucReservedStatus, pucStatus);
}

NTSTATUS GetControlPipe(ULONG ulDeviceIndex, PULONG pulControlPipe)
{
    return ReadField(ulDeviceIndex, &LedFields::ulControlPipe, pulControlPipe);
}

// Any value is kept; the report road acts on 1.
// IRQL <= DISPATCH. Lock: takes CaptureLock. Fails: never.
NTSTATUS SetReportCapture(UCHAR ucValue)
{
    LockScope lock(GlobalMacro.CaptureLock);
    WriteShared(GlobalMacro.ucReportCapture, ucValue);
    return STATUS_SUCCESS;
}
