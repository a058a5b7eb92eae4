// keybuffers.cpp - keys held back (SwallowBuf) and keys waiting to be placed (InsertBuf).
//
//   report ──SwallowScan──► SwallowBuf ──pop──► InsertBuf ──pop──► a later report
//
// Both stay packed from index 0, oldest first; bytes from the count on are 0. The completion of one read and
// the dispatch of another touch them on two processors, so BufferLock guards every change. A dump under it
// takes the log's leaf lock.
#include "hotkeys/buffers.h"

#include "log/events.h"
#include "log/log.h"

namespace
{
// Appends a byte. Returns false when the buffer is full. Lock: the caller holds BufferLock.
bool Push(PUCHAR pBuffer, PUSHORT pusCount, UCHAR ucValue)
{
    USHORT usCount = ReadShared(*pusCount);
    if (usCount >= KEY_BUFFER_SIZE) {
        return false;
    }
    pBuffer[usCount] = ucValue;
    WriteShared(*pusCount, usCount + 1);
    return true;
}

// Takes the oldest byte. Returns false when the buffer is empty. Lock: the caller holds BufferLock.
bool Pop(PUCHAR pBuffer, PUSHORT pusCount, PUCHAR pOut)
{
    USHORT usCount = ReadShared(*pusCount);
    if (usCount == 0) {
        return false;
    }
    *pOut = pBuffer[0];
    RtlMoveMemory(pBuffer, pBuffer + 1, usCount - 1);
    pBuffer[usCount - 1] = 0;
    WriteShared(*pusCount, usCount - 1);
    return true;
}
} // namespace

// Takes the byte at ulIndex out of a report: later bytes move down, the last becomes 0. Returns the new
// length, or the old one when the index lies outside.
// IRQL <= DISPATCH. Fails: never.
ULONG RemoveKeyFromBuffer(PUCHAR pBuf, ULONG ulLen, ULONG ulIndex)
{
    LogHexDump("(RemoveKeyFromBuffer) pBuf: ", ulLen, pBuf);
    if (ulIndex >= ulLen) {
        return ulLen;
    }
    RtlMoveMemory(pBuf + ulIndex, pBuf + ulIndex + 1, ulLen - ulIndex - 1);
    pBuf[ulLen - 1] = 0;
    LogHexDump("(RemoveKeyFromBuffer) pBuf: ", ulLen, pBuf);
    return ulLen - 1;
}

// Moves a key from the report to the end of SwallowBuf. Returns the report's new length; the old one when
// the buffer is full and the key stays.
// IRQL <= DISPATCH. Lock: takes BufferLock. Fails: buffer full.
ULONG SwallowScan(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulIndex)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (ulIndex >= ulLen) {
        return ulLen;
    }
    {
        LockScope lock(pContext->BufferLock);
        if (!Push(pContext->SwallowBuf, &pContext->usSwallowCount, pBuf[ulIndex])) {
            Trace(SwallowBufferFull, pContext->ulDeviceIndex, pBuf[ulIndex]);
            return ulLen;
        }
    }
    Trace(KeyHeldBack, pContext->ulDeviceIndex, pBuf[ulIndex]);
    ULONG ulNewLen = RemoveKeyFromBuffer(pBuf, ulLen, ulIndex);
    if (IsLogOn(LOG_TRAFFIC)) {
        LockScope lock(pContext->BufferLock);
        LogHexDump("(SwallowScan) leaving, SwallowBuf: ", pContext->usSwallowCount, pContext->SwallowBuf);
    }
    return ulNewLen;
}

bool GetDataFromSwallowBuffer(PDEVICE_OBJECT device, PUCHAR pOut)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (ReadShared(pContext->usSwallowCount) == 0) {
        return false;
    }
    LockScope lock(pContext->BufferLock);
    return Pop(pContext->SwallowBuf, &pContext->usSwallowCount, pOut);
}

// The keys of a complete hotkey that shall not reach the system are forgotten.
void DiscardSwallowBuffer(PDEVICE_OBJECT device)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (ReadShared(pContext->usSwallowCount) == 0) {
        return;
    }
    LockScope lock(pContext->BufferLock);
    Trace(KeysTaken, pContext->ulDeviceIndex, {pContext->SwallowBuf, pContext->usSwallowCount}, "a hotkey");
    RtlZeroMemory(pContext->SwallowBuf, pContext->usSwallowCount); // behind them all is 0
    WriteShared(pContext->usSwallowCount, 0);
}

bool AddDataToInsertBuffer(PDEVICE_OBJECT device, const UCHAR* pUsage)
{
    DeviceContext* pContext = FilterContextOf(device);
    LockScope lock(pContext->BufferLock);
    if (!Push(pContext->InsertBuf, &pContext->usInsertCount, *pUsage)) {
        Trace(InsertBufferFull, pContext->ulDeviceIndex, *pUsage);
        return false;
    }
    Trace(KeyGiven, pContext->ulDeviceIndex, *pUsage);
    LogHexDump("(AddDataToInsertBuffer) leaving. InsertBuf: ", pContext->usInsertCount, pContext->InsertBuf);
    return true;
}

bool GetDataFromInsertBuffer(PDEVICE_OBJECT device, PUCHAR pOut)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (ReadShared(pContext->usInsertCount) == 0) {
        return false;
    }
    LockScope lock(pContext->BufferLock);
    return Pop(pContext->InsertBuf, &pContext->usInsertCount, pOut);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeKeyBuffers(DeviceContext* pContext)
{
    KeInitializeSpinLock(&pContext->BufferLock.Lock);
}
