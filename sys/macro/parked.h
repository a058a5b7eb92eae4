// parked.h - reads that wait for the next report of a macro.
#pragma once

#include "ground/ground.h"

// parked.cpp: reads that wait for the pacing timer. IRQL <= DISPATCH. Lock: takes ParkLock.
void InitializeParkedReads(DeviceContext* pContext); // at add-device
NTSTATUS ParkReadRequest(PDEVICE_OBJECT device, PIRP request);
NTSTATUS UnparkReadRequest(PDEVICE_OBJECT device, PIRP request);
NTSTATUS GetFirstParkedRequest(PDEVICE_OBJECT device, PIRP* pRequest); // taken out; null: none
void CompleteParkedRequest(PDEVICE_OBJECT device, PIRP request, NTSTATUS status);
void CompleteParkedReads(PDEVICE_OBJECT device); // at removal
void StartKorvexDelay(PDEVICE_OBJECT device);    // arms KorvexDelayTimer
void EndKorvexDelay(PDEVICE_OBJECT device);      // it has expired
void StopKorvexDelay(PDEVICE_OBJECT device);     // at removal
bool IsKorvexDelayArmed(PDEVICE_OBJECT device);
