// definitions.cpp - the key definitions that the application gives a keyboard.
//
// The list is packed from index 0 and owns its copies; its last slot stays null. One change at a time:
// DefinitionMutex holds off other changes for the whole of it (the rebuild of the hotkey list included),
// KeyDefLock only while the pointers move, so that the report road never sees a freed definition.
#include "hotkeys/hotkeys.h"

#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "usb/pending.h"

namespace
{
// Renews the derived bits of ulKeyDefTypes; the macro feature's bit stays as it is, whoever changes it now.
void RecomputeKeyDefTypes(HotkeyFields& hotkeys) REQUIRES_LOCK(hotkeys.DefinitionMutex) WITHOUT_LOCK_ANALYSIS
{
    ULONG ulMask = 0;
    for (const KeyDefinition* pDefinition : hotkeys.KeyDefinitions) {
        if (pDefinition == nullptr) {
            break;
        }
        if (pDefinition->ulType != 0) {
            ulMask |= 1u << ((pDefinition->ulType - 1) % 32);
        }
    }
    ULONG ulBefore = ReadShared(hotkeys.ulKeyDefTypes);
    while (!CompareExchangeShared(hotkeys.ulKeyDefTypes, ulBefore, (ulBefore & KEYDEF_MACRO_MODE) | ulMask)) {
    }
}

// One more type exists.
void AddKeyDefType(HotkeyFields& hotkeys, ULONG ulType) REQUIRES_LOCK(hotkeys.DefinitionMutex)
{
    const ULONG ulBit = ulType == 0 ? 0 : 1u << ((ulType - 1) % 32);
    ULONG ulBefore = ReadShared(hotkeys.ulKeyDefTypes);
    while (!CompareExchangeShared(hotkeys.ulKeyDefTypes, ulBefore, ulBefore | ulBit)) {
    }
}

// Puts a copy of the record into the first free slot, and sees to the room for its hotkey first.
// Lock: takes KeyDefLock. Fails: no pool, list full; nothing has changed.
NTSTATUS StoreCopy(PDEVICE_OBJECT device, HotkeyFields& hotkeys, const KeyDefinition* pDefinition)
    REQUIRES_LOCK(hotkeys.DefinitionMutex)
{
    auto* pCopy =
        static_cast<KeyDefinition*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KeyDefinition), POOL_TAG));
    if (pCopy == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    *pCopy = *pDefinition;
    USHORT usIndex;
    (void)FindKeyDefinition(device, nullptr, &usIndex);
    if (usIndex >= KEY_DEFINITION_SLOTS - 1 ||
        (pDefinition->ulType == 1 && !NT_SUCCESS(ReserveHotkey(hotkeys)))) {
        ExFreePoolWithTag(pCopy, POOL_TAG);
        return STATUS_UNSUCCESSFUL;
    }
    hotkeys.ulHotkeyDefinitions += pDefinition->ulType == 1;
    LockScope lock(hotkeys.KeyDefLock);
    AppendDefinition(hotkeys, pCopy);
    return STATUS_SUCCESS;
}

// A definition of the point-of-sale family starts from an empty previous report.
void ForgetOldOPOSPacket(BufferFields& buffers)
{
    LockScope lock(buffers.BufferLock);
    RtlZeroMemory(buffers.ucOldOPOSPacket, sizeof(buffers.ucOldOPOSPacket));
}

// Takes the first definition with this id out of the list and returns it, or null.
KeyDefinition* TakeOut(PDEVICE_OBJECT device, ULONG ulId)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    LockScope lock(hotkeys.KeyDefLock);
    USHORT usIndex;
    KeyDefinition* pDefinition = FindKeyDefinitionById(device, ulId, &usIndex);
    if (pDefinition != nullptr) {
        KeyDefinition** ppSlots = hotkeys.KeyDefinitions;
        RtlMoveMemory(&ppSlots[usIndex], &ppSlots[usIndex + 1],
                      (KEY_DEFINITION_SLOTS - 1 - usIndex) * sizeof(ppSlots[0]));
        PUCHAR pHashes = hotkeys.ucDefinitionHashes;
        RtlMoveMemory(&pHashes[usIndex], &pHashes[usIndex + 1], KEY_DEFINITION_SLOTS - 1 - usIndex);
        hotkeys.usDefinitions--;
    }
    return pDefinition;
}

// Discard mode has just ended: a read at the keyboard is called back so that the held reports come at once.
void ReplayDiscardedReports(PDEVICE_OBJECT device)
{
    ULONG ulCount;
    if (NT_SUCCESS(GetDiscardedPacketCount(IndexOf(device), &ulCount)) && ulCount != 0) {
        (void)CancelPendingRead(device);
    }
}
} // namespace

// Adds a copy of the record. Of a hotkey definition the status of its conversion is the result.
// IRQL = PASSIVE. Lock: takes DefinitionMutex, KeyDefLock. Owns: copies the record.
// Fails: duplicate, more than 32 scan bytes, list full, no pool, last hotkey not convertible.
NTSTATUS AddKeyDefinition(PDEVICE_OBJECT device, const KeyDefinition* pDefinition)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    if (pDefinition->usScanCount > sizeof(pDefinition->ucScans)) {
        return STATUS_UNSUCCESSFUL;
    }
    MutexScope change(hotkeys.DefinitionMutex);
    USHORT usIndex;
    if (FindKeyDefinition(device, pDefinition, &usIndex) != nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = StoreCopy(device, hotkeys, pDefinition);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    AddKeyDefType(hotkeys, pDefinition->ulType);
    if (pDefinition->ulType == 1) {
        status = AddLastHotkey(device);
    } else if (pDefinition->ulType >= 4 && pDefinition->ulType <= 8) {
        ForgetOldOPOSPacket(FieldsOf<BufferFields>(device));
    }
    TraceHotkeyLists();
    return status;
}

// Removes the first definition with this id. When the last one of discard mode goes, held reports are replayed.
// IRQL = PASSIVE. Lock: takes DefinitionMutex, KeyDefLock. Fails: unknown id.
NTSTATUS RemoveKeyDefinition(PDEVICE_OBJECT device, ULONG ulId)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    bool bWasDiscarding;
    KeyDefinition* pDefinition;
    {
        MutexScope change(hotkeys.DefinitionMutex);
        bWasDiscarding = (ReadShared(hotkeys.ulKeyDefTypes) & KEYDEF_DISCARD) != 0;
        pDefinition = TakeOut(device, ulId);
        if (pDefinition != nullptr) {
            RecomputeKeyDefTypes(hotkeys);
            if (pDefinition->ulType == 1) {
                hotkeys.ulHotkeyDefinitions--;
                (void)BuildHotkeyList(device); // the removal is done whatever became of the other hotkeys
            } else {
                RenewSwallow(device, ulId);
            }
        }
    }
    if (bWasDiscarding && (ReadShared(hotkeys.ulKeyDefTypes) & KEYDEF_DISCARD) == 0) {
        ReplayDiscardedReports(device);
    }
    TraceHotkeyLists();
    if (pDefinition == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    ExFreePoolWithTag(pDefinition, POOL_TAG);
    return STATUS_SUCCESS;
}

// Empties one keyboard's list.
// IRQL = PASSIVE. Lock: takes DefinitionMutex, KeyDefLock. Fails: never.
void FreeKeyDefinitions(PDEVICE_OBJECT device)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(device);
    MutexScope change(hotkeys.DefinitionMutex);
    {
        LockScope lock(hotkeys.KeyDefLock);
        for (KeyDefinition*& pDefinition : hotkeys.KeyDefinitions) {
            if (pDefinition != nullptr) {
                ExFreePoolWithTag(pDefinition, POOL_TAG);
                pDefinition = nullptr;
            }
        }
        hotkeys.usDefinitions = 0;
    }
    hotkeys.ulHotkeyDefinitions = 0;
    RecomputeKeyDefTypes(hotkeys);
    DropHotkeys(hotkeys);
    TraceHotkeyLists();
}

// The application has closed its last handle: what it defined goes, on every keyboard.
// IRQL = PASSIVE. Lock: takes each DefinitionMutex, KeyDefLock.
void FreeAllKeyDefinitions()
{
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        FreeKeyDefinitions(device);
    }
}

NTSTATUS AddKeyDefinitionByIndex(ULONG ulDeviceIndex, const KeyDefinition* pDefinition)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    return keyboard.IsHeld() ? AddKeyDefinition(keyboard.Device(), pDefinition) : keyboard.Status();
}

NTSTATUS RemoveKeyDefinitionByIndex(ULONG ulDeviceIndex, ULONG ulId)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    return keyboard.IsHeld() ? RemoveKeyDefinition(keyboard.Device(), ulId) : keyboard.Status();
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeDefinitions(DeviceContext* pContext)
{
    HotkeyFields& hotkeys = FieldsOf<HotkeyFields>(pContext);
    KeInitializeSpinLock(&hotkeys.KeyDefLock.Lock);
    KeInitializeMutex(&hotkeys.DefinitionMutex.Object, 0);
}
