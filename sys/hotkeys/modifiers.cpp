// modifiers.cpp - the modifier word, one for all keyboards.
//
//   report byte 0 ──► single bits 0x002..0x100 ──► derived bits 0x400..0x2000
//   usage 0x65, 0xA5 ──► ContextKey, Fn          held while the key is held
//   prefix usages ──► 0x08000000..0x20000000     latched by the press; the hotkey pass clears them
//
// Several keyboards write the word at once, so each update computes it anew until nobody came between.
#include "hotkeys/modifiers.h"

#include "ground/sums.h"
#include "log/events.h"
#include "log/log.h"
#include "report/keys.h"
#include "siblings/siblings.h"

namespace
{
struct ModifierBit {
    UCHAR ucReportBit;
    ULONG ulFlag;
};

constexpr ModifierBit ModifierBits[] = {
    {0x01, 0x002}, {0x10, 0x004}, {0x02, 0x008}, {0x20, 0x010},
    {0x04, 0x020}, {0x40, 0x040}, {0x08, 0x080}, {0x80, 0x100},
};

struct DerivedBit {
    ULONG ulEither;
    ULONG ulFlag;
};

constexpr DerivedBit DerivedBits[] = {
    {0x006, MODIFIER_ANY_CONTROL},
    {0x018, MODIFIER_ANY_SHIFT},
    {0x060, MODIFIER_ANY_ALT},
    {0x180, MODIFIER_ANY_GUI},
};

// Eight bytes at once, which is a whole report.
bool IsByteIn(const UCHAR* pBuf, ULONG ulLen, UCHAR ucValue)
{
    ULONG i = 0;
    for (; i + 8 <= ulLen; i += 8) {
        ULONGLONG ullBytes;
        RtlCopyMemory(&ullBytes, pBuf + i, sizeof(ullBytes));
        if (ZeroBytesOf(ullBytes ^ EightOf(ucValue)) != 0) {
            return true;
        }
    }
    for (; i < ulLen; i++) {
        if (pBuf[i] == ucValue) {
            return true;
        }
    }
    return false;
}

// A prefix bit is set by its key and stays when the key is gone; pbReleased then becomes true.
ULONG LatchPrefix(ULONG ulFlags, const UCHAR* pBuf, ULONG ulLen, UCHAR ucUsage, ULONG ulBit, bool* pbReleased)
{
    if (ucUsage != 0 && IsByteIn(pBuf, ulLen, ucUsage)) {
        return ulFlags | ulBit;
    }
    if (ulFlags & ulBit) {
        *pbReleased = true;
    }
    return ulFlags;
}

// Fn follows its key, the three prefixes latch. Returns the word with these bits renewed.
ULONG TrackPrefixes(ULONG ulFlags, const UCHAR* pBuf, ULONG ulLen, bool* pbReleased)
{
    *pbReleased = false;
    ulFlags = IsByteIn(pBuf, ulLen, USAGE_FN) ? ulFlags | MODIFIER_FN : ulFlags & ~MODIFIER_FN;
    ulFlags = LatchPrefix(ulFlags, pBuf, ulLen, Globals.ucPrefix1Usage, MODIFIER_PREFIX1, pbReleased);
    ulFlags = LatchPrefix(ulFlags, pBuf, ulLen, Globals.ucPrefix2Usage, MODIFIER_PREFIX2, pbReleased);
    return LatchPrefix(ulFlags, pBuf, ulLen, Globals.ucPosKeyPrefixUsage, MODIFIER_POSKEY_PREFIX, pbReleased);
}

// Each single modifier that came or went.
void TraceModifiers(PDEVICE_OBJECT device, ULONG ulBefore, ULONG ulFlags)
{
    for (const ModifierBit& bit : ModifierBits) {
        if ((ulBefore ^ ulFlags) & bit.ulFlag) {
            Trace(ModifierChanged, FilterContextOf(device)->ulDeviceIndex, bit.ulFlag,
                  (ulFlags & bit.ulFlag) != 0, ulFlags);
        }
    }
}

constexpr USHORT WordOf(UCHAR ucModifiers)
{
    ULONG ulFlags = 0;
    for (const ModifierBit& bit : ModifierBits) {
        ulFlags |= ucModifiers & bit.ucReportBit ? bit.ulFlag : 0;
    }
    for (const DerivedBit& bit : DerivedBits) {
        ulFlags |= ulFlags & bit.ulEither ? bit.ulFlag : 0;
    }
    return static_cast<USHORT>(ulFlags);
}

constexpr ModifierWords MakeModifierWords()
{
    ModifierWords words = {};
    for (ULONG i = 0; i < 256; i++) {
        words.usOf[i] = WordOf(static_cast<UCHAR>(i));
    }
    return words;
}
} // namespace

const ModifierWords WordsOfModifiers = MakeModifierWords();

// The report bits of a mask's single modifiers; the derived bits have none.
UCHAR ReportBitsOf(ULONG ulModifiers)
{
    UCHAR ucBits = 0;
    for (const ModifierBit& bit : ModifierBits) {
        if (ulModifiers & bit.ulFlag) {
            ucBits |= bit.ucReportBit;
        }
    }
    return ucBits;
}

bool IsPrefixUsage(UCHAR ucUsage)
{
    return ucUsage != 0 && (ucUsage == Globals.ucPrefix1Usage || ucUsage == Globals.ucPrefix2Usage ||
                            ucUsage == Globals.ucPosKeyPrefixUsage);
}

// Lets the word follow a report; ucFlag 1 tracks Fn and the prefix keys too, on keyboards that have them.
// Tells the mouse siblings of a change.
// IRQL <= DISPATCH. Lock: none, the word is exchanged whole. Fails: never.
void UpdateModifierFlags(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucFlag)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    bool bPrefixes = ucFlag == 1 && ReadShared(FilterContextOf(device)->KbdType) == NORMALKbdType;
    bool bContextKey = IsByteIn(pBuf, ulLen, USAGE_CONTEXT_KEY);
    bool bReleased = false;
    ULONG ulBefore = ReadShared(Globals.ulModifierFlags);
    ULONG ulFlags;
    do {
        ulFlags = (ulBefore & ~static_cast<ULONG>(MODIFIER_OF_BYTE)) | WordOfModifiers(pBuf[0]);
        ulFlags = bContextKey ? ulFlags | MODIFIER_CONTEXT_KEY : ulFlags & ~MODIFIER_CONTEXT_KEY;
        if (bPrefixes) {
            ulFlags = TrackPrefixes(ulFlags, pBuf, ulLen, &bReleased);
        }
    } while (ulFlags != ulBefore && !CompareExchangeShared(Globals.ulModifierFlags, ulBefore, ulFlags));
    if (IsTraced(TRACE_VERBOSE)) {
        TraceModifiers(device, ulBefore, ulFlags);
    }
    if (bReleased) {
        WriteShared(Globals.ulPrefixReleased, 1u);
    }
    if (bContextKey) {
        LogPrintf(LOG_DETAIL, 1, "(UpdateModifierFlags) ContextKey dn");
    } else if (ulBefore & MODIFIER_CONTEXT_KEY) {
        LogPrintf(LOG_DETAIL, 1, "(UpdateModifierFlags) ContextKey up");
    }
    if (ulFlags != ulBefore && IsMouseSiblingConnected()) {
        (void)NotifyMouseModifiers(&ulFlags); // sent again at the next change
    }
}
