// ledfields.h - the lock LEDs and the pipe to the keyboard itself, in a keyboard's record.
#pragma once

#include "ground/frame.h"

struct LedFields {
    static const ULONG Place;

    USHORT usLedReport;  // (x) HID form: Num 1, Caps 2, Scroll 4
    USHORT usLedFlags;   // (x) indicator form: Scroll 1, Num 2, Caps 4
    ULONG ulControlPipe; // (x) low 32 bits of the last control pipe handle
};
