// hotkeylist.cpp - the hotkeys of a keyboard, made from its definitions of type 1 and published.
//
//   add      room for one more in both indexes (the only step that can fail) ─► behind the published ones ─► publish
//   remove   all made anew in the index aside ─► publish it
//
// An add makes all anew as well while the log or a trace names each conversion, and when the keyboard's kind has
// become known since. Everything here runs at PASSIVE_LEVEL under the keyboard's DefinitionMutex.
#include "hotkeys/hotkeys.h"

#include "ground/sums.h"
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
void WaitForWalks(DeviceContext* pContext, ULONG ulList)
{
    LARGE_INTEGER delay = RelativeMs(1);
    while (ReadShared(pContext->lHotkeyWalks[ulList]) != 0) {
        (void)KeDelayExecutionThread(KernelMode, FALSE, &delay);
    }
}

// The driver tracks these keys as modifiers, so they are no keys of a hotkey.
bool IsTrackedAsModifier(ULONG ulKbdType, UCHAR ucKey)
{
    return (ulKbdType == POWERKbdType && ucKey == USAGE_FN) ||
           (ulKbdType == NORMALKbdType && IsPrefixUsage(ucKey));
}

void DropTrackedKeys(DeviceContext* pContext, HotkeyEntry* pEntry)
{
    const ULONG ulKbdType = ReadShared(pContext->KbdType);
    for (ULONG i = 0; i < pEntry->ulKeyCount;) {
        if (!IsTrackedAsModifier(ulKbdType, pEntry->ucKeys[i])) {
            i++;
            continue;
        }
        Trace(KeyDropped, pContext->ulDeviceIndex, pEntry->ucKeys[i]);
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
    DeviceContext* pContext = FilterContextOf(device);
    const KeyDefinition* pDefinition = pContext->KeyDefinitions[usIndex];
    HotkeyEntry entry;
    NTSTATUS status = ConvertPS2ToHID(device, pDefinition, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DropTrackedKeys(pContext, &entry);
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

// The keys and modifier bytes that these entries, or the engine itself, look at.
void ClassifyKeysOf(DeviceContext* pContext, const HotkeyEntry& entry)
{
    for (ULONG i = 0; i < entry.ulKeyCount; i++) {
        if (entry.ucKeys[i] != 0) {
            WriteShared(pContext->ucKeyMeans[entry.ucKeys[i]], 1);
        }
    }
    const UCHAR ucBits = ReportBitsOf(entry.ulModifiers);
    for (ULONG i = 0; entry.ucKeys[0] == 0 && i < 256; i++) {
        if ((i & ucBits) == ucBits) {
            WriteShared(pContext->ucModifiersMean[i], 1);
        }
    }
}

void ClassifyKeys(DeviceContext* pContext, const HotkeyIndex* pIndex)
{
    for (ULONG i = 0; i < 256; i++) {
        const UCHAR ucValue = static_cast<UCHAR>(i);
        const bool bTracked = ucValue == USAGE_FN || ucValue == USAGE_CONTEXT_KEY || IsPrefixUsage(ucValue);
        WriteShared(pContext->ucModifiersMean[i], bTracked);
        WriteShared(pContext->ucKeyMeans[i], bTracked || ucValue == USAGE_ROLLOVER);
    }
    for (ULONG i = 0; pIndex != nullptr && i < pIndex->ulCount; i++) {
        ClassifyKeysOf(pContext, pIndex->pEntries[i]);
    }
}

// From here to the publication no report goes by the classes.
HotkeyView BeginChange(DeviceContext* pContext)
{
    const ULONGLONG ullHotkeys = ReadShared(pContext->ullHotkeys);
    WriteShared(pContext->ullHotkeys, ullHotkeys | HOTKEYS_CHANGING);
    return ViewOf(ullHotkeys);
}

void Publish(DeviceContext* pContext, HotkeyView view, ULONG ulList)
{
    const HotkeyIndex* pIndex = pContext->pHotkeyIndexes[ulList];
    view.ulList = ulList;
    view.ulCount = pIndex == nullptr ? 0 : pIndex->ulCount;
    view.ulPrefixes = pIndex == nullptr ? 0 : pIndex->ulPrefixes;
    view.ulGeneration++;
    WriteShared(pContext->ullHotkeys, WordOf(view));
}

void PublishAnew(DeviceContext* pContext, ULONG ulList)
{
    const HotkeyView view = BeginChange(pContext);
    ClassifyKeys(pContext, pContext->pHotkeyIndexes[ulList]);
    Publish(pContext, view, ulList);
}

void FreeIndex(HotkeyIndex* pIndex)
{
    if (pIndex != nullptr) {
        ExFreePoolWithTag(pIndex, POOL_TAG);
    }
}

ULONG ListAside(DeviceContext* pContext)
{
    return ViewOf(ReadShared(pContext->ullHotkeys)).ulList ^ 1;
}

// Puts another index, or none, in the place of one that is not published.
void ReplaceAside(DeviceContext* pContext, HotkeyIndex* pIndex)
{
    const ULONG ulList = ListAside(pContext);
    WaitForWalks(pContext, ulList);
    FreeIndex(pContext->pHotkeyIndexes[ulList]);
    pContext->pHotkeyIndexes[ulList] = pIndex;
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
    pContext->ucSendUpEventImmediately = SettingsOfHotkeys.ulSendUpEventImmediately != 0;
    ClassifyKeys(pContext, nullptr);
}

// Room for one more definition of type 1 in both indexes: an add then writes behind the published ones, and no
// removal needs memory.
// Fails: no memory; nothing has changed.
NTSTATUS ReserveHotkey(DeviceContext* pContext)
{
    static const ULONG Capacities[] = {16, 64, 128, 256, HOTKEY_LIST_SIZE};
    const ULONG ulList = ListAside(pContext) ^ 1;
    const HotkeyIndex* pPublished = pContext->pHotkeyIndexes[ulList];
    if (pPublished != nullptr && pContext->ulHotkeyDefinitions < pPublished->ulCapacity) {
        return STATUS_SUCCESS;
    }
    const ULONG* pCapacity = Capacities;
    while (*pCapacity <= pContext->ulHotkeyDefinitions) {
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
    ReplaceAside(pContext, pFirst);
    PublishAnew(pContext, ulList ^ 1);
    ReplaceAside(pContext, pSecond);
    return STATUS_SUCCESS;
}

// Makes all hotkeys anew aside and publishes them. The result is the status of the last conversion.
// Fails: the last hotkey was not convertible.
NTSTATUS BuildHotkeyList(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    DeviceContext* pContext = FilterContextOf(device);
    const ULONG ulList = ListAside(pContext);
    HotkeyIndex* pIndex = pContext->pHotkeyIndexes[ulList];
    NTSTATUS status = STATUS_SUCCESS;
    WaitForWalks(pContext, ulList);
    if (pIndex != nullptr) {
        ClearHotkeyIndex(pIndex);
        pIndex->ulKbdType = ReadShared(pContext->KbdType);
    }
    for (USHORT i = 0; i < pContext->usDefinitions; i++) {
        if (IsHotkeyDefinition(pContext, i)) {
            status = AddHotkeyOf(device, i, pIndex);
        }
    }
    PublishAnew(pContext, ulList);
    return status;
}

// The hotkey of the definition that was stored last, for which ReserveHotkey has made room.
// Fails: it is not convertible.
NTSTATUS AddLastHotkey(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    const ULONG ulList = ListAside(pContext) ^ 1;
    HotkeyIndex* pIndex = pContext->pHotkeyIndexes[ulList];
    if (pIndex->ulKbdType != ReadShared(pContext->KbdType) || IsEachConversionNamed()) {
        return BuildHotkeyList(device);
    }
    const ULONG ulBefore = pIndex->ulCount;
    const HotkeyView view = BeginChange(pContext);
    const NTSTATUS status = AddHotkeyOf(device, static_cast<USHORT>(pContext->usDefinitions - 1), pIndex);
    if (pIndex->ulCount != ulBefore) {
        ClassifyKeysOf(pContext, pIndex->pEntries[ulBefore]);
    }
    Publish(pContext, view, ulList);
    return status;
}

// A definition of another type that came first with this id is gone: the next one says what is swallowed.
void RenewSwallow(PDEVICE_OBJECT device, ULONG ulId)
{
    const KeyDefinition* pDefinition = FindKeyDefinitionById(device, ulId, nullptr);
    for (HotkeyEntry& entry : HotkeyWalk(FilterContextOf(device))) {
        if (entry.ulId == ulId && pDefinition != nullptr) {
            WriteShared(entry.ucSwallow, static_cast<UCHAR>(pDefinition->ulSwallow));
        }
    }
}

// Nothing is defined any more: publishes no hotkeys and gives the memory back.
void DropHotkeys(DeviceContext* pContext)
{
    ReplaceAside(pContext, nullptr);
    PublishAnew(pContext, ListAside(pContext));
    ReplaceAside(pContext, nullptr);
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
        for (const HotkeyEntry& entry : HotkeyWalk(FilterContextOf(device))) {
            Trace(HotkeyListEntry, IndexOf(device), ulIndex++, entry.ulId, entry.ulModifiers,
                  entry.ulKeyCount, {entry.ucKeys, 8});
        }
    }
}
