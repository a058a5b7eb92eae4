// recording.h - reads a HID recording, the text that hid-recorder writes.
//
//   D: 0                        which device the following lines tell of
//   R: 63 05 01 09 06 ...       its report descriptor
//   N: name    P: phys    I: bus vendor product (hexadecimal)
//   E: 000003.127420 8 01 00 3a 00 00 00 00 00      a report at seconds.microseconds
//
// Lines with another prefix and lines that begin with '#' are passed over.
#pragma once

#include "inputfile.h"
#include "script.h"

#include <string>

// Reads the recording once; the script reads it again when it is played. Memory does not grow with it.
// Fails (InputError): a line that cannot be read, no report in the whole recording, or no recording at all.
Script ScriptOfRecording(const SharedInput& pInput, const ScriptChoice& choice = {});
