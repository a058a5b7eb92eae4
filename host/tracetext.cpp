// tracetext.cpp - an event as one line of text, from nothing but what it says of itself.
//
//   provider's traits   u16 length, name with NUL, …
//   event's metadata    u16 length, tag bytes (the top bit says that another follows), name with NUL,
//                       fields: name with NUL, type byte; with its top bit an output type follows
//   data                the fields' values, one behind the other
//
// Addresses are told by numbers, so that equal runs print equal lines.
#include "trace.h"

#include <cstdio>

namespace
{
enum : UCHAR {
    IN_ANSI = 2,
    IN_UINT8 = 4,
    IN_UINT16 = 6,
    IN_UINT32 = 8,
    IN_UINT64 = 10,
    IN_BINARY = 14,
    IN_HEX32 = 20,
    IN_HEX64 = 21,
    IN_COUNTED_WIDE = 22,
    CHAINED = 0x80,
    OUT_HEX = 4,
    OUT_NTSTATUS = 14,
};

// Bytes that are read from the front; what lies behind their end reads as zero, and bCut tells.
struct Reader {
    const std::vector<UCHAR>& Bytes;
    size_t at = 0;
    bool bCut = false;

    ULONGLONG Number(size_t bytes)
    {
        ULONGLONG ullValue = 0;
        for (size_t i = 0; i < bytes; i++) {
            bCut = bCut || at >= Bytes.size();
            ullValue |= static_cast<ULONGLONG>(bCut ? 0 : Bytes[at++]) << (8 * i);
        }
        return ullValue;
    }
    std::string Text()
    {
        std::string text;
        while (UCHAR uc = static_cast<UCHAR>(Number(1))) {
            text.push_back(static_cast<char>(uc));
        }
        return text;
    }
};

std::string Formatted(const char* pFormat, ULONGLONG ullValue)
{
    char text[40];
    snprintf(text, sizeof(text), pFormat, ullValue);
    return text;
}

std::string Binary(Reader& data)
{
    std::string text;
    for (ULONGLONG ullLeft = data.Number(2); ullLeft > 0 && !data.bCut; ullLeft--) {
        text += Formatted(text.empty() ? "%02llx" : " %02llx", data.Number(1));
    }
    return "[" + text + "]";
}

std::string Wide(Reader& data)
{
    HostText text;
    for (ULONGLONG ullLeft = data.Number(2) / 2; ullLeft > 0 && !data.bCut; ullLeft--) {
        text.push_back(static_cast<char16_t>(data.Number(2)));
    }
    return "\"" + HostUtf8(text) + "\"";
}

size_t WidthOf(UCHAR ucIn)
{
    switch (ucIn) {
    case IN_UINT8:
        return 1;
    case IN_UINT16:
        return 2;
    case IN_UINT32:
    case IN_HEX32:
        return 4;
    case IN_UINT64:
    case IN_HEX64:
        return 8;
    default:
        return 0;
    }
}

// Empty: a type that the host does not know, so that what follows cannot be read either.
std::string Value(Reader& data, UCHAR ucIn, UCHAR ucOut, const std::function<unsigned(ULONGLONG)>& numberOf)
{
    switch (ucIn) {
    case IN_ANSI:
        return "\"" + data.Text() + "\"";
    case IN_BINARY:
        return Binary(data);
    case IN_COUNTED_WIDE:
        return Wide(data);
    case IN_HEX64:
        return Formatted("#%llu", numberOf(data.Number(8)));
    default:
        break;
    }
    size_t width = WidthOf(ucIn);
    bool bHex = ucIn == IN_HEX32 || ucOut == OUT_HEX || ucOut == OUT_NTSTATUS;
    return width == 0 ? "" : Formatted(bHex ? "0x%llx" : "%llu", data.Number(width));
}
} // namespace

// What the provider and the event are called, the level, and each field with its value.
std::string HostTraceText(const HostTraceEvent& event, const std::function<unsigned(ULONGLONG)>& numberOf)
{
    Reader traits{event.Traits}, fields{event.Metadata}, data{event.Data};
    traits.Number(2);
    fields.Number(2);
    while (fields.Number(1) & CHAINED) {
    }
    std::string text = traits.Text();
    text += " " + std::to_string(event.Descriptor.Level) + " " + fields.Text();
    while (fields.at < event.Metadata.size()) {
        std::string name = fields.Text();
        UCHAR ucIn = static_cast<UCHAR>(fields.Number(1));
        UCHAR ucOut = ucIn & CHAINED ? static_cast<UCHAR>(fields.Number(1)) : 0;
        std::string value = Value(data, ucIn & ~CHAINED, ucOut, numberOf);
        if (value.empty()) {
            return text + " " + name + "=?";
        }
        text += " " + name + "=" + value;
    }
    return data.bCut || fields.bCut || traits.bCut ? text + " (cut)" : text;
}
