// keyboardcommands.cpp - what the application tells a keyboard to do: its LEDs, and commands to its firmware.
//
// Runs in the application's thread at PASSIVE_LEVEL and returns when the keyboard has taken the request.
#include "control/control.h"

#include "report/keytable.h"
#include "usb/submit.h"

namespace
{
enum : ULONG { COMMAND_WITH_KEY = 1 };
enum : UCHAR { VENDOR_PLAIN = 1, VENDOR_WITH_KEY = 3 };

// The command's vendor request; only the one with a key carries it, but every one's key must be known.
// IRQL any. Fails: unknown scan code.
NTSTATUS TranslateCommand(const KeyCommand* pCommand, SetupRequest* pRequest)
{
    USHORT usUsage = 0;
    USHORT usUsageBytes;
    if (pCommand->usScanCode != 0 && !NT_SUCCESS(PS2ToHID(pCommand->usScanCode, &usUsage, &usUsageBytes))) {
        return STATUS_UNSUCCESSFUL;
    }
    bool bWithKey = pCommand->ulCommand == COMMAND_WITH_KEY;
    *pRequest = {URB_FUNCTION_VENDOR_INTERFACE, bWithKey ? VENDOR_WITH_KEY : VENDOR_PLAIN,
                 USBD_TRANSFER_DIRECTION_OUT, bWithKey ? usUsage : USHORT{0}, 0};
    return STATUS_SUCCESS;
}
} // namespace

// IRQL = PASSIVE. Fails: unknown index, or as SendLedReport.
NTSTATUS SetKeyboardLeds(ULONG ulDeviceIndex, UCHAR ucLedFlags)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    return keyboard.IsHeld() ? SendLedReport(keyboard.Device(), ucLedFlags) : keyboard.Status();
}

// IRQL = PASSIVE. Fails: unknown index, unknown scan code, or as SubmitUrbSync.
NTSTATUS SendKeyCommand(ULONG ulDeviceIndex, const KeyCommand* pCommand)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    SetupRequest request;
    NTSTATUS status = TranslateCommand(pCommand, &request);
    if (NT_SUCCESS(status)) {
        status = WriteToKeyboard(keyboard.Device(), request, nullptr, 0);
    }
    return status;
}
