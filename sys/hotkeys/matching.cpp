// matching.cpp - the hotkey pass: one key of a report, released or pressed.
//
//   key of no armed hotkey    held keys are given back, then this one; an active hotkey ends
//   key of an armed hotkey    pressed: held back; then: is a hotkey complete? (truematch.cpp)
//                             complete and swallowing: the held keys are forgotten
//                             none partly held: the held keys are given back
//   Esc at a complete hotkey  leaves the report and marks the hotkey's coming up event
//
// Called once a key by normal.cpp and extended.cpp, on the report road of one keyboard.
#include "hotkeys/hotkeys.h"

#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "hotkeys/modifiers.h"
#include "log/events.h"
#include "log/log.h"
#include "report/keys.h"

namespace
{
// Where the caller's walk stands: the report, the key's position and the report's current length.
struct Walker {
    PUCHAR pBuf;
    PULONG pIndex;
    PULONG pLen;
};

// The key has left the report: the walk goes on at the position where it stood.
void StepBack(const Walker& walker, ULONG ulNewLen)
{
    *walker.pIndex -= 1;
    *walker.pLen = ulNewLen;
}

void RemoveKey(const HotkeyPass& pass, const Walker& walker, const char* pszBy)
{
    Trace(KeysTaken, IndexOf(pass.Device()), {walker.pBuf + *walker.pIndex, 1}, pszBy);
    StepBack(walker, RemoveKeyFromBuffer(walker.pBuf, *walker.pLen, *walker.pIndex));
}

// Returns false when SwallowBuf is full: the key stays, and the walk goes on behind it.
bool SwallowKey(const HotkeyPass& pass, const Walker& walker)
{
    ULONG ulNewLen = SwallowScan(pass.Device(), walker.pBuf, *walker.pLen, *walker.pIndex);
    if (ulNewLen == *walker.pLen) {
        return false;
    }
    StepBack(walker, ulNewLen);
    return true;
}

// Held keys go on to the system, but for Fn and prefix keys; other keyboards than NORMAL ones, and keys
// after a released prefix, lose them.
void GiveBackSwallowBuffer(const HotkeyPass& pass)
{
    if (ReadShared(FieldsOf<BufferFields>(pass.Device()).usSwallowCount) == 0) {
        return; // only this road puts keys there
    }
    const bool bNormal = ReadShared(FieldsOf<FrameFields>(pass.Device()).KbdType) == NORMALKbdType;
    UCHAR ucUsage;
    while (GetDataFromSwallowBuffer(pass.Device(), &ucUsage)) {
        if (bNormal && ucUsage != USAGE_FN && !IsPrefixUsage(ucUsage) &&
            ReadShared(GlobalHotkeys.ulPrefixReleased) == 0) {
            (void)AddDataToInsertBuffer(pass.Device(), &ucUsage); // a full buffer loses the key
        } else {
            Trace(KeysTaken, IndexOf(pass.Device()), {&ucUsage, 1}, bNormal ? "Fn or a prefix" : "nobody");
        }
    }
}

// The active hotkey ends although its keys are still held: another key came.
void EndActiveHotkey(HotkeyPass& pass)
{
    HotkeyFields& hotkeys = pass.Hotkeys();
    ULONG ulId = ReadShared(hotkeys.ulActiveHotkeyId);
    CancelTypematicTimers();
    SendHotkeyEvent(pass.Device(), ulId, 0, 0);
    for (HotkeyEntry& entry : pass.Ready()) {
        if (entry.ulId == ulId && entry.ucDown == 1) {
            entry.ucDown = 0;
            pass.Settle(entry);
            pass.TraceState(entry, "ended");
        }
    }
    WriteShared(hotkeys.ucHotkeyActive, 0);
}

// A key that belongs to no hotkey whose mask matches.
void PassForeignKey(HotkeyPass& pass, USHORT usReleased, const Walker& walker)
{
    WriteShared(GlobalHotkeys.ucHotkeyComplete, 0);
    if (ReadShared(GlobalHotkeys.ucSwallowPending) == 1 && usReleased == 0) {
        (void)SwallowKey(pass, walker); // a key that finds no room stays in the report
        GiveBackSwallowBuffer(pass);
        WriteShared(GlobalHotkeys.ucSwallowPending, 0);
    } else if (ReadShared(GlobalHotkeys.ulPrefixReleased) == 1 && usReleased == 0) {
        RemoveKey(pass, walker, "a prefix");
    }
    if (ReadShared(pass.Hotkeys().ucHotkeyActive) == 1) {
        EndActiveHotkey(pass);
    }
}

// A key of a hotkey whose mask matches.
void PassHotkeyKey(HotkeyPass& pass, USHORT usReleased, const Walker& walker, PUCHAR pHotkeyReleased)
{
    if (usReleased == 1) {
        UCHAR ucScratch = 0; // neither output is used
        WriteShared(GlobalHotkeys.ucHotkeyComplete,
                    FindTrueMatch(pass, &ucScratch, &ucScratch, pHotkeyReleased));
    } else if (SwallowKey(pass, walker)) {
        WriteShared(GlobalHotkeys.ucSwallowPending, 1);
    }
    UCHAR ucNoPartial = 1;
    UCHAR ucSwallow = 0;
    UCHAR ucReleased = 0; // not used
    UCHAR ucComplete = FindTrueMatch(pass, &ucNoPartial, &ucSwallow, &ucReleased);
    WriteShared(GlobalHotkeys.ucHotkeyComplete, ucComplete);
    if (ucComplete == 1 && ucSwallow == 1) {
        DiscardSwallowBuffer(pass.Device());
        if (*walker.pLen > 3) {
            Trace(ModifiersTaken, IndexOf(pass.Device()), walker.pBuf[0]);
            walker.pBuf[0] = 0;
        }
    } else if (ucNoPartial == 1) {
        GiveBackSwallowBuffer(pass);
    }
}

// Latched prefixes end with the key that followed them, or at once when no hotkey uses them.
void ResetPrefixes(UCHAR ucUsage, USHORT usReleased)
{
    bool bUsed =
        !IsPrefixUsage(ucUsage) && usReleased == 1 && ReadShared(GlobalHotkeys.ulPrefixReleased) != 0;
    if (bUsed || ReadShared(GlobalHotkeys.ulPrefixUnmatched) != 0) {
        AndShared(GlobalHotkeys.ulModifierFlags, ~static_cast<ULONG>(MODIFIER_PREFIXES));
        WriteShared(GlobalHotkeys.ulPrefixReleased, 0u);
        WriteShared(GlobalHotkeys.ulPrefixUnmatched, 0u);
    }
}

// Marks the first occurrence of the usage that is not yet in the wanted state. Returns whether it is a key of the entry.
bool MarkKey(HotkeyEntry& entry, UCHAR ucUsage, bool bDown)
{
    bool bHit = false;
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucKeys[i] != ucUsage) {
            continue;
        }
        bHit = true;
        const ULONG ulKey = 1u << i;
        if (((entry.ulHeldKeys & ulKey) != 0) != bDown) {
            entry.ulHeldKeys ^= ulKey;
            break;
        }
    }
    return bHit;
}

// Names the places of the key up to the one that is held.
COLD void LogForgottenKey(const HotkeyEntry& entry, UCHAR ucUsage, ULONG ulEntry)
{
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucKeys[i] != ucUsage) {
            continue;
        }
        LogPrintf(LOG_DETAIL, 1, "(UpdateHotkeyListByScan) clearing down code %02x at index %u of entry %u",
                  static_cast<unsigned>(ucUsage), static_cast<unsigned>(i), static_cast<unsigned>(ulEntry));
        if (entry.ulHeldKeys >> i & 1) {
            break;
        }
    }
}

// Whom the key can mean. A walk for the log meets the others, too.
COLD void TraceLooks(const HotkeyPass& pass, UCHAR ucUsage)
{
    for (const HotkeyEntry& entry : pass.Holding(ucUsage)) {
        if (HasKey(entry, ucUsage)) {
            pass.TraceLook(entry, pass.WasArmed(entry));
        }
    }
}

// A pressed key touches only hotkeys that are armed or down, and of these it marks those whose mask matches.
bool FollowPress(HotkeyPass& pass, UCHAR ucUsage, ULONG ulFlags)
{
    const bool bMatchedSuffices = ReadShared(GlobalHotkeys.ulPrefixReleased) == 1 || pass.AreMatchedArmed();
    bool bResult = false;
    pass.TouchEach(pass.Holding(ucUsage), [&](HotkeyEntry& entry, HeldBits& bits) {
        if (!IsModifierMaskMatched(entry.ulModifiers, ulFlags) ||
            (!bMatchedSuffices && entry.ucDown != 1 && !pass.WasArmed(entry))) {
            return;
        }
        if (MarkKey(entry, ucUsage, true)) {
            pass.Hit(entry);
            bits.KeyCame(entry);
            bResult = true;
        }
        pass.LogHeldKeys("(UpdateHotkeyListByScan) ucHotkeyDown", entry);
    });
    return bResult;
}

// A released key touches all; a hotkey whose mask does not match forgets it all the same.
bool FollowRelease(HotkeyPass& pass, UCHAR ucUsage, ULONG ulFlags)
{
    bool bResult = false;
    pass.TouchEach(pass.Holding(ucUsage), [&](HotkeyEntry& entry, HeldBits& bits) {
        const bool bMatched = IsModifierMaskMatched(entry.ulModifiers, ulFlags);
        if (!bMatched && IsLogOn(LOG_DETAIL)) {
            LogForgottenKey(entry, ucUsage, pass.NumberOf(entry));
        }
        if (MarkKey(entry, ucUsage, false)) {
            bits.KeyWent(entry);
            if (bMatched) {
                pass.Hit(entry);
                bResult = true;
            }
        }
        if (bMatched) {
            pass.LogHeldKeys("(UpdateHotkeyListByScan) ucHotkeyDown", entry);
        }
    });
    return bResult;
}
} // namespace

// Follows one key: usReleased 1 for a key that left the report (pBuf is then the previous report), 0 for a
// key in the new report. A key taken out shortens *pLen and steps *pIndex back.
// IRQL <= DISPATCH. Owns: nothing; pBuf is rewritten. Fails: never.
NTSTATUS ProcessHotkeyScan(HotkeyPass& pass, UCHAR ucUsage, USHORT usReleased, PUCHAR pBuf, PULONG pIndex,
                           PULONG pLen, PUCHAR pHotkeyReleased)
{
    Walker walker = {pBuf, pIndex, pLen};
    Trace(KeyPassed, IndexOf(pass.Device()), ucUsage, usReleased == 0);
    if (ReadShared(GlobalHotkeys.ucHotkeyComplete) == 1 && ucUsage == USAGE_ESCAPE && usReleased == 0) {
        RemoveKey(pass, walker, "Esc at a complete hotkey");
        WriteShared(GlobalHotkeys.ucEscAbort, 1);
        CancelTypematicTimers();
        return STATUS_SUCCESS;
    }
    if (UpdateHotkeyListByScan(pass, ucUsage, usReleased)) {
        PassHotkeyKey(pass, usReleased, walker, pHotkeyReleased);
    } else {
        PassForeignKey(pass, usReleased, walker);
    }
    ResetPrefixes(ucUsage, usReleased);
    return STATUS_SUCCESS;
}

// Tracks the held key bytes of every hotkey. Returns whether the key belongs to a hotkey whose mask matches.
// IRQL <= DISPATCH. Fails: never.
bool UpdateHotkeyListByScan(HotkeyPass& pass, UCHAR ucUsage, USHORT usReleased)
{
    const ULONG ulFlags = pass.BeginScan();
    if (IsTraced(TRACE_VERBOSE)) {
        TraceLooks(pass, ucUsage);
    }
    return usReleased == 1 ? FollowRelease(pass, ucUsage, ulFlags) : FollowPress(pass, ucUsage, ulFlags);
}
