// leds.cpp - the macro mode on the Scroll Lock LED of the standard keyboards.
//
//   SetKorvexLed ── at PASSIVE ──────────────────────────► SendLedReport ──► keyboard
//        └── above it ──┐                                     ▲
//   QueueKorvexLed ─────┴──► one work item a keyboard ────────┘
//
// Whoever sends holds the keyboard's LedMutex and sends the mode that is in force then. So the mode that shows in
// the end is the newest, however often and by whomever it is switched meanwhile. A keyboard has one work item
// queued at most: it sends what all the switches before it came to. The report road always goes by the work item,
// because a keyboard may take its time to answer.
#include "macro/macro.h"

#include "control/requests.h"
#include "log/events.h"
#include "macro/fields.h"
#include "usb/ledfields.h"
#include "usb/submit.h"

namespace
{
// The keyboard's LEDs as flags, with Scroll Lock showing the mode.
USHORT FlagsShowingMode(const LedFields& leds)
{
    const USHORT usFlags = LedReportToFlags(ReadShared(leds.usLedReport));
    return static_cast<USHORT>(ReadShared(GlobalMacro.ucKorvexMode) ? usFlags | LED_FLAG_SCROLL
                                                                    : usFlags & ~LED_FLAG_SCROLL);
}

// IRQL = PASSIVE, under LedMutex. Fails: never; the mode stays switched without its LED.
void SendMode(PDEVICE_OBJECT device) REQUIRES_LOCK(FieldsOf<MacroFields>(device).LedMutex)
{
    (void)SendLedReport(device, FlagsShowingMode(FieldsOf<LedFields>(device)));
}

// IRQL = PASSIVE. Lock: takes LedMutex.
void SendModeAtOnce(PDEVICE_OBJECT device)
{
    MutexScope lock(FieldsOf<MacroFields>(device).LedMutex);
    SendMode(device);
}

// IRQL <= DISPATCH. Owns: the work item holds the keyboard. Fails: no work item; the LEDs stay as they are.
void QueueMode(PDEVICE_OBJECT device)
{
    MacroFields& macros = FieldsOf<MacroFields>(device);
    if (ExchangeShared(macros.ucLedUpdateQueued, 1) != 0) {
        return; // the queued one sends this too
    }
    PIO_WORKITEM pItem = IoAllocateWorkItem(device);
    if (pItem == nullptr || !AcquireDevice(device)) {
        if (pItem != nullptr) {
            IoFreeWorkItem(pItem);
        }
        WriteShared(macros.ucLedUpdateQueued, 0);
        return;
    }
    WriteShared(macros.pKorvexWorkItem, pItem);
    IoQueueWorkItem(pItem, KorvexLedWorkItem, DelayedWorkQueue, nullptr);
}

// IRQL <= DISPATCH; PASSIVE when pSend waits.
void ForStandardKeyboards(void (*pSend)(PDEVICE_OBJECT device))
{
    if (ReadShared(SettingsOfMacro.ucKorvexLEDDisabled) == 1) {
        Trace(LedNotUsed, ReadShared(GlobalMacro.ucKorvexMode));
        return;
    }
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        if (ReadShared(FieldsOf<FrameFields>(device).KbdType) == NORMALKbdType) {
            pSend(device);
        }
    }
}
} // namespace

// Shows the mode, which the caller has just switched, on every standard keyboard.
// IRQL <= DISPATCH; at PASSIVE it waits for the keyboards. Lock: takes LedMutex. Fails: never; a keyboard that
// does not take it keeps its LEDs.
NTSTATUS SetKorvexLed(UCHAR ucMode)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    Trace(ModeShown, ucMode);
    ForStandardKeyboards(KeGetCurrentIrql() > PASSIVE_LEVEL ? QueueMode : SendModeAtOnce);
    return STATUS_SUCCESS;
}

// The same for the report road, which waits for no keyboard at any level.
// IRQL <= DISPATCH. Fails: never; a keyboard that does not take it keeps its LEDs.
void QueueKorvexLed()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    ForStandardKeyboards(QueueMode);
}

// A switch that comes once the mark is off queues anew; all before it are sent here.
// IRQL = PASSIVE. Lock: takes LedMutex. Owns: the work item and its reference on the keyboard.
void NTAPI KorvexLedWorkItem(PDEVICE_OBJECT device, PVOID)
{
    MacroFields& macros = FieldsOf<MacroFields>(device);
    IoFreeWorkItem(ExchangeShared(macros.pKorvexWorkItem, static_cast<PIO_WORKITEM>(nullptr)));
    {
        MutexScope lock(FieldsOf<MacroFields>(device).LedMutex);
        ExchangeShared(macros.ucLedUpdateQueued, 0);
        SendMode(device);
    }
    ReleaseDevice(device);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeKorvexLed(DeviceContext* pContext)
{
    MacroFields& macros = FieldsOf<MacroFields>(pContext);
    KeInitializeMutex(&macros.LedMutex.Object, 0);
}
