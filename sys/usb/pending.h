// pending.h - reads that lie at the keyboard, and what discard mode held back for them.
#pragma once

#include "ground/ground.h"

struct DiscardEntry;

// pendingreads.cpp: IRQL <= DISPATCH. Lock: takes PendingIrpLock.
void InitializePendingReads(DeviceContext* pContext); // at add-device
NTSTATUS AddPendingIrp(PDEVICE_OBJECT device, PIRP Irp);
bool RemovePendingIrp(PDEVICE_OBJECT device, PIRP Irp); // true: the canceller completes it
bool CancelPendingRead(PDEVICE_OBJECT device);          // false: none was pending

// discard.cpp: IRQL <= DISPATCH. Lock: takes DiscardLock.
void InitializeDiscard(DeviceContext* pContext); // at add-device
NTSTATUS AddDiscardedPacket(PDEVICE_OBJECT device, const UCHAR* pValue, UCHAR ucIsModifier);
NTSTATUS TakeDiscardedPacket(DeviceContext* pContext, DiscardEntry* pEntry);
NTSTATUS GetDiscardedPacketCount(ULONG ulDeviceIndex, PULONG pulCount);
NTSTATUS GetDiscardedPacket(ULONG ulDeviceIndex, DiscardEntry* pEntry);
