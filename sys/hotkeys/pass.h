// pass.h - one report on its way through a keyboard's hotkeys.
//
//   HotkeyPass pass(device)   the published entries, the same ones for the whole report
//   pass.Arm()                the modifier word as it is now: whose mask matches it is armed
//   pass.BeginScan()          one key; from then on a hotkey of several keys is armed only if this key hit it
//   pass.Holding(usage)       whom the key can mean, in the order of the list
//   pass.Held()               who is down or has a key held: all others are as they were made
//   pass.Ready()              of these, who is down or has all its keys held; the rest is partly held
//
// While report traffic goes to the log each set is the whole list, because the log names every hotkey; so it is
// when the driver is built with TV64USB_WHOLE_WALK. A trace names the partly held ones: Ready() is then Held().
// On the report road of one keyboard.
#pragma once

#include "hotkeys/fields.h"
#include "hotkeys/index.h"
#include "hotkeys/mask.h"
#include "log/events.h"
#include "log/log.h"

extern const bool WalkWhole; // the driver is built so, see pass.cpp

// Each walk visits every entry.
inline bool IsWholeWalk()
{
    return WalkWhole || IsLogOn(LOG_TRAFFIC);
}

// Some of the first entries of one list, in its order: a bit says who, a bit of ulWords in which words there is anybody.
// Bits may go when their turn has come; those behind the last entry count for nobody.
class HotkeySet
{
public:
    HotkeySet(HotkeyEntry* pFirst, ULONG ulEntries, const ULONGLONG* pBitsOfWho, ULONG ulWordsOfWho)
        : pEntries(pFirst), ulCount(ulEntries), pBits(pBitsOfWho), ulWords(ulWordsOfWho)
    {
    }
    ULONG Words() const { return ulWords; }
    // Who of the entries 64 ulWord and on.
    ULONGLONG Word(ULONG ulWord) const
    {
        const ULONG ulLeft = ulCount - ulWord * 64;
        return LoadAcquire(pBits[ulWord]) & (ulLeft < 64 ? (1ull << ulLeft) - 1 : ~0ull);
    }

    struct End {
    };
    class Iterator
    {
    public:
        Iterator(const HotkeySet& of) : set(of), ulWordsLeft(of.ulWords) { FindNext(); }
        HotkeyEntry& operator*() const { return pEntries[LowestBit(ullLeft)]; }
        void operator++()
        {
            ullLeft &= ullLeft - 1;
            FindNext();
        }
        bool operator!=(End) const { return ullLeft != 0; }

    private:
        void FindNext()
        {
            for (; ullLeft == 0 && ulWordsLeft != 0; ulWordsLeft &= ulWordsLeft - 1) {
                const ULONG ulWord = LowestBit(ulWordsLeft);
                ullLeft = set.Word(ulWord);
                pEntries = set.pEntries + ulWord * 64;
            }
        }
        const HotkeySet& set;
        ULONG ulWordsLeft;
        HotkeyEntry* pEntries = nullptr; // the 64 of this word
        ULONGLONG ullLeft = 0;
    };

    Iterator begin() const { return Iterator(*this); }
    End end() const { return {}; }

private:
    HotkeyEntry* pEntries;
    ULONG ulCount;
    const ULONGLONG* pBits;
    ULONG ulWords;
};

// One report of one keyboard among its hotkeys. IRQL <= DISPATCH.
class HotkeyPass : public HotkeyWalk
{
public:
    explicit HotkeyPass(PDEVICE_OBJECT pFilter);

    PDEVICE_OBJECT Device() const { return device; }
    HotkeyFields& Hotkeys() const { return hotkeys; }

    // Returns the modifier word that it took.
    ULONG Arm();
    ULONG Prefixes() const { return View.ulPrefixes; }
    // Begins the next key. Returns the modifier word that it took.
    ULONG BeginScan();
    bool WasArmed(const HotkeyEntry& entry) const; // before this scan
    // Whether whose mask matches now was armed before this scan.
    bool AreMatchedArmed() const { return ulScans == 1 && ulWords == 1; }
    bool IsArmed(const HotkeyEntry& entry) const;
    void Hit(HotkeyEntry& entry) const { entry.ullHit = ullScan; }

    HotkeySet Holding(UCHAR ucUsage) const; // ucUsage 0: hotkeys of modifiers only
    HotkeySet Held() const;
    HotkeySet Ready() const;
    bool IsAnyPartlyHeld() const; // held and not ready
    // Whom the keys of the report can mean, and who is down; of 8 and 3 bytes, and of bits. One at a time.
    HotkeySet Simple(const UCHAR* pKeys, ULONG ulKeys);
    HotkeySet Extended(ULONG ulBits);
    // The entry came down or up.
    void Settle(const HotkeyEntry& entry);
    // Has each of the set touched, in the order of the list; touch(entry, bits) tells the bits of keys that came or went.
    template <typename Touch> void TouchEach(const HotkeySet& set, Touch touch);
    ULONG NumberOf(const HotkeyEntry& entry) const { return static_cast<ULONG>(&entry - pFirst); }
    // Trace points: this key, or report, can mean the entry; what became of it.
    void TraceLook(const HotkeyEntry& entry, bool bArmed) const
    {
        Trace(HotkeyLookedAt, IndexOf(device), NumberOf(entry), entry.ulId, Words[ulWords - 1], bArmed);
    }
    void TraceState(const HotkeyEntry& entry, const char* pszState) const
    {
        Trace(HotkeyState, IndexOf(device), NumberOf(entry), entry.ulId,
              {HeldKeyBytes(entry).ucHeld, entry.ulKeyCount}, pszState);
    }
    // The log names the held keys of every hotkey that a walk visits.
    void LogHeldKeys(const char* pszTitle, const HotkeyEntry& entry) const
    {
        if (bWhole) {
            LogKeptHeldKeys(pszTitle, entry);
        }
    }

private:
    static void LogKeptHeldKeys(const char* pszTitle, const HotkeyEntry& entry);
    HotkeySet Whole() const;
    HotkeySet SetOf(const ULONGLONG* pBits, ULONG ulOfWords) const
    {
        return HotkeySet(pFirst, View.ulCount, pBits, ulOfWords & ulAllWords);
    }
    HotkeySet SetOf(const HotkeyBits& bits) const { return SetOf(bits.ullWords, bits.ucWords); }
    HotkeySet Row(ULONG ulRow) const;
    void AddRow(ULONG ulRow);
    void StartFromNothingHeld();
    bool IsMatched(const HotkeyEntry& entry, ULONG ulWords) const;

    PDEVICE_OBJECT device;
    ULONG ulAllWords; // a bit for each word of a set
    bool bWhole;
    ULONG ulScans = 0;  // of this report
    ULONGLONG ullScan;  // this scan's number among those of all reports; not before the first
    ULONG ulWords = 0;  // modifier words that this report has met, one more than scans at the most
    ULONG Words[16];    // a report has at most six keys of before and six of now
    ULONG ulBefore = 0; // words before this scan
    HotkeyBits Mixed;   // a set of several rows
};

// What each key asks of each hotkey that it can mean.
inline bool HotkeyPass::IsMatched(const HotkeyEntry& entry, ULONG ulOfWords) const
{
    for (ULONG i = 0; i < ulOfWords; i++) {
        if (!IsModifierMaskMatched(entry.ulModifiers, Words[i])) {
            return false;
        }
    }
    return true;
}

inline bool HotkeyPass::WasArmed(const HotkeyEntry& entry) const
{
    if (entry.ulKeyCount > 1 && ulScans > 1) {
        return entry.ullHit == ullScan - 1;
    }
    return IsMatched(entry, entry.ulKeyCount > 1 ? 1 : ulBefore);
}

inline bool HotkeyPass::IsArmed(const HotkeyEntry& entry) const
{
    if (entry.ulKeyCount > 1 && ulScans > 0) {
        return entry.ullHit == ullScan;
    }
    return IsMatched(entry, ulWords);
}

// Of 64 entries of the list who is down or has a key held, and of these who is down or has all its keys held.
struct HeldBits {
    ULONGLONG ullHeld;
    ULONGLONG ullReady;
    ULONGLONG ullEntry; // whom it is about now

    void KeyCame(const HotkeyEntry& entry)
    {
        ullHeld |= ullEntry;
        if (AreAllKeysHeld(entry)) {
            ullReady |= ullEntry;
        }
    }
    void KeyWent(const HotkeyEntry& entry)
    {
        if (entry.ucDown == 0) {
            ullReady &= ~ullEntry;
            if (entry.ulHeldKeys == 0) {
                ullHeld &= ~ullEntry;
            }
        }
    }
};

template <typename Touch> void HotkeyPass::TouchEach(const HotkeySet& set, Touch touch)
{
    for (ULONG ulWordsLeft = set.Words(); ulWordsLeft != 0; ulWordsLeft &= ulWordsLeft - 1) {
        const ULONG ulWord = LowestBit(ulWordsLeft);
        HotkeyEntry* pEntries = pFirst + ulWord * 64;
        HeldBits bits = {hotkeys.HeldHotkeys.ullWords[ulWord], hotkeys.ReadyHotkeys.ullWords[ulWord], 0};
        for (ULONGLONG ullLeft = set.Word(ulWord); ullLeft != 0; ullLeft ^= bits.ullEntry) {
            bits.ullEntry = ullLeft & (~ullLeft + 1);
            touch(pEntries[LowestBit(ullLeft)], bits);
        }
        hotkeys.HeldHotkeys.Put(ulWord, bits.ullHeld);
        hotkeys.ReadyHotkeys.Put(ulWord, bits.ullReady);
    }
}

inline void HotkeyPass::Settle(const HotkeyEntry& entry)
{
    const ULONG ulWord = NumberOf(entry) / 64;
    const ULONGLONG ullBit = 1ull << NumberOf(entry) % 64;
    const ULONGLONG ullHeld = hotkeys.HeldHotkeys.ullWords[ulWord];
    const ULONGLONG ullReady = hotkeys.ReadyHotkeys.ullWords[ulWord];
    const bool bHeld = entry.ucDown != 0 || entry.ulHeldKeys != 0;
    const bool bReady = entry.ucDown != 0 || (bHeld && AreAllKeysHeld(entry));
    hotkeys.HeldHotkeys.Put(ulWord, bHeld ? ullHeld | ullBit : ullHeld & ~ullBit);
    hotkeys.ReadyHotkeys.Put(ulWord, bReady ? ullReady | ullBit : ullReady & ~ullBit);
}
