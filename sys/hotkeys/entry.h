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
    UCHAR ucKeys[HOTKEY_KEYS]; // usages, or four bytes a key on Jaalaa and Chic keyboards
    UCHAR ucSwallow;           // (x) of the first definition with this id

    UCHAR ucDown;     // 1 from the down event until the up event
    ULONG ulHeldKeys; // a bit for each of ucKeys that is held
    ULONGLONG ullHit; // number of the scan that last hit one of its keys while its mask matched
};
static_assert(sizeof(HotkeyEntry) == 64, "a line of the processor's cache: 511 of them stay in it");

constexpr ULONG BitsOfKeys(ULONG ulKeys)
{
    return static_cast<ULONG>((1ull << ulKeys) - 1);
}
static_assert(BitsOfKeys(HOTKEY_KEYS) == ~0u, "each key of the longest hotkey has its bit");

inline bool AreAllKeysHeld(const HotkeyEntry& entry)
{
    return entry.ulHeldKeys == BitsOfKeys(entry.ulKeyCount);
}

inline bool HasKey(const HotkeyEntry& entry, UCHAR ucUsage)
{
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucKeys[i] == ucUsage) {
            return true;
        }
    }
    return false;
}

// The held keys as logs and traces tell them: a byte for each of ucKeys, 1 while it is held.
struct HeldKeyBytes {
    explicit HeldKeyBytes(const HotkeyEntry& entry)
    {
        for (ULONG i = 0; i < entry.ulKeyCount; i++) {
            ucHeld[i] = entry.ulHeldKeys >> i & 1;
        }
    }
    UCHAR ucHeld[HOTKEY_KEYS];
};
