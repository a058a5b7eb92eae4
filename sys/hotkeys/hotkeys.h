// hotkeys.h - key definitions and hotkey matching.
#pragma once

#include "ground/ground.h"
#include "hotkeys/buffers.h"
#include "hotkeys/pass.h"

// definitions.cpp: what the application defined. IRQL = PASSIVE. Lock: DefinitionMutex, then KeyDefLock.
void InitializeDefinitions(DeviceContext* pContext); // at add-device
NTSTATUS AddKeyDefinition(PDEVICE_OBJECT device, const KeyDefinition* pDefinition);
NTSTATUS AddKeyDefinitionByIndex(ULONG ulDeviceIndex, const KeyDefinition* pDefinition);
NTSTATUS RemoveKeyDefinition(PDEVICE_OBJECT device, ULONG ulId);
NTSTATUS RemoveKeyDefinitionByIndex(ULONG ulDeviceIndex, ULONG ulId);
void FreeKeyDefinitions(PDEVICE_OBJECT device);
void FreeAllKeyDefinitions();

// definitionlookup.cpp: IRQL <= DISPATCH. The pointers stay valid only under KeyDefLock or DefinitionMutex.
KeyDefinition* FindKeyDefinitionById(PDEVICE_OBJECT device, ULONG ulId, PUSHORT pusIndex);
KeyDefinition* FindKeyDefinitionByType(PDEVICE_OBJECT device, ULONG ulType, PUSHORT pusIndex);
KeyDefinition* FindKeyDefinition(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, PUSHORT pusIndex);
void AppendDefinition(HotkeyFields& hotkeys, KeyDefinition* pDefinition)
    REQUIRES_LOCK(hotkeys.KeyDefLock); // into the first free slot; the caller has seen that there is one
bool GetDefinitionOfType(PDEVICE_OBJECT device, ULONG ulType, KeyDefinition* pCopy); // copies, false: none

// hotkeylist.cpp: the hotkeys made from the definitions. IRQL = PASSIVE. Lock: the caller holds DefinitionMutex.
void InitializeHotkeys(DeviceContext* pContext);                                      // at add-device
NTSTATUS ReserveHotkey(HotkeyFields& hotkeys) REQUIRES_LOCK(hotkeys.DefinitionMutex); // room for one more
NTSTATUS AddLastHotkey(PDEVICE_OBJECT device);
NTSTATUS BuildHotkeyList(PDEVICE_OBJECT device);
void RenewSwallow(PDEVICE_OBJECT device, ULONG ulId);
void DropHotkeys(HotkeyFields& hotkeys) REQUIRES_LOCK(hotkeys.DefinitionMutex);
void TraceHotkeyLists(); // after each change, without the mutex

// convert.cpp
NTSTATUS NextScanCode(const KeyDefinition* pDefinition, PULONG pulIndex, PULONG pulScanCode); // any IRQL
NTSTATUS ConvertPS2ToHID(PDEVICE_OBJECT device, const KeyDefinition* pDefinition, HotkeyEntry* pEntry);

// matching.cpp: the hotkey pass, once a key of a report. IRQL <= DISPATCH.
NTSTATUS ProcessHotkeyScan(HotkeyPass& pass, UCHAR ucUsage, USHORT usReleased, PUCHAR pBuf, PULONG pIndex,
                           PULONG pLen, PUCHAR pHotkeyReleased);
bool UpdateHotkeyListByScan(HotkeyPass& pass, UCHAR ucUsage, USHORT usReleased);

// truematch.cpp
void SendHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, ULONG ulValue, ULONG ulEscAbort);
UCHAR FindTrueMatch(HotkeyPass& pass, PUCHAR pNoPartial, PUCHAR pSwallow, PUCHAR pHotkeyReleased);

// typematic.cpp: the repeat timers
void InitializeTypematic(PDEVICE_OBJECT device, DeviceContext* pContext); // at add-device
KDEFERRED_ROUTINE TypematicDelayCallback;
KDEFERRED_ROUTINE TypematicRepeatCallback;
void StartTypematic(HotkeyFields& hotkeys);    // arms TypematicDelayTimer
void CancelTypematicOf(HotkeyFields& hotkeys); // this keyboard's two timers
void CancelTypematicTimers();                  // of every keyboard
void StopTypematic(PDEVICE_OBJECT device);     // at removal
