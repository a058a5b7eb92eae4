// parkedfields.h - reads that wait for the pacing timer, in the shared records.
#pragma once

#include "ground/frame.h"

enum { PARKED_REQUEST_SIZE = 200 };

struct ParkedFields {
    static const ULONG Place;

    TimerWithDpc KorvexDelay; // KorvexDelayTimer and its deferred call
    SpinLock ParkLock;
    ULONG ulParkedCount GUARDED_BY(ParkLock);
    PIRP ParkedRequests[PARKED_REQUEST_SIZE] GUARDED_BY(ParkLock); // oldest first
    PIRP pFirstParked;                                             // (x) = ParkedRequests[0]
    UCHAR ucKorvexDelayArmed GUARDED_BY(ParkLock);                 // this keyboard's timer is armed
};

struct PaceGlobals {
    UCHAR ucKorvexTimerRunning; // (x)
};

struct PaceSettings {
    ULONG ulKorvexDelay; // (x) milliseconds, 0 = no pacing
};

extern PaceGlobals& GlobalPace;
extern PaceSettings& SettingsOfPace;
