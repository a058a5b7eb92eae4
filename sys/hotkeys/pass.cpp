// pass.cpp - which hotkeys a report looks at, and which of them are armed.
//
// A hotkey is armed at a report's begin when its mask matches the modifier word. Each key narrows that:
//
//   of several keys      armed after a key only if the key hit it
//   of one key or none   armed while its mask matches; another word within the report (a prefix ends, another
//                        keyboard's modifiers) can only take it away
//
// So the words that a report met and the number of the last hit tell everything.
#include "hotkeys/pass.h"

#include "ground/ground.h"
#include "ground/sums.h"
#include "hotkeys/fields.h"

#if defined(TV64USB_WHOLE_WALK)
const bool WalkWhole = true;
#else
const bool WalkWhole = false;
#endif

HotkeyPass::HotkeyPass(PDEVICE_OBJECT pFilter)
    : HotkeyWalk(FieldsOf<HotkeyFields>(pFilter)), device(pFilter),
      ulAllWords((1u << (View.ulCount + 63) / 64) - 1), bWhole(IsWholeWalk())
{
    if (hotkeys.ulHeldOf != View.ulGeneration) {
        StartFromNothingHeld();
    }
}

// The hotkeys were published anew since the last report; those that were held and are still there start anew too.
COLD void HotkeyPass::StartFromNothingHeld()
{
    for (HotkeyEntry& entry : Held()) {
        entry.ucDown = 0;
        entry.ulHeldKeys = 0;
    }
    hotkeys.HeldHotkeys = {};
    hotkeys.ReadyHotkeys = {};
    hotkeys.ulHeldOf = View.ulGeneration;
}

ULONG HotkeyPass::Arm()
{
    ulScans = 0;
    ulWords = 1;
    return Words[0] = ReadShared(GlobalHotkeys.ulModifierFlags);
}

ULONG HotkeyPass::BeginScan()
{
    const ULONG ulFlags = ReadShared(GlobalHotkeys.ulModifierFlags);
    ulBefore = ulWords;
    if (ulFlags != Words[ulWords - 1] && ulWords < sizeof(Words) / sizeof(Words[0])) {
        Words[ulWords++] = ulFlags;
    }
    ulScans++;
    ullScan = ++hotkeys.ullHotkeyScan;
    return ulFlags;
}

COLD void HotkeyPass::LogKeptHeldKeys(const char* pszTitle, const HotkeyEntry& entry)
{
    LogHexDump(pszTitle, entry.ulKeyCount, HeldKeyBytes(entry).ucHeld);
}

HotkeySet HotkeyPass::Whole() const
{
    static const ULONGLONG Everybody[] = {~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull};
    static_assert(sizeof(Everybody) == HOTKEY_SET_WORDS * sizeof(ULONGLONG), "a bit for each");
    return SetOf(Everybody, ulAllWords);
}

// Without hotkeys there are no rows.
HotkeySet HotkeyPass::Row(ULONG ulRow) const
{
    return pIndex == nullptr
               ? SetOf(nullptr, 0)
               : SetOf(pIndex->pRows + ulRow * pIndex->ulWords, LoadAcquire(pIndex->ucRowWords[ulRow]));
}

void HotkeyPass::AddRow(ULONG ulRow)
{
    const HotkeySet row = Row(ulRow);
    for (ULONG ulWordsLeft = row.Words(); ulWordsLeft != 0; ulWordsLeft &= ulWordsLeft - 1) {
        const ULONG ulWord = LowestBit(ulWordsLeft);
        Mixed.Put(ulWord, Mixed.ullWords[ulWord] | row.Word(ulWord));
    }
}

HotkeySet HotkeyPass::Holding(UCHAR ucUsage) const
{
    return bWhole ? Whole() : Row(ucUsage);
}

HotkeySet HotkeyPass::Held() const
{
    return bWhole ? Whole() : SetOf(hotkeys.HeldHotkeys);
}

HotkeySet HotkeyPass::Ready() const
{
    return bWhole || IsTraced(TRACE_VERBOSE) ? Held() : SetOf(hotkeys.ReadyHotkeys);
}

bool HotkeyPass::IsAnyPartlyHeld() const
{
    ULONGLONG ullPartly = 0;
    for (ULONG ulWordsLeft = hotkeys.HeldHotkeys.ucWords; ulWordsLeft != 0; ulWordsLeft &= ulWordsLeft - 1) {
        const ULONG ulWord = LowestBit(ulWordsLeft);
        ullPartly |= hotkeys.HeldHotkeys.ullWords[ulWord] & ~hotkeys.ReadyHotkeys.ullWords[ulWord];
    }
    return ullPartly != 0;
}

HotkeySet HotkeyPass::Simple(const UCHAR* pKeys, ULONG ulKeys)
{
    if (bWhole) {
        return Whole();
    }
    Mixed = hotkeys.HeldHotkeys;
    for (ULONG i = 0; i < ulKeys && pKeys[i] != 0; i++) {
        AddRow(pKeys[i]);
    }
    return SetOf(Mixed);
}

HotkeySet HotkeyPass::Extended(ULONG ulBits)
{
    if (bWhole) {
        return Whole();
    }
    Mixed = hotkeys.HeldHotkeys;
    AddRow(HOTKEY_ROW_NO_PATTERN);
    for (; ulBits != 0; ulBits &= ulBits - 1) {
        AddRow(HOTKEY_ROW_PATTERN + LowestBit(ulBits));
    }
    return SetOf(Mixed);
}
