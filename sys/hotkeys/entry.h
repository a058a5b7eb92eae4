// entry.h - one hotkey as the report road walks it.
//
// The list of a keyboard is an array of HOTKEY_LIST_SIZE entries; the first entry whose ulId is 0 ends it.
// BuildHotkeyList fills a list aside and publishes it whole; from then on only the keyboard's report road
// changes the three state fields.
#pragma once

#include <kernel.h>

enum { HOTKEY_LIST_SIZE = 512, HOTKEY_KEYS = 32 };

struct HotkeyEntry {
    UCHAR ucDown;                    // 1 from the down event until the up event
    UCHAR ucModMatch;                // 1 while armed: the mask matched the modifier word
    ULONG ulId;                      // the application's identifier, 0 ends the list
    ULONG ulModifiers;               // mask in the encoding of the modifier word
    ULONG ulKeyCount;                // bytes used in ucKeys, 0 = modifiers only
    UCHAR ucKeys[HOTKEY_KEYS];       // usages, or four bytes a key on Jaalaa and Chic keyboards
    UCHAR ucHotkeyDown[HOTKEY_KEYS]; // ucHotkeyDown[i] is 1 while ucKeys[i] is held
};
