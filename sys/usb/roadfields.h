// roadfields.h - the road's fields of the shared records: reads answered above the keyboard, what the descriptors say.
#pragma once

#include "ground/frame.h"

struct RoadFields {
    static const ULONG Place;

    SpinLock AnswerLock;                        // reads answered above the keyboard that wait to be completed
    PIRP pFirstAnswered GUARDED_BY(AnswerLock); // oldest first, linked through Tail.Overlay.ListEntry.Flink
    PIRP pLastAnswered GUARDED_BY(AnswerLock);
    UCHAR ucAnswering GUARDED_BY(AnswerLock); // somebody is completing them
    UCHAR ucSendEmptyPacket;                  // (x) the next read releases the inserted keys
    UCHAR ucReservedStatus;                   // (i) 0

    // What the descriptors say.
    UCHAR ucDeviceClass; // (x) each
    UCHAR ucDeviceSubClass;
    UCHAR ucInterfaceClass;
    UCHAR ucInterfaceSubClass;
    UCHAR ucInterfaceProtocol;
    USHORT usVendorID;
    USHORT usProductID;
};

struct RoadGlobals {
    UCHAR ucDiscardLastModifiers; // (x)
};

extern RoadGlobals& GlobalRoad;
