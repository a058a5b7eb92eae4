// tracetext.cpp - an event's fields, and the event as one line of text, from nothing but what it says of itself.
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

std::string Binary(Reader& data, std::vector<UCHAR>& bytes)
{
    std::string text;
    for (ULONGLONG ullLeft = data.Number(2); ullLeft > 0 && !data.bCut; ullLeft--) {
        bytes.push_back(static_cast<UCHAR>(data.Number(1)));
        text += Formatted(text.empty() ? "%02llx" : " %02llx", bytes.back());
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

// The field's value, read behind the others. Its text stays empty for a type that the host does not know, so that what
// follows cannot be read either.
void ReadValue(Reader& data, UCHAR ucIn, UCHAR ucOut, const std::function<unsigned(ULONGLONG)>& numberOf,
               HostTraceField& field)
{
    switch (ucIn) {
    case IN_ANSI: {
        const std::string text = data.Text();
        field.Bytes.assign(text.begin(), text.end());
        field.Text = "\"" + text + "\"";
        return;
    }
    case IN_BINARY:
        field.Text = Binary(data, field.Bytes);
        return;
    case IN_COUNTED_WIDE:
        field.Text = Wide(data);
        return;
    case IN_HEX64:
        field.ullNumber = numberOf(data.Number(8));
        field.Text = Formatted("#%llu", field.ullNumber);
        return;
    default:
        break;
    }
    const size_t width = WidthOf(ucIn);
    if (width == 0) {
        return;
    }
    const bool bHex = ucIn == IN_HEX32 || ucOut == OUT_HEX || ucOut == OUT_NTSTATUS;
    field.ullNumber = data.Number(width);
    field.Text = Formatted(bHex ? "0x%llx" : "%llu", field.ullNumber);
}
} // namespace

HostTraceContent HostReadTrace(const HostTraceEvent& event,
                               const std::function<unsigned(ULONGLONG)>& numberOf)
{
    Reader traits{event.Traits}, fields{event.Metadata}, data{event.Data};
    HostTraceContent content;
    traits.Number(2);
    fields.Number(2);
    while (fields.Number(1) & CHAINED) {
    }
    content.Provider = traits.Text();
    content.Name = fields.Text();
    while (fields.at < event.Metadata.size()) {
        HostTraceField field;
        field.Name = fields.Text();
        const UCHAR ucIn = static_cast<UCHAR>(fields.Number(1));
        const UCHAR ucOut = ucIn & CHAINED ? static_cast<UCHAR>(fields.Number(1)) : 0;
        ReadValue(data, ucIn & ~CHAINED, ucOut, numberOf, field);
        content.Fields.push_back(field);
        if (field.Text.empty()) {
            return content;
        }
    }
    content.bCut = data.bCut || fields.bCut || traits.bCut;
    return content;
}

// What the provider and the event are called, the level, and each field with its value.
std::string HostTraceText(const HostTraceEvent& event, const std::function<unsigned(ULONGLONG)>& numberOf)
{
    const HostTraceContent content = HostReadTrace(event, numberOf);
    std::string text = content.Provider + " " + std::to_string(event.Descriptor.Level) + " " + content.Name;
    for (const HostTraceField& field : content.Fields) {
        text += " " + field.Name + "=" + (field.Text.empty() ? "?" : field.Text);
    }
    return content.bCut ? text + " (cut)" : text;
}
