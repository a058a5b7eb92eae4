// modifiers.cpp - the modifier word, one for all keyboards.
//
//   report byte 0 ──► single bits 0x002..0x100 ──► derived bits 0x400..0x2000
//   usage 0x65, 0xA5 ──► ContextKey, Fn          held while the key is held
//   prefix usages ──► 0x08000000..0x20000000     latched by the press; the hotkey pass clears them
//
// Several keyboards write the word at once, so each update computes it anew until nobody came between.
#include "hotkeys/modifiers.h"

#include "ground/sums.h"
#include "hotkeys/fields.h"
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

// Up to eight bytes as one word, which are a whole report.
ULONGLONG ReadBytes(const UCHAR* pBytes, ULONG ulBytes)
{
    ULONGLONG ullBytes = 0;
    if (ulBytes >= sizeof(ullBytes)) {
        RtlCopyMemory(&ullBytes, pBytes, sizeof(ullBytes));
    } else {
        RtlCopyMemory(&ullBytes, pBytes, ulBytes);
    }
    return ullBytes;
}

// The bits of the word whose keys stand in the report, at any of its bytes. Mostly none does.
ULONG BitsOfKeysIn(const UCHAR* pBuf, ULONG ulLen)
{
    ULONG ulBits = 0;
    for (ULONG i = 0; i < ulLen; i += sizeof(ULONGLONG)) {
        const ULONGLONG ullBytes = ReadBytes(pBuf + i, ulLen - i);
        const auto PlacesOf = [=](UCHAR ucUsage) { return ZeroBytesOf(ullBytes ^ EightOf(ucUsage)); };
        if ((PlacesOf(USAGE_CONTEXT_KEY) | PlacesOf(USAGE_FN) | PlacesOf(GlobalHotkeys.ucPrefix1Usage) |
             PlacesOf(GlobalHotkeys.ucPrefix2Usage) | PlacesOf(GlobalHotkeys.ucPosKeyPrefixUsage)) == 0) {
            continue;
        }
        const auto BitOf = [=](UCHAR ucUsage, ULONG ulBit) {
            return ucUsage != 0 && PlacesOf(ucUsage) != 0 ? ulBit : 0;
        };
        ulBits |= BitOf(USAGE_CONTEXT_KEY, MODIFIER_CONTEXT_KEY) | BitOf(USAGE_FN, MODIFIER_FN) |
                  BitOf(GlobalHotkeys.ucPrefix1Usage, MODIFIER_PREFIX1) |
                  BitOf(GlobalHotkeys.ucPrefix2Usage, MODIFIER_PREFIX2) |
                  BitOf(GlobalHotkeys.ucPosKeyPrefixUsage, MODIFIER_POSKEY_PREFIX);
    }
    return ulBits;
}

// The word after a report of these modifiers and keys: the keys that are tracked follow theirs, but for the prefixes,
// which latch.
ULONG FollowReport(ULONG ulFlags, UCHAR ucModifiers, ULONG ulKeys, ULONG ulTracked)
{
    ulFlags = (ulFlags & ~static_cast<ULONG>(MODIFIER_OF_BYTE)) | WordOfModifiers(ucModifiers);
    return (ulFlags & ~(ulTracked & ~MODIFIER_PREFIXES)) | (ulKeys & ulTracked);
}

// What a report's tracked keys mean besides their bits: a prefix that was latched is released, the log names the
// context key.
NOINLINE void NoteKeys(ULONG ulBefore, ULONG ulKeys, ULONG ulTracked)
{
    if (ulBefore & ulTracked & MODIFIER_PREFIXES & ~ulKeys) {
        WriteShared(GlobalHotkeys.ulPrefixReleased, 1u);
    }
    if (ulKeys & MODIFIER_CONTEXT_KEY) {
        LogPrintf(LOG_DETAIL, 1, "(UpdateModifierFlags) ContextKey dn");
    } else if (ulBefore & MODIFIER_CONTEXT_KEY) {
        LogPrintf(LOG_DETAIL, 1, "(UpdateModifierFlags) ContextKey up");
    }
}

// Each single modifier that came or went.
COLD void TraceModifiers(PDEVICE_OBJECT device, ULONG ulBefore, ULONG ulFlags)
{
    for (const ModifierBit& bit : ModifierBits) {
        if ((ulBefore ^ ulFlags) & bit.ulFlag) {
            Trace(ModifierChanged, IndexOf(device), bit.ulFlag, (ulFlags & bit.ulFlag) != 0, ulFlags);
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

namespace
{
NOINLINE void TellMice(ULONG ulFlags)
{
    (void)NotifyMouseModifiers(&ulFlags); // sent again at the next change
}
} // namespace

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
    return ucUsage != 0 &&
           (ucUsage == GlobalHotkeys.ucPrefix1Usage || ucUsage == GlobalHotkeys.ucPrefix2Usage ||
            ucUsage == GlobalHotkeys.ucPosKeyPrefixUsage);
}

// Lets the word follow a report; ucFlag 1 tracks Fn and the prefix keys too, on keyboards that have them.
// Tells the mouse siblings of a change.
// IRQL <= DISPATCH. Lock: none, the word is exchanged whole. Fails: never.
void UpdateModifierFlags(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucFlag)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    const bool bPrefixes = ucFlag == 1 && ReadShared(FieldsOf<FrameFields>(device).KbdType) == NORMALKbdType;
    const ULONG ulTracked = MODIFIER_CONTEXT_KEY | (bPrefixes ? MODIFIER_FN | MODIFIER_PREFIXES : 0);
    const ULONG ulKeys = BitsOfKeysIn(pBuf, ulLen) & ulTracked;
    ULONG ulBefore = ReadShared(GlobalHotkeys.ulModifierFlags);
    ULONG ulFlags;
    do {
        ulFlags = FollowReport(ulBefore, pBuf[0], ulKeys, ulTracked);
    } while (ulFlags != ulBefore && !CompareExchangeShared(GlobalHotkeys.ulModifierFlags, ulBefore, ulFlags));
    if (IsTraced(TRACE_VERBOSE)) {
        TraceModifiers(device, ulBefore, ulFlags);
    }
    if ((ulBefore | ulKeys) & ulTracked) {
        NoteKeys(ulBefore, ulKeys, ulTracked);
    }
    if (ulFlags != ulBefore && IsMouseSiblingConnected()) {
        TellMice(ulFlags);
    }
}
