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

#include "ground/shared.h"
#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "hotkeys/modifiers.h"
#include "hotkeys/pass.h"
#include "log/trace.h"
#include "report/fields.h"

enum : ULONG { MODIFIER_OF_KEYS = MODIFIER_PREFIXES | MODIFIER_FN | MODIFIER_CONTEXT_KEY };

// Nothing of before waits for this report. The fields are shared; between these looks nobody need come first.
inline bool IsNothingUnderWay(const HotkeyFields& hotkeys, const BufferFields& buffers)
{
    return (hotkeys.HeldHotkeys.ucWords | LoadAcquire(buffers.usSwallowCount) |
            LoadAcquire(buffers.usInsertCount) | LoadAcquire(hotkeys.ucHotkeyActive)) == 0 &&
           (LoadAcquire(GlobalHotkeys.ucHotkeyComplete) | LoadAcquire(GlobalHotkeys.ucSwallowPending) |
            LoadAcquire(GlobalHotkeys.ulPrefixReleased) | LoadAcquire(GlobalHotkeys.ulPrefixUnmatched)) == 0;
}

inline bool IsMeaningless(const HotkeyFields& hotkeys, const UCHAR* pBuf)
{
    const auto Means = [&hotkeys, pBuf](ULONG i) -> ULONG {
        return LoadAcquire(hotkeys.ucKeyMeans[pBuf[i]]);
    };
    const ULONG ulModifiers = LoadAcquire(hotkeys.ucModifiersMean[pBuf[0]]);
    return (ulModifiers | Means(1) | Means(2) | Means(3)) == 0 &&
           (Means(4) | Means(5) | Means(6) | Means(7)) == 0;
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
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(pContext);
    const ULONGLONG ullHotkeys = ReadShared(hotkeys.ullHotkeys);
    if ((ullHotkeys & HOTKEYS_CHANGING) || !IsNothingUnderWay(hotkeys, FieldsOf<BufferFields>(pContext)) ||
        !IsMeaningless(hotkeys, pBuf) || !IsWordOf(pBuf[0], LoadAcquire(GlobalHotkeys.ulModifierFlags)) ||
        IsWholeWalk() || IsTraced(TRACE_VERBOSE) || ReadShared(hotkeys.ullHotkeys) != ullHotkeys) {
        return false;
    }
    ReportFields& reports = FieldsOf<ReportFields>(pContext);
    if (!reports.ucRunDiagNormalPacket02) { // simple matching compares nothing with it
        RtlCopyMemory(reports.ucOldPacket, pBuf, sizeof(reports.ucOldPacket));
    }
    return true;
}
