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

#include "driver/context.h"
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

// Some entries of one list, in its order.
class HotkeySet
{
public:
    struct End {
    };
    class Iterator
    {
    public:
        Iterator(const HotkeySet& set) : pSet(&set), ulWord(0), ullLeft(set.ullWords[0]) { FindNext(); }
        HotkeyEntry& operator*() const { return pSet->pEntries[ulWord * 64 + LowestBit(ullLeft)]; }
        void operator++()
        {
            ullLeft &= ullLeft - 1;
            FindNext();
        }
        bool operator!=(End) const { return ullLeft != 0; }

    private:
        void FindNext()
        {
            while (ullLeft == 0 && ulWord + 1 < pSet->ulWords) {
                ullLeft = pSet->ullWords[++ulWord];
            }
        }
        const HotkeySet* pSet;
        ULONG ulWord;
        ULONGLONG ullLeft;
    };

    Iterator begin() const { return Iterator(*this); }
    End end() const { return {}; }

private:
    friend class HotkeyPass;
    HotkeyEntry* pEntries;
    ULONG ulWords;
    ULONGLONG ullWords[HOTKEY_SET_WORDS]; // the first always, up to ulWords
};

class HotkeyPass : public HotkeyWalk
{
public:
    explicit HotkeyPass(PDEVICE_OBJECT pFilter);
    ~HotkeyPass();

    PDEVICE_OBJECT Device() const { return device; }
    DeviceContext* Context() const { return pContext; }

    // Returns the modifier word that it took.
    ULONG Arm();
    ULONG Prefixes() const { return View.ulPrefixes; }
    // Begins the next key. Returns the modifier word that it took.
    ULONG BeginScan();
    bool WasArmed(const HotkeyEntry& entry) const; // before this scan
    bool IsArmed(const HotkeyEntry& entry) const;
    void Hit(HotkeyEntry& entry) const { entry.ullHit = pContext->ullHotkeyScan; }

    HotkeySet Holding(UCHAR ucUsage) const; // ucUsage 0: hotkeys of modifiers only
    HotkeySet Held() const;
    HotkeySet Ready() const;
    bool IsAnyPartlyHeld() const; // held and not ready
    // Whom the keys of the report can mean, and who is down; of 8 and 3 bytes, and of bits.
    HotkeySet Simple(const UCHAR* pKeys, ULONG ulKeys) const;
    HotkeySet Extended(ULONG ulBits) const;
    // The entry came down or up, or one of its keys did.
    void Settle(const HotkeyEntry& entry);
    ULONG NumberOf(const HotkeyEntry& entry) const { return static_cast<ULONG>(&entry - pFirst); }
    // Trace points: this key, or report, can mean the entry; what became of it.
    void TraceLook(const HotkeyEntry& entry, bool bArmed) const
    {
        Trace(HotkeyLookedAt, pContext->ulDeviceIndex, NumberOf(entry), entry.ulId, Words[ulWords - 1],
              bArmed);
    }
    void TraceState(const HotkeyEntry& entry, const char* pszState) const
    {
        Trace(HotkeyState, pContext->ulDeviceIndex, NumberOf(entry), entry.ulId,
              {HeldKeyBytes(entry).ucHeld, entry.ulKeyCount}, pszState);
    }
    // The log names the held keys of every hotkey that a walk visits.
    void LogHeldKeys(const char* pszTitle, const HotkeyEntry& entry) const
    {
        if (bWhole) {
            LogHexDump(pszTitle, entry.ulKeyCount, HeldKeyBytes(entry).ucHeld);
        }
    }

private:
    ULONG SetWords() const { return (View.ulCount + 63) / 64; } // words of a set
    HotkeySet Whole() const;
    HotkeySet Empty() const;
    void CutOff(HotkeySet& set) const;
    void AddRow(HotkeySet& set, ULONG ulRow) const;
    void AddHeld(HotkeySet& set) const;
    void StartFromNothingHeld();
    bool IsMatched(const HotkeyEntry& entry, ULONG ulWords) const;

    PDEVICE_OBJECT device;
    bool bWhole;
    ULONG ulScans = 0;  // of this report
    ULONG ulWords = 0;  // modifier words that this report has met, one more than scans at the most
    ULONG Words[16];    // a report has at most six keys of before and six of now
    ULONG ulBefore = 0; // words before this scan
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
        return entry.ullHit == pContext->ullHotkeyScan - 1;
    }
    return IsMatched(entry, entry.ulKeyCount > 1 ? 1 : ulBefore);
}

inline bool HotkeyPass::IsArmed(const HotkeyEntry& entry) const
{
    if (entry.ulKeyCount > 1 && ulScans > 0) {
        return entry.ullHit == pContext->ullHotkeyScan;
    }
    return IsMatched(entry, ulWords);
}

inline void HotkeyPass::Settle(const HotkeyEntry& entry)
{
    const ULONG ulWord = NumberOf(entry) / 64;
    const ULONGLONG ullBit = 1ull << NumberOf(entry) % 64;
    ULONGLONG& ullHeld = pContext->ullHeldHotkeys[ulWord];
    ULONGLONG& ullReady = pContext->ullReadyHotkeys[ulWord];
    const bool bHeld = entry.ucDown != 0 || entry.ulHeldKeys != 0;
    const bool bReady = entry.ucDown != 0 || (bHeld && AreAllKeysHeld(entry));
    ullHeld = bHeld ? ullHeld | ullBit : ullHeld & ~ullBit;
    ullReady = bReady ? ullReady | ullBit : ullReady & ~ullBit;
}
