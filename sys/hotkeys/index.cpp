// index.cpp - an index made, filled and walked.
//
// Filling runs at PASSIVE_LEVEL under the keyboard's DefinitionMutex, also while the report road walks what stands
// before the new entry; the rows are therefore read and written whole words at a time.
#include "hotkeys/index.h"

#include "ground/ground.h"
#include "ground/shared.h"
#include "hotkeys/fields.h"

// Entries and rows in one piece behind the head.
// IRQL = PASSIVE. Owns: the caller. Fails: null, no memory.
HotkeyIndex* AllocateHotkeyIndex(ULONG ulCapacity)
{
    const ULONG ulWords = (ulCapacity + 63) / 64;
    const SIZE_T ulRowBytes = SIZE_T{HOTKEY_ROWS} * ulWords * sizeof(ULONGLONG);
    auto* pIndex = static_cast<HotkeyIndex*>(AllocateZeroed(
        NonPagedPoolNx, sizeof(HotkeyIndex) + ulRowBytes + SIZE_T{ulCapacity} * sizeof(HotkeyEntry)));
    if (pIndex != nullptr) {
        pIndex->ulCapacity = ulCapacity;
        pIndex->ulWords = ulWords;
        pIndex->pRows = reinterpret_cast<ULONGLONG*>(pIndex + 1);
        pIndex->pEntries = reinterpret_cast<HotkeyEntry*>(pIndex->pRows + HOTKEY_ROWS * ulWords);
    }
    return pIndex;
}

// Nobody walks it.
void ClearHotkeyIndex(HotkeyIndex* pIndex)
{
    pIndex->ulPrefixes = 0;
    RtlZeroMemory(pIndex->ucRowWords, sizeof(pIndex->ucRowWords));
    RtlZeroMemory(pIndex->pRows, SIZE_T{HOTKEY_ROWS} * pIndex->ulWords * sizeof(ULONGLONG));
    RtlZeroMemory(pIndex->pEntries, SIZE_T{pIndex->ulCount} * sizeof(HotkeyEntry));
    pIndex->ulCount = 0;
}

ULONG ReadPattern(const UCHAR* pKeys)
{
    return pKeys[0] | static_cast<ULONG>(pKeys[1]) << 8 | static_cast<ULONG>(pKeys[2]) << 16 |
           static_cast<ULONG>(pKeys[3]) << 24;
}

ULONG PatternRowOf(const UCHAR* pKeys)
{
    const ULONG ulPattern = ReadPattern(pKeys);
    return ulPattern == 0 ? static_cast<ULONG>(HOTKEY_ROW_NO_PATTERN)
                          : HOTKEY_ROW_PATTERN + LowestBit(ulPattern);
}

namespace
{
void MarkRow(HotkeyIndex* pIndex, ULONG ulRow, ULONG ulEntry)
{
    ULONGLONG& ullWord = pIndex->pRows[ulRow * pIndex->ulWords + ulEntry / 64];
    WriteShared(ullWord, ullWord | 1ull << ulEntry % 64);
    WriteShared(pIndex->ucRowWords[ulRow], pIndex->ucRowWords[ulRow] | 1u << ulEntry / 64);
}

bool IsSameHotkey(const HotkeyEntry& one, const HotkeyEntry& other)
{
    return one.ulId == other.ulId && one.ulModifiers == other.ulModifiers &&
           one.ulKeyCount == other.ulKeyCount && RtlEqualMemory(one.ucKeys, other.ucKeys, sizeof(one.ucKeys));
}
} // namespace

bool IsHotkeyIn(const HotkeyIndex* pIndex, const HotkeyEntry& entry)
{
    for (ULONG i = 0; i < pIndex->ulCount; i++) {
        if (IsSameHotkey(pIndex->pEntries[i], entry)) {
            return true;
        }
    }
    return false;
}

// Writes the entry behind the others; it counts for nobody until it is published. The caller has seen to the room.
void AppendHotkey(HotkeyIndex* pIndex, const HotkeyEntry& entry)
{
    const ULONG ulEntry = pIndex->ulCount;
    pIndex->pEntries[ulEntry] = entry;
    if (entry.ucKeys[0] == 0) {
        MarkRow(pIndex, HOTKEY_ROW_NO_KEY, ulEntry);
    }
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucKeys[i] != 0) {
            MarkRow(pIndex, entry.ucKeys[i], ulEntry);
        }
    }
    MarkRow(pIndex, PatternRowOf(entry.ucKeys), ulEntry);
    pIndex->ulPrefixes |= entry.ulModifiers & MODIFIER_PREFIXES;
    pIndex->ulCount++;
}

// The word: generation, changing or not, prefix bits in their places, list, count.
HotkeyView ViewOf(ULONGLONG ullHotkeys)
{
    const ULONG ulLow = static_cast<ULONG>(ullHotkeys);
    return {ulLow & 0xFFFF, ulLow & MODIFIER_PREFIXES, ulLow >> 16 & 1, static_cast<ULONG>(ullHotkeys >> 32)};
}

ULONGLONG WordOf(const HotkeyView& view)
{
    return static_cast<ULONGLONG>(view.ulGeneration) << 32 | view.ulPrefixes | view.ulList << 16 |
           view.ulCount;
}

// Counts itself in for the list, and looks again that nothing else was published: who sees its count at 0 then knows
// that nobody walks it.
HotkeyWalk::HotkeyWalk(HotkeyFields& ofKeyboard) : hotkeys(ofKeyboard)
{
    for (;;) {
        const ULONGLONG ullHotkeys = ReadShared(hotkeys.ullHotkeys);
        View = ViewOf(ullHotkeys);
        InterlockedIncrement(&hotkeys.lHotkeyWalks[View.ulList]);
        if (ReadShared(hotkeys.ullHotkeys) == ullHotkeys) {
            break;
        }
        InterlockedDecrement(&hotkeys.lHotkeyWalks[View.ulList]);
    }
    pIndex = View.ulCount == 0 ? nullptr : hotkeys.pHotkeyIndexes[View.ulList];
    pFirst = pIndex == nullptr ? nullptr : pIndex->pEntries;
}

HotkeyWalk::~HotkeyWalk()
{
    InterlockedDecrement(&hotkeys.lHotkeyWalks[View.ulList]);
}
