// definitionlookup.cpp - finding a key definition.
//
// The three Find routines walk the packed list and hand out pointers, which stay valid only for a caller
// that holds KeyDefLock or DefinitionMutex. The report road holds neither while it works, so it takes copies.
#include "hotkeys/hotkeys.h"

#include "log/events.h"

namespace
{
// Walks to the first definition that fits, or to the first null slot. *pusIndex receives where it stopped.
template <typename Fits>
KeyDefinition* Walk(DeviceContext* pContext, PUSHORT pusIndex, Fits fits) WITHOUT_LOCK_ANALYSIS
{
    USHORT usIndex = 0;
    KeyDefinition* pFound = nullptr;
    for (; usIndex < KEY_DEFINITION_SLOTS - 1 && pContext->KeyDefinitions[usIndex] != nullptr; usIndex++) {
        if (fits(pContext->KeyDefinitions[usIndex])) {
            pFound = pContext->KeyDefinitions[usIndex];
            break;
        }
    }
    if (pusIndex != nullptr) {
        *pusIndex = usIndex;
    }
    return pFound;
}
} // namespace

KeyDefinition* FindKeyDefinitionById(PDEVICE_OBJECT device, ULONG ulId, PUSHORT pusIndex)
{
    return Walk(FilterContextOf(device), pusIndex,
                [=](const KeyDefinition* pDefinition) { return pDefinition->ulId == ulId; });
}

KeyDefinition* FindKeyDefinitionByType(PDEVICE_OBJECT device, ULONG ulType, PUSHORT pusIndex)
{
    return Walk(FilterContextOf(device), pusIndex,
                [=](const KeyDefinition* pDefinition) { return pDefinition->ulType == ulType; });
}

// A null record fits nothing: the walk then tells the first null slot.
KeyDefinition* FindKeyDefinition(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, PUSHORT pusIndex)
{
    return Walk(FilterContextOf(device), pusIndex, [=](const KeyDefinition* pOther) {
        return pDefinition != nullptr && RtlEqualMemory(pOther, pDefinition, sizeof(*pDefinition));
    });
}

// The swallow byte of the first definition with this id.
// IRQL <= DISPATCH. Lock: takes KeyDefLock. Fails: unknown id, *pucSwallow untouched.
bool GetSwallowOf(PDEVICE_OBJECT device, ULONG ulId, PUCHAR pucSwallow)
{
    LockScope lock(FilterContextOf(device)->KeyDefLock);
    const KeyDefinition* pDefinition = FindKeyDefinitionById(device, ulId, nullptr);
    if (pDefinition == nullptr) {
        Trace(DefinitionUnknown, FilterContextOf(device)->ulDeviceIndex, ulId);
        return false;
    }
    *pucSwallow = static_cast<UCHAR>(pDefinition->ulSwallow);
    return true;
}

// A copy of the first definition of this type.
// IRQL <= DISPATCH. Lock: takes KeyDefLock. Fails: none of the type, *pCopy untouched.
bool GetDefinitionOfType(PDEVICE_OBJECT device, ULONG ulType, KeyDefinition* pCopy)
{
    LockScope lock(FilterContextOf(device)->KeyDefLock);
    const KeyDefinition* pDefinition = FindKeyDefinitionByType(device, ulType, nullptr);
    if (pDefinition == nullptr) {
        return false;
    }
    *pCopy = *pDefinition;
    return true;
}
