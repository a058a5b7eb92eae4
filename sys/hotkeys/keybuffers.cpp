// keybuffers.cpp - keys held back (SwallowBuf) and keys waiting to be placed (InsertBuf).
//
//   report ──SwallowScan──► SwallowBuf ──pop──► InsertBuf ──pop──► a later report
//
// Both stay packed from index 0, oldest first; bytes from the count on are 0. The completion of one read and
// the dispatch of another touch them on two processors, so BufferLock guards every change. A dump under it
// takes the log's leaf lock.
#include "hotkeys/buffers.h"

#include "hotkeys/bufferfields.h"
#include "log/events.h"
#include "log/log.h"

namespace
{
// Appends a byte to one of the two buffers. Returns false when it is full.
bool Push([[maybe_unused]] const BufferFields& buffers, PUCHAR pBuffer, PUSHORT pusCount, UCHAR ucValue)
    REQUIRES_LOCK(buffers.BufferLock)
{
    USHORT usCount = ReadShared(*pusCount);
    if (usCount >= KEY_BUFFER_SIZE) {
        return false;
    }
    pBuffer[usCount] = ucValue;
    WriteShared(*pusCount, usCount + 1);
    return true;
}

// Takes the oldest byte of one of the two buffers. Returns false when it is empty.
bool Pop([[maybe_unused]] const BufferFields& buffers, PUCHAR pBuffer, PUSHORT pusCount, PUCHAR pOut)
    REQUIRES_LOCK(buffers.BufferLock)
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
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    if (ulIndex >= ulLen) {
        return ulLen;
    }
    {
        LockScope lock(buffers.BufferLock);
        if (!Push(buffers, buffers.SwallowBuf, &buffers.usSwallowCount, pBuf[ulIndex])) {
            Trace(SwallowBufferFull, IndexOf(device), pBuf[ulIndex]);
            return ulLen;
        }
    }
    Trace(KeyHeldBack, IndexOf(device), pBuf[ulIndex]);
    ULONG ulNewLen = RemoveKeyFromBuffer(pBuf, ulLen, ulIndex);
    if (IsLogOn(LOG_TRAFFIC)) {
        LockScope lock(buffers.BufferLock);
        LogHexDump("(SwallowScan) leaving, SwallowBuf: ", buffers.usSwallowCount, buffers.SwallowBuf);
    }
    return ulNewLen;
}

bool GetDataFromSwallowBuffer(PDEVICE_OBJECT device, PUCHAR pOut)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    if (ReadShared(buffers.usSwallowCount) == 0) {
        return false;
    }
    LockScope lock(buffers.BufferLock);
    return Pop(buffers, buffers.SwallowBuf, &buffers.usSwallowCount, pOut);
}

// The keys of a complete hotkey that shall not reach the system are forgotten.
void DiscardSwallowBuffer(PDEVICE_OBJECT device)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    if (ReadShared(buffers.usSwallowCount) == 0) {
        return;
    }
    LockScope lock(buffers.BufferLock);
    Trace(KeysTaken, IndexOf(device), {buffers.SwallowBuf, buffers.usSwallowCount}, "a hotkey");
    RtlZeroMemory(buffers.SwallowBuf, buffers.usSwallowCount); // behind them all is 0
    WriteShared(buffers.usSwallowCount, 0);
}

bool AddDataToInsertBuffer(PDEVICE_OBJECT device, const UCHAR* pUsage)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    LockScope lock(buffers.BufferLock);
    if (!Push(buffers, buffers.InsertBuf, &buffers.usInsertCount, *pUsage)) {
        Trace(InsertBufferFull, IndexOf(device), *pUsage);
        return false;
    }
    Trace(KeyGiven, IndexOf(device), *pUsage);
    LogHexDump("(AddDataToInsertBuffer) leaving. InsertBuf: ", buffers.usInsertCount, buffers.InsertBuf);
    return true;
}

bool GetDataFromInsertBuffer(PDEVICE_OBJECT device, PUCHAR pOut)
{
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    if (ReadShared(buffers.usInsertCount) == 0) {
        return false;
    }
    LockScope lock(buffers.BufferLock);
    return Pop(buffers, buffers.InsertBuf, &buffers.usInsertCount, pOut);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeKeyBuffers(DeviceContext* pContext)
{
    BufferFields& buffers = FieldsOf<BufferFields>(pContext);
    KeInitializeSpinLock(&buffers.BufferLock.Lock);
}
