// hotkeylist.cpp - the hotkey list of a keyboard, made from its definitions of type 1.
//
//   lists   [0] published ◄── walks        ulHotkeyList says which one is published;
//           [1] aside     ◄── the rebuild  publishing exchanges it
//
// A walk counts itself in for the published list and looks again that it still is; so once the count of the
// list aside is 0 nobody reads it, and the next rebuild may use it. Walks are short and never wait.
#include "hotkeys/hotkeys.h"

#include "driver/sums.h"
#include "log/events.h"
#include "report/report.h"

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

// Nobody walks the list that is not published any more; the walks of the one before may still run.
// IRQL = PASSIVE. Lock: the caller holds DefinitionMutex.
HotkeyEntry* ListAside(DeviceContext* pContext, PULONG pulList)
{
    *pulList = ReadShared(pContext->ulHotkeyList) ^ 1;
    LARGE_INTEGER delay = RelativeMs(1);
    while (ReadShared(pContext->lHotkeyWalks[*pulList]) != 0) {
        (void)KeDelayExecutionThread(KernelMode, FALSE, &delay);
    }
    return pContext->HotkeyLists[*pulList];
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

// The identical entry of the list, or the first empty one; null when neither is there.
HotkeyEntry* FindHotkeyEntry(HotkeyEntry* pList, const HotkeyEntry* pWanted)
{
    for (ULONG i = 0; i < HOTKEY_LIST_SIZE; i++) {
        HotkeyEntry* pEntry = &pList[i];
        if (pEntry->ulId == 0 ||
            (pEntry->ulId == pWanted->ulId && pEntry->ulModifiers == pWanted->ulModifiers &&
             pEntry->ulKeyCount == pWanted->ulKeyCount &&
             RtlEqualMemory(pEntry->ucKeys, pWanted->ucKeys, sizeof(pWanted->ucKeys)))) {
            return pEntry;
        }
    }
    return nullptr;
}

// One definition's entry into the list. Fails: not convertible, or too many key bytes.
NTSTATUS AddEntryOf(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, HotkeyEntry* pList)
{
    HotkeyEntry entry;
    NTSTATUS status = ConvertPS2ToHID(device, pDefinition, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DropTrackedKeys(FilterContextOf(device), &entry);
    if (pDefinition->ulId == 0) {
        return status; // an id of 0 would end the list
    }
    entry.ulId = pDefinition->ulId;
    status = SetModifiers(&entry, pDefinition->ulModifiers);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HotkeyEntry* pSlot = FindHotkeyEntry(pList, &entry);
    if (pSlot != nullptr && pSlot->ulId == 0) {
        *pSlot = entry;
    }
    return status;
}
} // namespace

// Builds the list aside from all definitions of type 1 and publishes it at once, every state flag 0. The
// result is the status of the last conversion.
// IRQL = PASSIVE. Lock: the caller holds DefinitionMutex. Fails: the last hotkey was not convertible.
NTSTATUS BuildHotkeyList(PDEVICE_OBJECT device) WITHOUT_LOCK_ANALYSIS
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    DeviceContext* pContext = FilterContextOf(device);
    ULONG ulList;
    HotkeyEntry* pList = ListAside(pContext, &ulList);
    RtlZeroMemory(pList, sizeof(pContext->HotkeyLists[0]));
    NTSTATUS status = STATUS_SUCCESS;
    for (const KeyDefinition* pDefinition : pContext->KeyDefinitions) {
        if (pDefinition == nullptr) {
            break;
        }
        if (pDefinition->ulType == 1) {
            status = AddEntryOf(device, pDefinition, pList);
        }
    }
    WriteShared(pContext->ulHotkeyList, ulList);
    return status;
}

// The lists of all keyboards, when anybody listens.
// IRQL = PASSIVE.
void TraceHotkeyLists()
{
    if (!IsTraced(TRACE_VERBOSE)) {
        return;
    }
    for (PDEVICE_OBJECT device = FirstKeyboard(); device != nullptr; device = NextKeyboard(device)) {
        ULONG ulIndex = 0;
        for (const HotkeyEntry& entry : HotkeyWalk(FilterContextOf(device))) {
            Trace(HotkeyListEntry, FilterContextOf(device)->ulDeviceIndex, ulIndex++, entry.ulId,
                  entry.ulModifiers, entry.ulKeyCount, {entry.ucKeys, 8});
        }
    }
}

HotkeyWalk::HotkeyWalk(DeviceContext* pContext) : pContext(pContext)
{
    for (;;) {
        ulList = ReadShared(pContext->ulHotkeyList);
        InterlockedIncrement(&pContext->lHotkeyWalks[ulList]);
        if (ReadShared(pContext->ulHotkeyList) == ulList) {
            break;
        }
        InterlockedDecrement(&pContext->lHotkeyWalks[ulList]);
    }
    pFirst = pContext->HotkeyLists[ulList];
}

HotkeyWalk::~HotkeyWalk()
{
    InterlockedDecrement(&pContext->lHotkeyWalks[ulList]);
}
