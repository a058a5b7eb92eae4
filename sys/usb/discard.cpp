// discard.cpp - what discard mode holds back for the time after: modifier changes and lock keys.
//
// A ring of 128 under DiscardLock; reads on their way down take the oldest entry once discard mode is off.
#include "usb/pending.h"

// Appends one held-back value.
// IRQL <= DISPATCH. Lock: takes DiscardLock. Owns: copies the value. Fails: 128 held.
NTSTATUS AddDiscardedPacket(PDEVICE_OBJECT device, const UCHAR* pValue, UCHAR ucIsModifier)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->DiscardLock);
    if (pContext->ulDiscardCount >= DISCARD_RING_SIZE) {
        return STATUS_UNSUCCESSFUL;
    }
    pContext->DiscardRing[pContext->ulDiscardWrite] = {*pValue, ucIsModifier};
    pContext->ulDiscardWrite = (pContext->ulDiscardWrite + 1) % DISCARD_RING_SIZE;
    WriteShared(pContext->ulDiscardCount, pContext->ulDiscardCount + 1);
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH. Lock: takes DiscardLock. Fails: unknown index.
NTSTATUS GetDiscardedPacketCount(ULONG ulDeviceIndex, PULONG pulCount)
{
    PDEVICE_OBJECT device;
    NTSTATUS status = FindDeviceByIndex(ulDeviceIndex, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DeviceContext* pContext = FilterContextOf(device);
    {
        LockScope lock(pContext->DiscardLock);
        *pulCount = pContext->ulDiscardCount;
    }
    ReleaseDevice(device);
    return STATUS_SUCCESS;
}

// Takes the oldest value out.
// IRQL <= DISPATCH. Lock: takes DiscardLock. Fails: empty; *pEntry untouched.
NTSTATUS TakeDiscardedPacket(DeviceContext* pContext, DiscardEntry* pEntry)
{
    LockScope lock(pContext->DiscardLock);
    if (pContext->ulDiscardCount == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    *pEntry = pContext->DiscardRing[pContext->ulDiscardRead];
    pContext->ulDiscardRead = (pContext->ulDiscardRead + 1) % DISCARD_RING_SIZE;
    WriteShared(pContext->ulDiscardCount, pContext->ulDiscardCount - 1);
    return STATUS_SUCCESS;
}

// The same for who knows the keyboard's index.
// IRQL <= DISPATCH. Lock: takes DiscardLock. Fails: unknown index, empty; *pEntry untouched.
NTSTATUS GetDiscardedPacket(ULONG ulDeviceIndex, DiscardEntry* pEntry)
{
    PDEVICE_OBJECT device;
    NTSTATUS status = FindDeviceByIndex(ulDeviceIndex, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = TakeDiscardedPacket(FilterContextOf(device), pEntry);
    ReleaseDevice(device);
    return status;
}
