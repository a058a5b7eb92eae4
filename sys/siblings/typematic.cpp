// typematic.cpp - the key repeat settings of the system's keyboard class devices.
//
// The settings belong to the system, not to one keyboard: the class devices are tried in order, and the first
// that succeeds has the say. The keyboard that the caller names must exist and is not used otherwise.
// What was asked or set is kept as indexes for the repeat timers (usTypematicRate, usTypematicDelay).
// Runs at PASSIVE_LEVEL in a Plug and Play thread or the application's.
#include "siblings/siblings.h"

#include "report/keytable.h"
#include "siblings/fields.h"

namespace
{
enum : USHORT {
    SET_RATE_LEAST = 2,
    SET_RATE_MOST = 30,
    SET_RATE_ABOVE_MOST = 20, // what a rate above SET_RATE_MOST becomes
    DELAY_STEP_MS = 250,
};

const PCWSTR ClassDevices[] = {L"\\Device\\KeyboardClass0", L"\\Device\\KeyboardClass1",
                               L"\\Device\\KeyboardClass2", L"\\Device\\KeyboardClass3",
                               L"\\Device\\KeyboardClass4"};

// IRQL = PASSIVE. Fails: unknown index.
NTSTATUS RequireKeyboard(ULONG ulDeviceIndex)
{
    return KeyboardReference(ulDeviceIndex).Status();
}

// IRQL = PASSIVE. Fails: no such class device, no request, or as it answers.
NTSTATUS AskClassDevice(PCWSTR pszName, OutsideRequest* pRequest)
{
    PFILE_OBJECT pFile;
    PDEVICE_OBJECT pTarget;
    NTSTATUS status = OpenNamedDevice(pszName, &pFile, &pTarget);
    if (NT_SUCCESS(status)) {
        status = SendOutsideRequest(pTarget, pRequest);
        ObDereferenceObject(pFile);
    }
    return status;
}

// Until one succeeds; each gets the request as it was built, and only the one that succeeds changes *pRecord.
// IRQL = PASSIVE. Fails: as the last attempt.
NTSTATUS AskClassDevices(OutsideRequest request, KEYBOARD_TYPEMATIC_PARAMETERS* pRecord)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    for (PCWSTR pszName : ClassDevices) {
        RtlCopyMemory(request.ucData, pRecord, sizeof(*pRecord));
        status = AskClassDevice(pszName, &request);
        if (NT_SUCCESS(status)) {
            RtlCopyMemory(pRecord, request.ucData, sizeof(*pRecord));
            break;
        }
    }
    return status;
}

// The index into TypematicDelayTable of what a class device reports.
USHORT DelayIndex(USHORT usDelayMs)
{
    if (usDelayMs < DELAY_STEP_MS) {
        return 0;
    }
    const USHORT usIndex = static_cast<USHORT>(usDelayMs / DELAY_STEP_MS - 1);
    return usIndex < TYPEMATIC_DELAYS ? usIndex : TYPEMATIC_DELAYS - 1;
}
} // namespace

// The caller gets rate and delay as they were returned, the timers get them bounded to their tables. Without
// an answer nothing changes.
// IRQL = PASSIVE. Fails: unknown index, or as the last class device that was tried.
NTSTATUS QueryKeyboardTypematic(ULONG ulDeviceIndex, PUSHORT pusRate, PUSHORT pusDelayMs)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    NTSTATUS status = RequireKeyboard(ulDeviceIndex);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KEYBOARD_TYPEMATIC_PARAMETERS record = {};
    status = AskClassDevices({IRP_MJ_DEVICE_CONTROL, IOCTL_KEYBOARD_QUERY_TYPEMATIC, 0, sizeof(record), {}},
                             &record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *pusRate = record.Rate;
    *pusDelayMs = record.Delay;
    WriteShared(GlobalSiblings.usTypematicRate,
                record.Rate < TYPEMATIC_PERIODS ? record.Rate : TYPEMATIC_PERIODS - 1);
    WriteShared(GlobalSiblings.usTypematicDelay, DelayIndex(record.Delay));
    return STATUS_SUCCESS;
}

namespace
{
USHORT BoundRate(USHORT usRate)
{
    if (usRate < SET_RATE_LEAST) {
        return SET_RATE_LEAST;
    }
    return usRate > SET_RATE_MOST ? static_cast<USHORT>(SET_RATE_ABOVE_MOST) : usRate;
}
} // namespace

// Sets the system's key repeat: the rate in characters per second, the delay in steps of 250 ms from 0.
// IRQL = PASSIVE. Fails: unknown index, or as the last class device that was tried.
NTSTATUS SetKeyboardTypematic(ULONG ulDeviceIndex, USHORT usRate, USHORT usDelayIndex)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    NTSTATUS status = RequireKeyboard(ulDeviceIndex);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    usRate = BoundRate(usRate);
    usDelayIndex = usDelayIndex < TYPEMATIC_DELAYS ? usDelayIndex : TYPEMATIC_DELAYS - 1;
    KEYBOARD_TYPEMATIC_PARAMETERS record = {0, usRate,
                                            static_cast<USHORT>((usDelayIndex + 1) * DELAY_STEP_MS)};
    status = AskClassDevices({IRP_MJ_DEVICE_CONTROL, IOCTL_KEYBOARD_SET_TYPEMATIC, sizeof(record), 0, {}},
                             &record);
    if (NT_SUCCESS(status)) {
        WriteShared(GlobalSiblings.usTypematicRate, usRate);
        WriteShared(GlobalSiblings.usTypematicDelay, usDelayIndex);
    }
    return status;
}
