// fields.h - the report engine's fields of the shared records.
#pragma once

#include "ground/frame.h"
#include "hotkeys/fields.h"

struct ReportFields {
    static constexpr ULONG Place = HotkeyFields::Place + sizeof(HotkeyFields);

    UCHAR ucRunDiagNormalPacket02; // (i)
    UCHAR ucOldPacket[8];          // (r) the previous standard report as sent
    UCHAR ucOldPowerPacket[2];     // (r)
};

struct ReportSettings { // constant after driver entry
    ULONG ulRunDiagNormalPacket02;
};

extern ReportSettings& SettingsOfReports;
