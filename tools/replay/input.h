// input.h - reads an input of either kind: a USB capture or a HID recording.
#pragma once

#include "script.h"

#include <string>

// The content tells what it is; it may be compressed or come through a pipe ("-": standard input). Text of a
// umockdev recording stands for the capture beside it.
// Fails (InputError): unreadable, neither of the two, or broken.
Script ReadInput(const std::string& file, const ScriptChoice& choice = {});
