// definitionlookup.cpp - finding a key definition.
//
// The three Find routines walk the list, by a byte of the ids where they can, and hand out pointers, which stay valid
// only for a caller that holds KeyDefLock or DefinitionMutex. The report road holds neither while it works, so it takes
// copies.
#include "hotkeys/hotkeys.h"

#include "ground/sums.h"
#include "hotkeys/fields.h"

namespace
{
// One byte of an id, so that eight slots are passed over at once.
UCHAR HashOf(ULONG ulId)
{
    return static_cast<UCHAR>(ulId ^ ulId >> 8 ^ ulId >> 16 ^ ulId >> 24);
}

// The first slot from usIndex on whose id has this hash, or the first one that is free.
USHORT NextOfHash(const HotkeyFields& hotkeys, USHORT usIndex, UCHAR ucHash) WITHOUT_LOCK_ANALYSIS
{
    const ULONG ulEnd = hotkeys.usDefinitions;
    for (; usIndex < ulEnd && usIndex % 8 != 0; usIndex++) {
        if (hotkeys.ucDefinitionHashes[usIndex] == ucHash) {
            return usIndex;
        }
    }
    for (; usIndex < ulEnd; usIndex += 8) {
        ULONGLONG ullHashes;
        RtlCopyMemory(&ullHashes, &hotkeys.ucDefinitionHashes[usIndex], sizeof(ullHashes));
        const ULONGLONG ullFound = ZeroBytesOf(ullHashes ^ EightOf(ucHash));
        if (ullFound != 0) {
            const ULONG ulFound = usIndex + LowestBit(ullFound) / 8;
            return static_cast<USHORT>(ulFound < ulEnd ? ulFound : ulEnd);
        }
    }
    return static_cast<USHORT>(ulEnd);
}

// The first definition with this id that fits. *pusIndex receives where the walk stopped: there, or the first free slot.
template <typename Fits>
KeyDefinition* FindById(const HotkeyFields& hotkeys, ULONG ulId, PUSHORT pusIndex,
                        Fits fits) WITHOUT_LOCK_ANALYSIS
{
    const UCHAR ucHash = HashOf(ulId);
    USHORT usIndex = NextOfHash(hotkeys, 0, ucHash);
    for (; usIndex < hotkeys.usDefinitions; usIndex = NextOfHash(hotkeys, usIndex + 1, ucHash)) {
        KeyDefinition* pDefinition = hotkeys.KeyDefinitions[usIndex];
        if (pDefinition->ulId == ulId && fits(pDefinition)) {
            break;
        }
    }
    if (pusIndex != nullptr) {
        *pusIndex = usIndex;
    }
    return usIndex < hotkeys.usDefinitions ? hotkeys.KeyDefinitions[usIndex] : nullptr;
}
} // namespace

// Puts a definition into the first free slot; the caller has seen that there is one.
void AppendDefinition(HotkeyFields& hotkeys, KeyDefinition* pDefinition)
{
    hotkeys.ucDefinitionHashes[hotkeys.usDefinitions] = HashOf(pDefinition->ulId);
    hotkeys.KeyDefinitions[hotkeys.usDefinitions++] = pDefinition;
}

KeyDefinition* FindKeyDefinitionById(PDEVICE_OBJECT device, ULONG ulId, PUSHORT pusIndex)
{
    return FindById(FieldsOf<HotkeyFields>(device), ulId, pusIndex,
                    [](const KeyDefinition*) { return true; });
}

KeyDefinition* FindKeyDefinitionByType(PDEVICE_OBJECT device, ULONG ulType,
                                       PUSHORT pusIndex) WITHOUT_LOCK_ANALYSIS
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    USHORT usIndex = 0;
    while (usIndex < hotkeys.usDefinitions && hotkeys.KeyDefinitions[usIndex]->ulType != ulType) {
        usIndex++;
    }
    if (pusIndex != nullptr) {
        *pusIndex = usIndex;
    }
    return usIndex < hotkeys.usDefinitions ? hotkeys.KeyDefinitions[usIndex] : nullptr;
}

// A null record fits nothing: *pusIndex then tells the first free slot.
KeyDefinition* FindKeyDefinition(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, PUSHORT pusIndex)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    if (pDefinition == nullptr) {
        *pusIndex = hotkeys.usDefinitions;
        return nullptr;
    }
    return FindById(hotkeys, pDefinition->ulId, pusIndex, [=](const KeyDefinition* pOther) {
        return RtlEqualMemory(pOther, pDefinition, sizeof(*pDefinition));
    });
}

// A copy of the first definition of this type.
// IRQL <= DISPATCH. Lock: takes KeyDefLock. Fails: none of the type, *pCopy untouched.
bool GetDefinitionOfType(PDEVICE_OBJECT device, ULONG ulType, KeyDefinition* pCopy)
{
    LockScope lock(FieldsOf<HotkeyFields>(device).KeyDefLock);
    const KeyDefinition* pDefinition = FindKeyDefinitionByType(device, ulType, nullptr);
    if (pDefinition == nullptr) {
        return false;
    }
    *pCopy = *pDefinition;
    return true;
}
