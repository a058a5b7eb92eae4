// discard.cpp - what discard mode holds back for the time after: modifier changes and lock keys.
//
// A ring of 128 under DiscardLock; reads on their way down take the oldest entry once discard mode is off.
#include "usb/pending.h"

#include "ground/ring.h"
#include "log/events.h"
#include "usb/pendingfields.h"

// Appends one held-back value.
// IRQL <= DISPATCH. Lock: takes DiscardLock. Owns: copies the value. Fails: 128 held.
NTSTATUS AddDiscardedPacket(PDEVICE_OBJECT device, const UCHAR* pValue, UCHAR ucIsModifier)
{
    PendingFields& pending = FieldsOf<PendingFields>(device);
    LockScope lock(pending.DiscardLock);
    if (!AppendToRing(pending.DiscardRing, pending.ulDiscardWrite, pending.ulDiscardCount,
                      {*pValue, ucIsModifier})) {
        Trace(DiscardRingFull, IndexOf(device), *pValue);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes DiscardLock. Fails: unknown index.
NTSTATUS GetDiscardedPacketCount(ULONG ulDeviceIndex, PULONG pulCount)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    PendingFields& pending = FieldsOf<PendingFields>(keyboard.Context());
    LockScope lock(pending.DiscardLock);
    *pulCount = pending.ulDiscardCount;
    return STATUS_SUCCESS;
}

// Takes the oldest value out.
// IRQL <= DISPATCH. Lock: takes DiscardLock. Fails: empty; *pEntry untouched.
NTSTATUS TakeDiscardedPacket(DeviceContext* pContext, DiscardEntry* pEntry)
{
    PendingFields& pending = FieldsOf<PendingFields>(pContext);
    LockScope lock(pending.DiscardLock);
    return ReadFromRing(pending.DiscardRing, pending.ulDiscardRead, pending.ulDiscardCount, pEntry)
               ? STATUS_SUCCESS
               : STATUS_UNSUCCESSFUL;
}

// The same for who knows the keyboard's index.
// IRQL <= DISPATCH. Lock: takes DiscardLock. Fails: unknown index, empty; *pEntry untouched.
NTSTATUS GetDiscardedPacket(ULONG ulDeviceIndex, DiscardEntry* pEntry)
{
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    return TakeDiscardedPacket(keyboard.Context(), pEntry);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeDiscard(DeviceContext* pContext)
{
    PendingFields& pending = FieldsOf<PendingFields>(pContext);
    KeInitializeSpinLock(&pending.DiscardLock.Lock);
}
