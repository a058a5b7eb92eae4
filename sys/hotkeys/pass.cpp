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

#if defined(TV64USB_WHOLE_WALK)
const bool WalkWhole = true;
#else
const bool WalkWhole = false;
#endif

HotkeyPass::HotkeyPass(PDEVICE_OBJECT pFilter)
    : HotkeyWalk(FilterContextOf(pFilter)), device(pFilter), bWhole(IsWholeWalk())
{
    if (pContext->ulHeldOf != View.ulGeneration) {
        StartFromNothingHeld();
    }
}

// The next report shall see at once whether anything is held.
HotkeyPass::~HotkeyPass()
{
    ULONGLONG ullHeld = 0;
    for (ULONG i = 0; i < SetWords(); i++) {
        ullHeld |= pContext->ullHeldHotkeys[i];
    }
    pContext->ucAnyHotkeyHeld = ullHeld != 0;
}

// The hotkeys were published anew since the last report; those that were held and are still there start anew too.
void HotkeyPass::StartFromNothingHeld()
{
    for (HotkeyEntry& entry : Held()) {
        entry.ucDown = 0;
        entry.ulHeldKeys = 0;
    }
    RtlZeroMemory(pContext->ullHeldHotkeys, sizeof(pContext->ullHeldHotkeys));
    RtlZeroMemory(pContext->ullReadyHotkeys, sizeof(pContext->ullReadyHotkeys));
    pContext->ulHeldOf = View.ulGeneration;
}

ULONG HotkeyPass::Arm()
{
    ulScans = 0;
    ulWords = 1;
    return Words[0] = ReadShared(Globals.ulModifierFlags);
}

ULONG HotkeyPass::BeginScan()
{
    const ULONG ulFlags = ReadShared(Globals.ulModifierFlags);
    ulBefore = ulWords;
    if (ulFlags != Words[ulWords - 1] && ulWords < sizeof(Words) / sizeof(Words[0])) {
        Words[ulWords++] = ulFlags;
    }
    ulScans++;
    ullScan = ++pContext->ullHotkeyScan;
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
    return SetOf(Everybody);
}

// Without hotkeys there are no rows, and nobody reads one.
const ULONGLONG* HotkeyPass::Row(ULONG ulRow) const
{
    return pIndex == nullptr ? nullptr : pIndex->pRows + ulRow * pIndex->ulWords;
}

void HotkeyPass::AddRow(ULONG ulRow)
{
    const ULONGLONG* pRow = Row(ulRow);
    for (ULONG i = 0; i < SetWords(); i++) {
        ullMixed[i] |= LoadAcquire(pRow[i]);
    }
}

HotkeySet HotkeyPass::Holding(UCHAR ucUsage) const
{
    return bWhole ? Whole() : SetOf(Row(ucUsage));
}

HotkeySet HotkeyPass::Held() const
{
    return bWhole ? Whole() : SetOf(pContext->ullHeldHotkeys);
}

HotkeySet HotkeyPass::Ready() const
{
    return bWhole || IsTraced(TRACE_VERBOSE) ? Held() : SetOf(pContext->ullReadyHotkeys);
}

bool HotkeyPass::IsAnyPartlyHeld() const
{
    ULONGLONG ullPartly = 0;
    for (ULONG i = 0; i < SetWords(); i++) {
        ullPartly |= pContext->ullHeldHotkeys[i] & ~pContext->ullReadyHotkeys[i];
    }
    return ullPartly != 0;
}

HotkeySet HotkeyPass::Simple(const UCHAR* pKeys, ULONG ulKeys)
{
    if (bWhole) {
        return Whole();
    }
    RtlCopyMemory(ullMixed, pContext->ullHeldHotkeys, sizeof(ullMixed));
    for (ULONG i = 0; i < ulKeys && pKeys[i] != 0; i++) {
        AddRow(pKeys[i]);
    }
    return SetOf(ullMixed);
}

HotkeySet HotkeyPass::Extended(ULONG ulBits)
{
    if (bWhole) {
        return Whole();
    }
    RtlCopyMemory(ullMixed, pContext->ullHeldHotkeys, sizeof(ullMixed));
    AddRow(HOTKEY_ROW_NO_PATTERN);
    for (; ulBits != 0; ulBits &= ulBits - 1) {
        AddRow(HOTKEY_ROW_PATTERN + LowestBit(ulBits));
    }
    return SetOf(ullMixed);
}
