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
    pContext->ullHotkeyScan++;
    return ulFlags;
}

HotkeySet HotkeyPass::Empty() const
{
    HotkeySet set;
    set.pEntries = pFirst;
    set.ulWords = SetWords();
    set.ullWords[0] = 0;
    for (ULONG i = 1; i < set.ulWords; i++) {
        set.ullWords[i] = 0;
    }
    return set;
}

HotkeySet HotkeyPass::Whole() const
{
    HotkeySet set = Empty();
    for (ULONG i = 0; i < set.ulWords; i++) {
        set.ullWords[i] = ~0ull;
    }
    CutOff(set);
    return set;
}

// A row may name an entry that is not published for this report.
void HotkeyPass::CutOff(HotkeySet& set) const
{
    if (View.ulCount % 64 != 0) {
        set.ullWords[set.ulWords - 1] &= (1ull << View.ulCount % 64) - 1;
    }
}

void HotkeyPass::AddRow(HotkeySet& set, ULONG ulRow) const
{
    if (set.ulWords == 0) {
        return;
    }
    const ULONGLONG* pRow = pIndex->pRows + ulRow * pIndex->ulWords;
    for (ULONG i = 0; i < set.ulWords; i++) {
        set.ullWords[i] |= LoadAcquire(pRow[i]);
    }
    CutOff(set);
}

void HotkeyPass::AddHeld(HotkeySet& set) const
{
    for (ULONG i = 0; i < set.ulWords; i++) {
        set.ullWords[i] |= pContext->ullHeldHotkeys[i];
    }
    CutOff(set);
}

HotkeySet HotkeyPass::Holding(UCHAR ucUsage) const
{
    if (bWhole) {
        return Whole();
    }
    HotkeySet set = Empty();
    AddRow(set, ucUsage);
    return set;
}

HotkeySet HotkeyPass::Held() const
{
    if (bWhole) {
        return Whole();
    }
    HotkeySet set = Empty();
    AddHeld(set);
    return set;
}

HotkeySet HotkeyPass::Ready() const
{
    if (bWhole || IsTraced(TRACE_VERBOSE)) {
        return Held();
    }
    HotkeySet set = Empty();
    for (ULONG i = 0; i < set.ulWords; i++) {
        set.ullWords[i] = pContext->ullReadyHotkeys[i];
    }
    return set;
}

bool HotkeyPass::IsAnyPartlyHeld() const
{
    ULONGLONG ullPartly = 0;
    for (ULONG i = 0; i < SetWords(); i++) {
        ullPartly |= pContext->ullHeldHotkeys[i] & ~pContext->ullReadyHotkeys[i];
    }
    return ullPartly != 0;
}

HotkeySet HotkeyPass::Simple(const UCHAR* pKeys, ULONG ulKeys) const
{
    if (bWhole) {
        return Whole();
    }
    HotkeySet set = Empty();
    AddHeld(set);
    for (ULONG i = 0; i < ulKeys && pKeys[i] != 0; i++) {
        AddRow(set, pKeys[i]);
    }
    return set;
}

HotkeySet HotkeyPass::Extended(ULONG ulBits) const
{
    if (bWhole) {
        return Whole();
    }
    HotkeySet set = Empty();
    AddHeld(set);
    AddRow(set, HOTKEY_ROW_NO_PATTERN);
    for (; ulBits != 0; ulBits &= ulBits - 1) {
        AddRow(set, HOTKEY_ROW_PATTERN + LowestBit(ulBits));
    }
    return set;
}
