// keyboarddescriptors.cpp - the keyboard's device descriptor and its strings, read for the application.
//
// The keyboard is asked each time; nothing is kept. A keyboard that gives less than it was asked for leaves
// zeros. Runs in the application's thread at PASSIVE_LEVEL.
#include "control/control.h"

#include "usb/submit.h"

namespace
{
enum : ULONG { DEVICE_BYTES = 18, STRING_HEAD_BYTES = 4, STRING_BYTES = 256, STRING_PREFIX_BYTES = 2 };
enum : USHORT {
    DEVICE_DESCRIPTOR_VALUE = USB_DEVICE_DESCRIPTOR_TYPE << 8,
    STRING_DESCRIPTOR_VALUE = USB_STRING_DESCRIPTOR_TYPE << 8,
};

// Copies the characters behind the descriptor's length and type and ends them with 0: ulLength bytes in all.
// Below 2 there are none.
void CopyString(PUCHAR pOut, const UCHAR* pDescriptor, ULONG ulLength)
{
    RtlZeroMemory(pOut, ulLength);
    if (ulLength > STRING_PREFIX_BYTES) {
        RtlCopyMemory(pOut, pDescriptor + STRING_PREFIX_BYTES, ulLength - STRING_PREFIX_BYTES);
    }
}

// Asks for the length first, so that a string that does not fit costs one short transfer. The second answer
// may be another one: its own length counts.
// IRQL = PASSIVE. Fails: as ReadFromKeyboard, *pulLength 0.
NTSTATUS ReadString(PDEVICE_OBJECT device, const SetupRequest& request, PUCHAR pOut, ULONG ulCapacity,
                    PULONG pulLength)
{
    static const ULONG Steps[] = {STRING_HEAD_BYTES, STRING_BYTES};
    UCHAR Descriptor[STRING_BYTES] = {};
    for (ULONG ulBytes : Steps) {
        NTSTATUS status = ReadFromKeyboard(device, request, Descriptor, ulBytes);
        *pulLength = NT_SUCCESS(status) ? Descriptor[0] : 0;
        if (!NT_SUCCESS(status) || pOut == nullptr || ulCapacity < *pulLength) {
            return status;
        }
    }
    CopyString(pOut, Descriptor, *pulLength);
    return STATUS_SUCCESS;
}
} // namespace

// IRQL = PASSIVE. Fails: unknown index, or as ReadFromKeyboard; *pDescriptor is untouched then.
NTSTATUS GetDeviceDescriptor(ULONG ulDeviceIndex, PUCHAR pDescriptor)
{
    static const SetupRequest Request = {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, 0, 0,
                                         DEVICE_DESCRIPTOR_VALUE, 0};
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    UCHAR Descriptor[DEVICE_BYTES] = {};
    NTSTATUS status = ReadFromKeyboard(keyboard.Device(), Request, Descriptor, sizeof(Descriptor));
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(pDescriptor, Descriptor, sizeof(Descriptor));
    }
    return status;
}

// *pulLength is the descriptor's own length, as far as it was learnt. With less room, or none, nothing is
// copied.
// IRQL = PASSIVE. Fails: unknown index, or as ReadFromKeyboard.
NTSTATUS GetStringDescriptor(ULONG ulDeviceIndex, UCHAR ucIndex, USHORT usLanguage, PUCHAR pOut,
                             ULONG ulCapacity, PULONG pulLength)
{
    *pulLength = 0;
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    const SetupRequest request = {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, 0, 0,
                                  static_cast<USHORT>(STRING_DESCRIPTOR_VALUE | ucIndex), usLanguage};
    return ReadString(keyboard.Device(), request, pOut, ulCapacity, pulLength);
}
