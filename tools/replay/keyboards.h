// keyboards.h - finds the keyboards in a capture and makes the script of each.
//
// A keyboard is a device's interface whose interrupt-IN endpoint delivers reports. Several interfaces of one
// device are several keyboards, as they are for the system: each is shown a configuration of its own.
#pragma once

#include "inputfile.h"
#include "script.h"

#include <string>

// Reads the capture once; the script reads it again when it is played.
// Fails (InputError): no interface in the capture delivers a report, or a broken file.
Script ScriptOfCapture(SharedInput pInput, const ScriptChoice& choice = {});
