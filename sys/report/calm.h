// calm.h - the quick way: a report that means nothing to anybody.
//
//   no hotkey is held, no key waits, no prefix is latched, nobody logs or traces
//   no key of the report belongs to a hotkey, no hotkey of modifiers only is touched   ─► the report goes on as it is;
//   the modifier word is what the report's modifiers say                                  only the previous report
//                                                                                         follows it
// What a key means stands in a table of the keyboard, made from the hotkeys that are published. The table is written
// while their word says so; a report that finds the word changed, or changing, goes the long way. The long way decides
// everything this one decides, and leaves the same. Nothing is called here, so that a calm report pays for no frame.
#pragma once

#include "driver/context.h"
#include "ground/shared.h"
#include "hotkeys/modifiers.h"
#include "hotkeys/pass.h"
#include "log/trace.h"

enum : ULONG { MODIFIER_OF_KEYS = MODIFIER_PREFIXES | MODIFIER_FN | MODIFIER_CONTEXT_KEY };

// Nothing of before waits for this report. The fields are shared; between these looks nobody need come first.
inline bool IsNothingUnderWay(const DeviceContext* pContext)
{
    return (pContext->HeldHotkeys.ucWords | LoadAcquire(pContext->usSwallowCount) |
            LoadAcquire(pContext->usInsertCount) | LoadAcquire(pContext->ucHotkeyActive) |
            LoadAcquire(Globals.ucHotkeyComplete) | LoadAcquire(Globals.ucSwallowPending) |
            LoadAcquire(Globals.ulPrefixReleased) | LoadAcquire(Globals.ulPrefixUnmatched)) == 0;
}

inline bool IsMeaningless(const DeviceContext* pContext, const UCHAR* pBuf)
{
    const auto Means = [=](ULONG i) -> ULONG { return LoadAcquire(pContext->ucKeyMeans[pBuf[i]]); };
    const ULONG ulModifiers = LoadAcquire(pContext->ucModifiersMean[pBuf[0]]);
    return (ulModifiers | Means(1) | Means(2) | Means(3) | Means(4) | Means(5) | Means(6) | Means(7)) == 0;
}

// Prefixes and keys that are modifiers are up, the modifiers are those of the report.
inline bool IsWordOf(UCHAR ucModifiers, ULONG ulFlags)
{
    return (ulFlags & (MODIFIER_OF_KEYS | MODIFIER_OF_BYTE)) == WordOfModifiers(ucModifiers);
}

// Takes a standard report of 8 bytes the quick way. Returns false, having changed nothing, when the report needs the
// long one.
// IRQL any. Owns: nothing; pBuf stays as it is.
inline bool PassCalmReport(DeviceContext* pContext, const UCHAR* pBuf)
{
    const ULONGLONG ullHotkeys = ReadShared(pContext->ullHotkeys);
    if ((ullHotkeys & HOTKEYS_CHANGING) || !IsNothingUnderWay(pContext) || !IsMeaningless(pContext, pBuf) ||
        !IsWordOf(pBuf[0], ReadShared(Globals.ulModifierFlags)) || IsWholeWalk() || IsTraced(TRACE_VERBOSE) ||
        ReadShared(pContext->ullHotkeys) != ullHotkeys) {
        return false;
    }
    if (!pContext->ucRunDiagNormalPacket02) { // simple matching compares nothing with it
        RtlCopyMemory(pContext->ucOldPacket, pBuf, sizeof(pContext->ucOldPacket));
    }
    return true;
}
