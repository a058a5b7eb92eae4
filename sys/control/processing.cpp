// processing.cpp - the application's switch: are a keyboard's reports analysed?
//
// One byte a keyboard, changed at PASSIVE_LEVEL and read once a report on the report road. Two requests for
// the same change at once: one makes it, the other fails.
#include "control/notification.h"

#include "control/fields.h"

namespace
{
// Fails: unknown index, the switch is there already.
NTSTATUS SwitchReportProcessing(ULONG ulDeviceIndex, UCHAR ucOn)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    UCHAR ucBefore = ExchangeShared(FieldsOf<NotifyFields>(keyboard.Context()).ucReportProcessing, ucOn);
    return ucBefore != ucOn ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
} // namespace

// IRQL <= DISPATCH. Fails: unknown index, already on.
NTSTATUS StartReportProcessing(ULONG ulDeviceIndex)
{
    return SwitchReportProcessing(ulDeviceIndex, 1);
}

// IRQL <= DISPATCH. Fails: unknown index, already off.
NTSTATUS StopReportProcessing(ULONG ulDeviceIndex)
{
    return SwitchReportProcessing(ulDeviceIndex, 0);
}

// At removal.
// IRQL <= DISPATCH.
void EndReportProcessing(DeviceContext* pContext)
{
    WriteShared(FieldsOf<NotifyFields>(pContext).ucReportProcessing, 0);
}

// At the last close.
// IRQL <= DISPATCH. Fails: the keyboards' statuses ORed, so one that was off counts.
NTSTATUS StopAllReportProcessing()
{
    NTSTATUS status = STATUS_SUCCESS;
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        status |= StopReportProcessing(IndexOf(device));
    }
    return status;
}
