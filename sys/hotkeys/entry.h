// entry.h - one hotkey as the report road walks it.
//
// A keyboard's hotkeys stand in an index, in the order of their definitions (index.h). The first part of an entry
// is made from its definition and stays, but for the swallow byte; the second part belongs to the report road.
// Whether an entry is armed stands nowhere: it follows from its mask, the modifier word and the last hit (pass.h).
#pragma once

#include <kernel.h>

enum { HOTKEY_KEYS = 32 };

struct HotkeyEntry {
    ULONG ulId;                // the application's identifier, never 0
    ULONG ulModifiers;         // mask in the encoding of the modifier word
    ULONG ulKeyCount;          // bytes used in ucKeys, 0 = modifiers only
    UCHAR ucSwallow;           // (x) of the first definition with this id
    UCHAR ucKeys[HOTKEY_KEYS]; // usages, or four bytes a key on Jaalaa and Chic keyboards

    UCHAR ucDown;                    // 1 from the down event until the up event
    UCHAR ucHeldKeys;                // how many of ucHotkeyDown are 1
    UCHAR ucHotkeyDown[HOTKEY_KEYS]; // ucHotkeyDown[i] is 1 while ucKeys[i] is held
    ULONGLONG ullHit; // number of the scan that last hit one of its keys while its mask matched
};
