// scans.cpp - the definition's keys as the driver's own routine cuts them.
#include "check.h"

#include "hotkeys/hotkeys.h"

bool SplitScans(const KeyDefinition& definition, std::vector<uint32_t>& codes)
{
    for (ULONG i = 0; i < definition.usScanCount; ++i) {
        ULONG ulCode;
        if (!NT_SUCCESS(NextScanCode(&definition, &i, &ulCode)))
            return false;
        codes.push_back(ulCode);
    }
    return true;
}
