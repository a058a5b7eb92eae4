// input.h - reads an input of either kind: a USB capture or a HID recording.
#pragma once

#include "script.h"

#include <string>

// The file's content tells what it is. Fails (InputError): unreadable, neither of the two, or broken.
Script ReadInput(const std::string& file);
