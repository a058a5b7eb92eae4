// modifiers.h - the modifier word of all keyboards, and what it means to the hotkeys.
#pragma once

#include "hotkeys/pass.h"

// The bits of the modifier word that follow from a report's modifier byte.
enum : ULONG { MODIFIER_OF_BYTE = 0x3DFE };

// modifiers.cpp: the modifier word of all keyboards
void UpdateModifierFlags(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucFlag);
UCHAR ReportBitsOf(ULONG ulModifiers); // IRQL any; bits of the report's modifier byte
bool IsPrefixUsage(UCHAR ucUsage);     // IRQL any; one of the three prefix keys

// For each modifier byte what it sets in the word: the single bits and those derived from them.
struct ModifierWords {
    USHORT usOf[256];
};
extern const ModifierWords WordsOfModifiers;
inline ULONG WordOfModifiers(UCHAR ucModifiers)
{
    return WordsOfModifiers.usOf[ucModifiers];
}

// hotkeymodifiers.cpp: what the modifier word means to the hotkeys
void UpdateHotkeyModifierMatch(HotkeyPass& pass);
void CheckModifierOnlyHotkeys(HotkeyPass& pass, PUCHAR pBuf); // rewrites byte 0
void NotifyHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, UCHAR ucDown);
