// control.h - what the scenes ask of the two test drivers, \\.\TvBus and \\.\TvHid. Both sides include it.
//
// A keyboard is named by the number that plugging it in gave: its physical device's address, which both drivers know.
#pragma once

#include <stdint.h>

enum : uint32_t {
    BUS_PLUG = 0x80002000,       // in: a KeyboardKind; out: the keyboard's number
    BUS_REPORT = 0x80002004,     // in: KeyboardReport; the keyboard sends it
    BUS_ASK_REMOVE = 0x80002008, // in: number; may it go? Refused with the stack's own status
    BUS_PULL = 0x8000200C,       // in: number; the bus tells that it is not there any more
    BUS_COUNT = 0x80002010, // out: how many physical devices there are, pulled ones that were not removed too
    HID_STATE = 0x80002020, // in: number; out: HidState
    HID_TAKE = 0x80002024,  // in: number; out: KeyboardReport, the oldest that the system read; none: refused
    HID_UNLOAD = 0x80002028, // unloads Tv64USB.sys; out: UnloadAnswer
};

enum KeyboardKind : uint32_t { BOOT_KEYBOARD, CHIC_KEYBOARD, KEYBOARD_KINDS };

enum { REPORT_BYTES = 16 };

struct KeyboardReport {
    uint64_t Keyboard;
    uint32_t ulLength;
    uint8_t ucBytes[REPORT_BYTES];
};

struct HidState {
    uint32_t ulStarted; // START_DEVICE has ended well and the keyboard was not removed since
    uint32_t ulReads;   // reads that are below
    uint32_t ulFailed;  // reads that ended with a failure
};

struct UnloadAnswer {
    uint32_t ulStatus;     // of the unloading
    uint32_t ulBlocksLeft; // memory that the driver allocated and did not free
    uint32_t ulGapsFilled; // 1: this kernel's gaps were filled when it was loaded, so its memory was counted
};
