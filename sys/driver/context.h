// context.h - the shared records of the driver, each the sum of what its rooms declare, and nothing else.
//
//   DeviceContext    the extension of each filter device, one a keyboard
//   DriverSettings   what the registry says, read at driver entry
//   DriverGlobals    the driver-wide run-time state
//
// How a room finds its own fields, and who may touch one, is told in ground/frame.h.
#pragma once

#include "control/fields.h"
#include "driver/fields.h"
#include "ground/controlcontext.h"
#include "ground/frame.h"
#include "hotkeys/bufferfields.h"
#include "hotkeys/fields.h"
#include "log/fields.h"
#include "macro/fields.h"
#include "macro/parkedfields.h"
#include "report/fields.h"
#include "siblings/fields.h"
#include "usb/ledfields.h"
#include "usb/pendingfields.h"
#include "usb/roadfields.h"

struct DeviceContext : FrameFields,
                       BufferFields,
                       HotkeyFields,
                       ReportFields,
                       RoadFields,
                       PendingFields,
                       LedFields,
                       ParkedFields,
                       MacroFields,
                       NotifyFields,
                       RoofFields {
};

// Constant after driver entry, but for the macro settings, which are (x).
struct DriverSettings : HotkeySettings, ReportSettings, LogSettings, MacroSettings, PaceSettings {
};

struct DriverGlobals : FrameGlobals,
                       HotkeyGlobals,
                       PaceGlobals,
                       MacroGlobals,
                       RoadGlobals,
                       EventGlobals,
                       LogGlobals,
                       SiblingGlobals,
                       RoofGlobals {
};

extern DriverSettings Settings;
extern DriverGlobals Globals;
