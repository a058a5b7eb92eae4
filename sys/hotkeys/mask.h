// mask.h - a hotkey's modifier mask against the modifier word.
#pragma once

#include "control/requests.h"

// A mask matches when it is the word itself, or when it names more than prefixes, agrees with the word in
// the prefix bits, and every other bit of it is set in the word; extra keys held are allowed.
inline bool IsModifierMaskMatched(ULONG ulMask, ULONG ulFlags)
{
    if (ulMask == ulFlags) {
        return true;
    }
    ULONG ulOthers = ulMask & ~MODIFIER_PREFIXES;
    return ulOthers != 0 && ((ulMask ^ ulFlags) & MODIFIER_PREFIXES) == 0 && (ulOthers & ~ulFlags) == 0;
}
