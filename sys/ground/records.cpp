// records.cpp - the two driver-wide records. Driver entry gives them their initial state.
#include "driver/context.h"

DriverSettings Settings;
DriverGlobals Globals;
