// index.h - the hotkeys of a keyboard and who holds which key.
//
//   entries   0     1     2     3   …            in the order of their definitions
//           Ctrl  Ctrl   Win  Ctrl+Alt
//            F1    A,F1
//   rows    a bit for each entry
//     usage 04        ·     1     ·     ·        who holds the key A
//     usage 3A        1     1     ·     ·        who holds the key F1
//     no key          ·     ·     1     1        whose first key byte is 0: modifiers only
//     bit 0 … 31, 0   …                          whose first four key bytes have this as their lowest bit, or none:
//                                                the keys of Jaalaa and Chic reports
//
// So a key of a report names those whom it can mean, and everybody else is left alone. Two of these lie at a keyboard
// that has hotkeys: one is published, the other aside, equally large. An added hotkey is written behind the published
// ones; a removed one makes the list anew aside, in memory that is there. What is published is one word: which of the
// two, how many entries, which prefixes they use, and the number of the publication. Whoever walks counts himself in
// for the list he walks, and sees the entries of the word that he took, to his end.
#pragma once

#include "hotkeys/entry.h"
#include "hotkeys/fields.h"

enum : ULONG {
    HOTKEY_ROW_NO_KEY = 0, // a usage is never 0
    HOTKEY_ROW_PATTERN = 256,
    HOTKEY_ROW_NO_PATTERN = 288,
    HOTKEY_ROWS = 289,
};

struct HotkeyIndex {
    ULONG ulCapacity;              // entries for which there is room
    ULONG ulWords;                 // of a row
    ULONG ulCount;                 // entries, the one that is being added not yet
    ULONG ulPrefixes;              // prefix bits of all masks
    ULONG ulKbdType;               // of the keyboard when the entries were converted
    UCHAR ucRowWords[HOTKEY_ROWS]; // a bit for each word of the row that is not 0
    ULONGLONG* pRows;              // HOTKEY_ROWS times ulWords
    HotkeyEntry* pEntries;
};

// What is published, taken from its word.
struct HotkeyView {
    ULONG ulCount;
    ULONG ulPrefixes;
    ULONG ulList;       // 0 or 1
    ULONG ulGeneration; // number of the publication: with each all hotkeys start from not held
};

enum : ULONG { HOTKEYS_CHANGING = 0x80000000 }; // in the word: the classes of keys are being written

// index.cpp: IRQL any; AllocateHotkeyIndex = PASSIVE
HotkeyIndex* AllocateHotkeyIndex(ULONG ulCapacity); // NonPaged; null: no memory
void ClearHotkeyIndex(HotkeyIndex* pIndex);
bool IsHotkeyIn(const HotkeyIndex* pIndex, const HotkeyEntry& entry); // an identical one
void AppendHotkey(HotkeyIndex* pIndex, const HotkeyEntry& entry);
ULONG PatternRowOf(const UCHAR* pKeys); // of four key bytes
ULONG ReadPattern(const UCHAR* pKeys);  // as a little-endian word
HotkeyView ViewOf(ULONGLONG ullHotkeys);
ULONGLONG WordOf(const HotkeyView& view);

// One walk of the published entries: while it lives they stay as they are. IRQL <= DISPATCH.
class HotkeyWalk
{
public:
    explicit HotkeyWalk(HotkeyFields& ofKeyboard);
    ~HotkeyWalk();
    HotkeyWalk(const HotkeyWalk&) = delete;
    HotkeyWalk& operator=(const HotkeyWalk&) = delete;
    HotkeyEntry* begin() const { return pFirst; }
    HotkeyEntry* end() const { return pFirst + View.ulCount; }

protected:
    HotkeyFields& hotkeys;
    HotkeyView View;
    const HotkeyIndex* pIndex; // null: no hotkeys
    HotkeyEntry* pFirst;
};
