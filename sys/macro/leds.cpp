// leds.cpp - the macro mode on the Scroll Lock LED of the standard keyboards.
//
//   SetKorvexLed ── at PASSIVE ──────────────────────────────► SendLedReport ──► keyboard
//        └── above it: ulQueuedLeds ──► one work item a keyboard ──► ▲ until nothing newer is wanted
//
// A keyboard has one work item at most: an update that is wanted while one is queued is sent by that one. So
// the LEDs show the newest mode in the end, however often it is switched meanwhile.
#include "macro/macro.h"

#include "log/trace.h"
#include "usb/usb.h"

enum : ULONG { LED_UPDATE_QUEUED = 0x10000 }; // above the flags, so that a queued update is never 0

// The keyboard's LEDs as flags, with Scroll Lock showing the mode.
static USHORT FlagsShowing(DeviceContext* pContext, UCHAR ucMode)
{
    const USHORT usFlags = LedReportToFlags(ReadShared(pContext->usLedReport));
    return static_cast<USHORT>(ucMode == 1 ? usFlags | LED_FLAG_SCROLL : usFlags & ~LED_FLAG_SCROLL);
}

// IRQL <= DISPATCH. Owns: the work item holds the keyboard. Fails: no work item; the LEDs stay as they are.
static void QueueLedUpdate(PDEVICE_OBJECT device, USHORT usFlags)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (ExchangeShared(pContext->ulQueuedLeds, LED_UPDATE_QUEUED | usFlags) != 0) {
        return; // the queued one sends these
    }
    PIO_WORKITEM pItem = IoAllocateWorkItem(device);
    if (pItem == nullptr || !AcquireDevice(device)) {
        if (pItem != nullptr) {
            IoFreeWorkItem(pItem);
        }
        WriteShared(pContext->ulQueuedLeds, 0u);
        return;
    }
    WriteShared(pContext->pKorvexWorkItem, pItem);
    IoQueueWorkItem(pItem, KorvexLedWorkItem, DelayedWorkQueue,
                    reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(usFlags)));
}

// Shows the mode on every standard keyboard.
// IRQL <= DISPATCH. Fails: never; a keyboard that does not take it keeps its LEDs.
NTSTATUS SetKorvexLed(UCHAR ucMode)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (ReadShared(Settings.ucKorvexLEDDisabled) == 1) {
        Trace("(SetKorvexLed) the LED is not used\n");
        return STATUS_SUCCESS;
    }
    for (PDEVICE_OBJECT device = FirstKeyboard(); device != nullptr; device = NextKeyboard(device)) {
        DeviceContext* pContext = FilterContextOf(device);
        if (ReadShared(pContext->KbdType) != NORMALKbdType) {
            continue;
        }
        if (KeGetCurrentIrql() > PASSIVE_LEVEL) {
            QueueLedUpdate(device, FlagsShowing(pContext, ucMode));
        } else {
            (void)SendLedReport(device, FlagsShowing(pContext, ucMode));
        }
    }
    return STATUS_SUCCESS;
}

// Sends the update that it was queued for, and what is wanted since then.
// IRQL = PASSIVE. Owns: the work item and its reference on the keyboard.
void NTAPI KorvexLedWorkItem(PDEVICE_OBJECT device, PVOID pFlags)
{
    DeviceContext* pContext = FilterContextOf(device);
    ULONG ulLeds = LED_UPDATE_QUEUED | static_cast<USHORT>(reinterpret_cast<ULONG_PTR>(pFlags));
    IoFreeWorkItem(ExchangeShared(pContext->pKorvexWorkItem, static_cast<PIO_WORKITEM>(nullptr)));
    do {
        (void)SendLedReport(device, static_cast<USHORT>(ulLeds)); // the mode stays switched without its LED
    } while (!CompareExchangeShared(pContext->ulQueuedLeds, ulLeds, ULONG{0}));
    ReleaseDevice(device);
}
