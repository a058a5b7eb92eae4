// positions.cpp - where the keys stand in a report of 8, 3 or any other number of bytes.
#include "report/keys.h"

ULONG FirstKeyPosition(ULONG ulLen)
{
    return ulLen == 8 ? 2 : ulLen == 3 ? 1 : 0;
}

// Whether the usage stands at any key position; 0 bytes do not end the walk.
bool IsKeyInPacket(UCHAR ucUsage, const UCHAR* pBuf, ULONG ulLen)
{
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen; i++) {
        if (pBuf[i] == ucUsage) {
            return true;
        }
    }
    return false;
}
