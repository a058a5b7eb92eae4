// trace_decoder.h - a tracing session that reads the driver's events from their bytes alone.
//
// It knows the public layout of self-describing events and nothing of the driver: provider's traits (u16 length,
// name), event's metadata (u16 length, tag bytes, name, fields), data. Every byte has to be accounted for.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <host.h>

// The provider "Tv64USB".
inline const GUID TraceProvider = {
    0x8A498CF5, 0xEB8E, 0x53DE, {0xD5, 0x0F, 0xC1, 0xF5, 0xBB, 0x50, 0x5D, 0x28}};

// Reads the bytes from front to back; a read beyond the end is a failed test.
class TraceReader
{
public:
    explicit TraceReader(std::vector<UCHAR> bytes) : Bytes(std::move(bytes)) {}
    size_t Left() const { return Bytes.size() - at; }

    ULONGLONG Number(size_t bytes)
    {
        if (Left() < bytes) {
            ADD_FAILURE() << bytes << " bytes of " << Left();
            at = Bytes.size();
            return 0;
        }
        ULONGLONG ullValue = 0;
        for (size_t i = bytes; i-- > 0;) {
            ullValue = ullValue << 8 | Bytes[at + i];
        }
        at += bytes;
        return ullValue;
    }
    std::string Text()
    {
        std::string text;
        while (const auto c = static_cast<char>(Number(1))) {
            text.push_back(c);
        }
        return text;
    }
    // A block that begins with its own length.
    TraceReader Block()
    {
        const size_t length = static_cast<size_t>(Number(2));
        EXPECT_GE(length, 2u);
        EXPECT_LE(length - 2, Left());
        const size_t end = std::min(Bytes.size(), at + length - 2);
        TraceReader block({Bytes.begin() + static_cast<long>(at), Bytes.begin() + static_cast<long>(end)});
        at = end;
        return block;
    }

private:
    std::vector<UCHAR> Bytes;
    size_t at = 0;
};

// "name=value" by the field's input and output type.
inline std::string DecodeField(TraceReader& fields, TraceReader& data)
{
    const std::string name = fields.Text();
    const auto uIn = static_cast<unsigned>(fields.Number(1));
    const auto uOut = uIn & 0x80 ? static_cast<unsigned>(fields.Number(1)) : 0;
    const std::map<unsigned, size_t> widths = {{4, 1}, {6, 2}, {8, 4}, {20, 4}, {21, 8}};
    std::string value;
    char number[24];
    switch (uIn & 0x7F) {
    case 2: // text up to its NUL
        value = data.Text();
        break;
    case 14: // u16 length, bytes
        for (ULONGLONG ullLeft = data.Number(2); ullLeft-- > 0;) {
            snprintf(number, sizeof(number), "%02llX", data.Number(1));
            value += number;
        }
        break;
    case 22: // u16 length in bytes, UTF-16
        for (ULONGLONG ullLeft = data.Number(2); ullLeft > 0; ullLeft -= 2) {
            value.push_back(static_cast<char>(data.Number(2)));
        }
        break;
    default: {
        const auto width = widths.find(uIn & 0x7F);
        if (width == widths.end()) {
            ADD_FAILURE() << name << " is of type " << uIn;
            return name;
        }
        const bool bHex = uOut == 4 || uOut == 14 || width->first >= 20;
        snprintf(number, sizeof(number), bHex ? "0x%llx" : "%llu", data.Number(width->second));
        value = number;
    }
    }
    return name + "=" + value;
}

// Listens while it lives.
class TraceListener
{
public:
    // Begin when the host runs.
    void Begin(UCHAR ucLevel = 0, ULONGLONG ullKeywords = 0)
    {
        uSession = HostTrace(TraceProvider, ucLevel, ullKeywords, 0,
                             [this](const HostTraceEvent& event) { Events.push_back(event); });
    }
    void End() { HostEndTrace(uSession); }

    // The events since the last call, "name field=value …", those of these names alone if there are any.
    std::vector<std::string> Take(const std::set<std::string>& names = {})
    {
        std::vector<std::string> lines;
        for (const HostTraceEvent& event : Events) {
            const std::string line = Decode(event);
            if (names.empty() || names.count(line.substr(0, line.find(' '))) != 0) {
                lines.push_back(line);
            }
        }
        Events.clear();
        return lines;
    }

    // The three parts lie one behind the other, whether or not the system told them apart.
    static std::string Decode(const HostTraceEvent& event)
    {
        std::vector<UCHAR> bytes = event.Traits;
        bytes.insert(bytes.end(), event.Metadata.begin(), event.Metadata.end());
        bytes.insert(bytes.end(), event.Data.begin(), event.Data.end());
        TraceReader data(bytes);
        TraceReader traits = data.Block();
        EXPECT_EQ("Tv64USB", traits.Text());
        EXPECT_EQ(0u, traits.Left());
        TraceReader fields = data.Block();
        while (fields.Number(1) & 0x80) {
        }
        std::string line = fields.Text();
        while (fields.Left() != 0) {
            line += " " + DecodeField(fields, data);
        }
        EXPECT_EQ(0u, data.Left()) << line;
        EXPECT_EQ(11, event.Descriptor.Channel) << line;
        return line;
    }

    std::vector<HostTraceEvent> Events;

private:
    unsigned uSession = 0;
};
