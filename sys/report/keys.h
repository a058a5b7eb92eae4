// keys.h - the keys: the table and its look-ups (keytable.h), usages with a meaning, where keys stand in a report.
#pragma once

#include "report/keytable.h"

enum : UCHAR {
    USAGE_ROLLOVER = 0x01, // too many keys
    USAGE_ESCAPE = 0x29,
    USAGE_CAPS_LOCK = 0x39,
    USAGE_SCROLL_LOCK = 0x47,
    USAGE_NUM_LOCK = 0x53,
    USAGE_CONTEXT_KEY = 0x65,
    USAGE_FN = 0xA5,
    USAGE_VOLUME_UP = 0xE9,
    USAGE_VOLUME_DOWN = 0xEA,
};

// positions.cpp: IRQL any
ULONG FirstKeyPosition(ULONG ulLen); // 2 for length 8, 1 for length 3, else 0
bool IsKeyInPacket(UCHAR ucUsage, const UCHAR* pBuf, ULONG ulLen);
