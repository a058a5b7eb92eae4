// keyboards.h - finds the keyboards in a capture and makes the script of each.
//
// A keyboard is a device's interface whose interrupt-IN endpoint delivers reports. Several interfaces of one
// device are several keyboards, as they are for the system: each is shown a configuration of its own.
#pragma once

#include "script.h"

#include <string>

// Fails (InputError): no interface in the capture delivers a report.
Script ScriptOfCapture(const std::string& file, const std::vector<Packet>& packets);
