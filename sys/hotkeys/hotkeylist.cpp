// hotkeylist.cpp - the hotkeys of a keyboard, made from its definitions of type 1 and published.
//
//   add      room for one more in both indexes (the only step that can fail) ─► behind the published ones ─► publish
//   remove   all made anew in the index aside ─► publish it
//
// An add makes all anew as well while the log or a trace names each conversion, and when the keyboard's kind has
// become known since. Everything here runs at PASSIVE_LEVEL under the keyboard's DefinitionMutex.
#include "hotkeys/hotkeys.h"

#include "ground/sums.h"
#include "hotkeys/fields.h"
#include "hotkeys/modifiers.h"
#include "log/events.h"
#include "log/log.h"
#include "report/keys.h"

namespace
{
struct MaskClear {
    ULONG ulAny;
    ULONG ulEither;
};

// "Any Control" and its like stand for both sides, so the single sides are dropped.
const MaskClear MaskClears[] = {
    {MODIFIER_ANY_CONTROL, 0x006},
    {MODIFIER_ANY_SHIFT, 0x018},
    {MODIFIER_ANY_ALT, 0x060},
    {MODIFIER_ANY_GUI, 0x180},
};

// Nobody begins a walk of an index that is not published any more; those of before may still run.
void WaitForWalks(HotkeyFields& hotkeys, ULONG ulList)
{
    LARGE_INTEGER delay = RelativeMs(1);
    while (ReadShared(hotkeys.lHotkeyWalks[ulList]) != 0) {
        (void)KeDelayExecutionThread(KernelMode, FALSE, &delay);
    }
}

// The driver tracks these keys as modifiers, so they are no keys of a hotkey.
bool IsTrackedAsModifier(ULONG ulKbdType, UCHAR ucKey)
{
    return (ulKbdType == POWERKbdType && ucKey == USAGE_FN) ||
           (ulKbdType == NORMALKbdType && IsPrefixUsage(ucKey));
}

void DropTrackedKeys(PDEVICE_OBJECT device, HotkeyEntry* pEntry)
{
    const ULONG ulKbdType = ReadShared(FieldsOf<FrameFields>(device).KbdType);
    for (ULONG i = 0; i < pEntry->ulKeyCount;) {
        if (!IsTrackedAsModifier(ulKbdType, pEntry->ucKeys[i])) {
            i++;
            continue;
        }
        Trace(KeyDropped, IndexOf(device), pEntry->ucKeys[i]);
        RtlMoveMemory(&pEntry->ucKeys[i], &pEntry->ucKeys[i + 1], pEntry->ulKeyCount - i - 1);
        pEntry->ucKeys[--pEntry->ulKeyCount] = 0;
    }
}

// Takes the mask over. ContextKey becomes a key as well. Fails: no room for that key.
NTSTATUS SetModifiers(HotkeyEntry* pEntry, ULONG ulModifiers)
{
    if (ulModifiers & MODIFIER_CONTEXT_KEY) {
        if (pEntry->ulKeyCount >= HOTKEY_KEYS) {
            return STATUS_UNSUCCESSFUL;
        }
        pEntry->ucKeys[pEntry->ulKeyCount++] = USAGE_CONTEXT_KEY;
    }
    for (const MaskClear& clear : MaskClears) {
        if (ulModifiers & clear.ulAny) {
            ulModifiers &= ~clear.ulEither;
        }
    }
    pEntry->ulModifiers = ulModifiers;
    return STATUS_SUCCESS;
}

// The hotkey of definition usIndex into the index. An id of 0 makes none.
// Fails: not convertible, or too many key bytes.
NTSTATUS AddHotkeyOf(PDEVICE_OBJECT device, USHORT usIndex, HotkeyIndex* pIndex) WITHOUT_LOCK_ANALYSIS
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    const KeyDefinition* pDefinition = hotkeys.KeyDefinitions[usIndex];
    HotkeyEntry entry;
    NTSTATUS status = ConvertPS2ToHID(device, pDefinition, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DropTrackedKeys(device, &entry);
    if (pDefinition->ulId == 0) {
        return status;
    }
    entry.ulId = pDefinition->ulId;
    status = SetModifiers(&entry, pDefinition->ulModifiers);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    USHORT usFirst;
    const KeyDefinition* pFirst = FindKeyDefinitionById(device, entry.ulId, &usFirst);
    entry.ucSwallow = static_cast<UCHAR>(pFirst->ulSwallow);
    if (usFirst == usIndex || !IsHotkeyIn(pIndex, entry)) {
        AppendHotkey(pIndex, entry);
    }
    return status;
}

// Lock: the road into here holds DefinitionMutex.
bool IsHotkeyDefinition(const HotkeyFields& hotkeys, USHORT usIndex) WITHOUT_LOCK_ANALYSIS
{
    return hotkeys.KeyDefinitions[usIndex]->ulType == 1;
}

// The keys and modifier bytes that these entries, or the engine itself, look at.
void ClassifyKeysOf(HotkeyFields& hotkeys, const HotkeyEntry& entry)
{
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucKeys[i] != 0) {
            WriteShared(hotkeys.ucKeyMeans[entry.ucKeys[i]], 1);
        }
    }
    const UCHAR ucBits = ReportBitsOf(entry.ulModifiers);
    for (ULONG i = 0; entry.ucKeys[0] == 0 && i < 256; i++) {
        if ((i & ucBits) == ucBits) {
            WriteShared(hotkeys.ucModifiersMean[i], 1);
        }
    }
}

void ClassifyKeys(HotkeyFields& hotkeys, const HotkeyIndex* pIndex)
{
    for (ULONG i = 0; i < 256; i++) {
        const UCHAR ucValue = static_cast<UCHAR>(i);
        const bool bTracked = ucValue == USAGE_FN || ucValue == USAGE_CONTEXT_KEY || IsPrefixUsage(ucValue);
        WriteShared(hotkeys.ucModifiersMean[i], bTracked);
        WriteShared(hotkeys.ucKeyMeans[i], bTracked || ucValue == USAGE_ROLLOVER);
    }
    for (ULONG i = 0; pIndex != nullptr && i < pIndex->ulCount; i++) {
        ClassifyKeysOf(hotkeys, pIndex->pEntries[i]);
    }
}

// From here to the publication no report goes by the classes.
HotkeyView BeginChange(HotkeyFields& hotkeys)
{
    const ULONGLONG ullHotkeys = ReadShared(hotkeys.ullHotkeys);
    WriteShared(hotkeys.ullHotkeys, ullHotkeys | HOTKEYS_CHANGING);
    return ViewOf(ullHotkeys);
}

void Publish(HotkeyFields& hotkeys, HotkeyView view, ULONG ulList)
{
    const HotkeyIndex* pIndex = hotkeys.pHotkeyIndexes[ulList];
    view.ulList = ulList;
    view.ulCount = pIndex == nullptr ? 0 : pIndex->ulCount;
    view.ulPrefixes = pIndex == nullptr ? 0 : pIndex->ulPrefixes;
    view.ulGeneration++;
    WriteShared(hotkeys.ullHotkeys, WordOf(view));
}

void PublishAnew(HotkeyFields& hotkeys, ULONG ulList)
{
    const HotkeyView view = BeginChange(hotkeys);
    ClassifyKeys(hotkeys, hotkeys.pHotkeyIndexes[ulList]);
    Publish(hotkeys, view, ulList);
}

void FreeIndex(HotkeyIndex* pIndex)
{
    if (pIndex != nullptr) {
        ExFreePoolWithTag(pIndex, POOL_TAG);
    }
}

ULONG ListAside(HotkeyFields& hotkeys)
{
    return ViewOf(ReadShared(hotkeys.ullHotkeys)).ulList ^ 1;
}

// Puts another index, or none, in the place of one that is not published.
void ReplaceAside(HotkeyFields& hotkeys, HotkeyIndex* pIndex)
{
    const ULONG ulList = ListAside(hotkeys);
    WaitForWalks(hotkeys, ulList);
    FreeIndex(hotkeys.pHotkeyIndexes[ulList]);
    hotkeys.pHotkeyIndexes[ulList] = pIndex;
}

// What the report road changes in the entries stays behind: after a change nothing is held.
void CopyHotkeys(HotkeyIndex* pTo, const HotkeyIndex* pFrom)
{
    for (ULONG i = 0; pFrom != nullptr && i < pFrom->ulCount; i++) {
        const HotkeyEntry& entry = pFrom->pEntries[i];
        HotkeyEntry copy = {};
        copy.ulId = entry.ulId;
        copy.ulModifiers = entry.ulModifiers;
        copy.ulKeyCount = entry.ulKeyCount;
        copy.ucSwallow = entry.ucSwallow;
        RtlCopyMemory(copy.ucKeys, entry.ucKeys, sizeof(copy.ucKeys));
        AppendHotkey(pTo, copy);
    }
    pTo->ulKbdType = pFrom == nullptr ? static_cast<ULONG>(UnknownKbdType) : pFrom->ulKbdType;
}

bool IsEachConversionNamed()
{
    return IsLogOn(LOG_DETAIL) || IsTraced(TRACE_WARNING);
}
} // namespace

// At add-device: a keyboard without hotkeys.
void InitializeHotkeys(DeviceContext* pContext)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(pContext);
    hotkeys.ucSendUpEventImmediately = SettingsOfHotkeys.ulSendUpEventImmediately != 0;
    ClassifyKeys(hotkeys, nullptr);
}

// Room for one more definition of type 1 in both indexes: an add then writes behind the published ones, and no
// removal needs memory.
// Fails: no memory; nothing has changed.
NTSTATUS ReserveHotkey(HotkeyFields& hotkeys)
{
    static const ULONG Capacities[] = {16, 64, 128, 256, HOTKEY_LIST_SIZE};
    const ULONG ulList = ListAside(hotkeys) ^ 1;
    const HotkeyIndex* pPublished = hotkeys.pHotkeyIndexes[ulList];
    if (pPublished != nullptr && hotkeys.ulHotkeyDefinitions < pPublished->ulCapacity) {
        return STATUS_SUCCESS;
    }
    const ULONG* pCapacity = Capacities;
    while (*pCapacity <= hotkeys.ulHotkeyDefinitions) {
        pCapacity++;
    }
    HotkeyIndex* pFirst = AllocateHotkeyIndex(*pCapacity);
    HotkeyIndex* pSecond = AllocateHotkeyIndex(*pCapacity);
    if (pFirst == nullptr || pSecond == nullptr) {
        FreeIndex(pFirst);
        FreeIndex(pSecond);
        return STATUS_UNSUCCESSFUL;
    }
    CopyHotkeys(pFirst, pPublished);
    ReplaceAside(hotkeys, pFirst);
    PublishAnew(hotkeys, ulList ^ 1);
    ReplaceAside(hotkeys, pSecond);
    return STATUS_SUCCESS;
}

// Makes all hotkeys anew aside and publishes them. The result is the status of the last conversion.
// Fails: the last hotkey was not convertible.
NTSTATUS BuildHotkeyList(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    const ULONG ulList = ListAside(hotkeys);
    HotkeyIndex* pIndex = hotkeys.pHotkeyIndexes[ulList];
    NTSTATUS status = STATUS_SUCCESS;
    WaitForWalks(hotkeys, ulList);
    if (pIndex != nullptr) {
        ClearHotkeyIndex(pIndex);
        pIndex->ulKbdType = ReadShared(FieldsOf<FrameFields>(device).KbdType);
    }
    for (USHORT i = 0; i < hotkeys.usDefinitions; i++) {
        if (IsHotkeyDefinition(hotkeys, i)) {
            status = AddHotkeyOf(device, i, pIndex);
        }
    }
    PublishAnew(hotkeys, ulList);
    return status;
}

// The hotkey of the definition that was stored last, for which ReserveHotkey has made room.
// Fails: it is not convertible.
NTSTATUS AddLastHotkey(PDEVICE_OBJECT device)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    const ULONG ulList = ListAside(hotkeys) ^ 1;
    HotkeyIndex* pIndex = hotkeys.pHotkeyIndexes[ulList];
    if (pIndex->ulKbdType != ReadShared(FieldsOf<FrameFields>(device).KbdType) || IsEachConversionNamed()) {
        return BuildHotkeyList(device);
    }
    const ULONG ulBefore = pIndex->ulCount;
    const HotkeyView view = BeginChange(hotkeys);
    const NTSTATUS status = AddHotkeyOf(device, static_cast<USHORT>(hotkeys.usDefinitions - 1), pIndex);
    if (pIndex->ulCount != ulBefore) {
        ClassifyKeysOf(hotkeys, pIndex->pEntries[ulBefore]);
    }
    Publish(hotkeys, view, ulList);
    return status;
}

// A definition of another type that came first with this id is gone: the next one says what is swallowed.
void RenewSwallow(PDEVICE_OBJECT device, ULONG ulId)
{
    const KeyDefinition* pDefinition = FindKeyDefinitionById(device, ulId, nullptr);
    for (HotkeyEntry& entry : HotkeyWalk(FieldsOf<HotkeyFields>(device))) {
        if (entry.ulId == ulId && pDefinition != nullptr) {
            WriteShared(entry.ucSwallow, static_cast<UCHAR>(pDefinition->ulSwallow));
        }
    }
}

// Nothing is defined any more: publishes no hotkeys and gives the memory back.
void DropHotkeys(HotkeyFields& hotkeys)
{
    ReplaceAside(hotkeys, nullptr);
    PublishAnew(hotkeys, ListAside(hotkeys));
    ReplaceAside(hotkeys, nullptr);
}

// The lists of all keyboards, when anybody listens.
// IRQL = PASSIVE.
void TraceHotkeyLists()
{
    if (!IsTraced(TRACE_VERBOSE)) {
        return;
    }
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        ULONG ulIndex = 0;
        for (const HotkeyEntry& entry : HotkeyWalk(FieldsOf<HotkeyFields>(device))) {
            Trace(HotkeyListEntry, IndexOf(device), ulIndex++, entry.ulId, entry.ulModifiers,
                  entry.ulKeyCount, {entry.ucKeys, 8});
        }
    }
}
