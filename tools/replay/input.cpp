// input.cpp - tells captures and recordings apart and reads the input as what it is.
#include "input.h"
#include "capture.h"
#include "failure.h"
#include "keyboards.h"
#include "recording.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

Bytes ReadWholeFile(const std::string& file)
{
    std::unique_ptr<FILE, int (*)(FILE*)> stream(fopen(file.c_str(), "rb"), &fclose);
    Bytes content;
    while (stream && !ferror(stream.get()) && !feof(stream.get())) {
        size_t cBefore = content.size();
        content.resize(cBefore + 65536);
        content.resize(cBefore + fread(&content[cBefore], 1, 65536, stream.get()));
    }
    if (!stream || ferror(stream.get()))
        throw InputError(fmt::format("{}:1: cannot be read: {}", file, strerror(errno)));
    return content;
}

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
