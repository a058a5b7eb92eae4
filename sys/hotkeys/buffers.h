// buffers.h - keys held back and given, whole reports to insert: what the next reads wait for.
#pragma once

#include "control/requests.h"
#include "ground/ground.h"

// keybuffers.cpp: SwallowBuf and InsertBuf. IRQL <= DISPATCH. Lock: takes BufferLock.
void InitializeKeyBuffers(DeviceContext* pContext); // at add-device
ULONG RemoveKeyFromBuffer(PUCHAR pBuf, ULONG ulLen, ULONG ulIndex);
ULONG SwallowScan(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, ULONG ulIndex);
bool GetDataFromSwallowBuffer(PDEVICE_OBJECT device, PUCHAR pOut);
void DiscardSwallowBuffer(PDEVICE_OBJECT device);
bool AddDataToInsertBuffer(PDEVICE_OBJECT device, const UCHAR* pUsage);
bool GetDataFromInsertBuffer(PDEVICE_OBJECT device, PUCHAR pOut);

// insertscans.cpp: IRQL = PASSIVE; pRequest: wait u32, count u16, scan bytes.
void InitializeInsertScans(DeviceContext* pContext); // at add-device
void WakeInsertScans(DeviceContext* pContext);       // at removal: who waits sees it and returns
NTSTATUS InsertScans(ULONG ulDeviceIndex, PUCHAR pRequest);

// fifo.cpp: IRQL <= DISPATCH; InsertUSBPackets = PASSIVE; pRequest: count u16, unused u16, entries.
void InitializeFifo(DeviceContext* pContext);       // at add-device
void WakeInsertUSBPackets(DeviceContext* pContext); // at removal: likewise
NTSTATUS InsertUSBPacketFifin(PDEVICE_OBJECT device, const FifoEntry* pEntry);
NTSTATUS GetUSBPacketFifo(ULONG ulDeviceIndex, FifoEntry* pEntry);
NTSTATUS GetFifoCount(ULONG ulDeviceIndex, PULONG pulCount);
NTSTATUS InsertUSBPackets(ULONG ulDeviceIndex, const UCHAR* pRequest);
NTSTATUS TakeFifoReport(PDEVICE_OBJECT device, PUCHAR pBuf, ULONG ulLen, const char* pszEntryTitle,
                        const char* pszBufferTitle);
