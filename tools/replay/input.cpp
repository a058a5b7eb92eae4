// input.cpp - tells captures and recordings apart and reads the input as what it is.
#include "input.h"
#include "capture.h"
#include "keyboards.h"
#include "recording.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

#include <fmt/format.h>

Script ReadInput(const std::string& file)
{
    Bytes content = ReadWholeFile(file);
    if (LooksLikeCapture(content))
        return ScriptOfCapture(file, ReadCapture(file));
    if (LooksLikeRecording(content))
        return ScriptOfRecording(file, content);
    throw InputError(
        fmt::format("{}:1: neither a USB capture (pcap, pcapng) nor a HID recording (hid-recorder)", file));
}
