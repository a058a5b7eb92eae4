// records.cpp - the driver-wide records, and where each room's fields lie in them and in a keyboard's record.
//
// Driver entry gives the driver-wide records their initial state. This file alone of the lower floors knows the sums.
#include "driver/context.h"

#include "ground/compiler.h"

DriverSettings Settings;
DriverGlobals Globals;

FrameGlobals& GlobalFrame = Globals;
HotkeyGlobals& GlobalHotkeys = Globals;
PaceGlobals& GlobalPace = Globals;
MacroGlobals& GlobalMacro = Globals;
RoadGlobals& GlobalRoad = Globals;
EventGlobals& GlobalEvents = Globals;
LogGlobals& GlobalLog = Globals;
SiblingGlobals& GlobalSiblings = Globals;
RoofGlobals& GlobalRoof = Globals;

HotkeySettings& SettingsOfHotkeys = Settings;
ReportSettings& SettingsOfReports = Settings;
LogSettings& SettingsOfLog = Settings;
MacroSettings& SettingsOfMacro = Settings;
PaceSettings& SettingsOfPace = Settings;

// By the first field of each. The places of the first ones follow from their sizes.
#define IS_PLACED(Fields, firstField)                                                                        \
    static_assert(OFFSET_IN_SUM(DeviceContext, firstField) == Fields::Place, "the fields lie in this order")
IS_PLACED(FrameFields, ulDeviceKind);
IS_PLACED(BufferFields, BufferLock);
IS_PLACED(HotkeyFields, ucSendUpEventImmediately);
IS_PLACED(ReportFields, ucRunDiagNormalPacket02);

#define PLACE_OF(Fields, firstField)                                                                         \
    static_assert(OFFSET_IN_SUM(Fields, firstField) == 0, "the first field");                                \
    const ULONG Fields::Place = OFFSET_IN_SUM(DeviceContext, firstField)
PLACE_OF(RoadFields, AnswerLock);
PLACE_OF(PendingFields, PendingIrpLock);
PLACE_OF(LedFields, usLedReport);
PLACE_OF(ParkedFields, KorvexDelay);
PLACE_OF(MacroFields, pKorvexWorkItem);
PLACE_OF(NotifyFields, NotifyLock);
PLACE_OF(RoofFields, ucStarted);
