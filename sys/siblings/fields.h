// fields.h - what is known of the family's other drivers, in the driver-wide records.
#pragma once

#include "ground/frame.h"

struct SiblingGlobals {
    USHORT usTypematicRate;  // (x) index into TypematicPeriodTable
    USHORT usTypematicDelay; // (x) index into TypematicDelayTable

    // Arrivals minus removals of each class.
    SpinLock SiblingLock;
    UCHAR ucPs2KeyboardArrivals GUARDED_BY(SiblingLock);
    UCHAR ucPs2MouseArrivals;                          // (x) written under SiblingLock; 0: none is connected
    UCHAR ucUsbMouseArrivals;                          // (x) likewise
    ULONG ulArrivalGeneration GUARDED_BY(SiblingLock); // whose callbacks count
    KEVENT SiblingRequestsEnd; // notification: whoever waits for another driver's answer gives up
};

extern SiblingGlobals& GlobalSiblings;
