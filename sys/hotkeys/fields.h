// fields.h - key definitions, hotkeys and what the report road knows of them, in the shared records.
#pragma once

#include "control/requests.h"
#include "ground/frame.h"
#include "hotkeys/bufferfields.h"

enum {
    KEY_DEFINITION_SLOTS = 512, // the last slot stays null
    HOTKEY_LIST_SIZE = 512,
    HOTKEY_SET_WORDS = HOTKEY_LIST_SIZE / 64,
};

// Bits of ulKeyDefTypes: bit t - 1 says that a definition of type t exists.
enum : ULONG {
    KEYDEF_HOTKEY = 0x0001,
    KEYDEF_POINT_OF_SALE = 0x0010,
    KEYDEF_DISCARD = 0x0400,
    KEYDEF_MACRO_MODE = 0x4000, // not derived: the keyboard takes part in the macro mode
};

struct HotkeyIndex;

// A bit for each hotkey of a list, and one for each word of these that is not 0.
struct HotkeyBits {
    ULONGLONG ullWords[HOTKEY_SET_WORDS];
    UCHAR ucWords;

    void Put(ULONG ulWord, ULONGLONG ullBits)
    {
        ullWords[ulWord] = ullBits;
        ucWords = static_cast<UCHAR>((ucWords & ~(1u << ulWord)) | (ullBits != 0 ? 1u << ulWord : 0));
    }
};

// A timer of the key repeat.
struct TypematicTimer : TimerWithDpc {
    ULONGLONG ullDue; // TypematicLock: interrupt time at which its callback shall act, 0 = not at all
};

struct HotkeyFields {
    static constexpr ULONG Place = BufferFields::Place + sizeof(BufferFields);

    UCHAR ucSendUpEventImmediately; // (i)

    // Key definitions and the hotkey lists made from them.
    Mutex DefinitionMutex; // one change of the definitions at a time, at PASSIVE_LEVEL
    SpinLock KeyDefLock;   // a definition found under it is not freed
    KeyDefinition* KeyDefinitions[KEY_DEFINITION_SLOTS] GUARDED_BY(KeyDefLock);
    UCHAR ucDefinitionHashes[KEY_DEFINITION_SLOTS]; // of their ids. KeyDefLock
    USHORT usDefinitions;                           // how many there are. KeyDefLock
    ULONG ulHotkeyDefinitions;                      // of type 1. DefinitionMutex
    ULONG ulKeyDefTypes;                            // (x)

    // The hotkeys, see index.h, and what the report road knows of them.
    ULONGLONG ullHotkeys; // (x) what is published; written under DefinitionMutex
    HotkeyIndex*
        pHotkeyIndexes[2];      // published and aside; changed under DefinitionMutex while nobody walks it
    LONG lHotkeyWalks[2];       // (x) walks under way in each
    UCHAR ucKeyMeans[256];      // (x) of a usage: it is no mere key, see report/calm.h
    UCHAR ucModifiersMean[256]; // (x) of a modifier byte: likewise
    HotkeyBits HeldHotkeys;     // (r) those that are down or have a key held
    HotkeyBits ReadyHotkeys;    // (r) of these, those that are down or have all their keys held
    ULONG ulHeldOf;             // (r) generation of the hotkeys that they are
    ULONGLONG ullHotkeyScan;    // (r) keys looked up so far

    // Hotkey matching.
    UCHAR ucHotkeyActive;   // (x)
    ULONG ulActiveHotkeyId; // (x) the hotkey whose event was sent last
    USHORT usTypematicScan; // (x) the point-of-sale key to repeat
    SpinLock TypematicLock;
    TypematicTimer TypematicDelay;  // TypematicDelayTimer and its deferred call
    TypematicTimer TypematicRepeat; // TypematicRepeatTimer and its deferred call
};

struct HotkeyGlobals {
    // Modifiers and prefixes of all keyboards.
    ULONG ulModifierFlags;   // (x)
    ULONG ulPrefixReleased;  // (x)
    ULONG ulPrefixUnmatched; // (x)
    UCHAR ucPrefix1Usage;
    UCHAR ucPrefix2Usage;
    UCHAR ucPosKeyPrefixUsage;

    // Hotkeys of all keyboards.
    LONG lArmedRepeats;     // (x) timers of the key repeat that are due
    UCHAR ucHotkeyComplete; // (x)
    UCHAR ucEscAbort;       // (x)
    UCHAR ucSwallowPending; // (x)
};

struct HotkeySettings { // constant after driver entry
    ULONG ulPrefix1;
    ULONG ulPrefix2;
    ULONG ulPosKeyPrefix;
    ULONG ulSendUpEventImmediately;
};

extern HotkeyGlobals& GlobalHotkeys;
extern HotkeySettings& SettingsOfHotkeys;
