// typing.cpp - the US layout.
#include "client/typing.h"

#include <algorithm>
#include <iterator>

namespace tvusb
{
namespace
{
constexpr uint8_t LEFT_SHIFT = 0x02;

// Two characters a key: without and with Shift. Letters follow from their order.
struct TypedKey {
    uint8_t ucUsage;
    char plain, shifted;
};

const TypedKey TypedKeys[] = {
    {0x1E, '1', '!'},  {0x1F, '2', '@'}, {0x20, '3', '#'}, {0x21, '4', '$'},  {0x22, '5', '%'},
    {0x23, '6', '^'},  {0x24, '7', '&'}, {0x25, '8', '*'}, {0x26, '9', '('},  {0x27, '0', ')'},
    {0x28, '\n', 0},   {0x2A, '\b', 0},  {0x2B, '\t', 0},  {0x2C, ' ', 0},    {0x2D, '-', '_'},
    {0x2E, '=', '+'},  {0x2F, '[', '{'}, {0x30, ']', '}'}, {0x31, '\\', '|'}, {0x33, ';', ':'},
    {0x34, '\'', '"'}, {0x35, '`', '~'}, {0x36, ',', '<'}, {0x37, '.', '>'},  {0x38, '/', '?'},
};
} // namespace

std::optional<KeyReport> ReportOfCharacter(char c)
{
    KeyReport report = {};
    auto typed = std::find_if(std::begin(TypedKeys), std::end(TypedKeys),
                              [c](const TypedKey& key) { return key.plain == c || key.shifted == c; });
    bool bShifted = c >= 'A' && c <= 'Z';
    if (bShifted || (c >= 'a' && c <= 'z')) {
        report[2] = static_cast<uint8_t>(0x04 + (c - (bShifted ? 'A' : 'a')));
    } else if (c != 0 && typed != std::end(TypedKeys)) {
        report[2] = typed->ucUsage;
        bShifted = typed->shifted == c;
    } else {
        return std::nullopt;
    }
    report[0] = bShifted ? LEFT_SHIFT : 0;
    return report;
}

char CharacterOfReport(const KeyReport& report)
{
    for (char c = 1; c < 0x7F; c++) {
        if (ReportOfCharacter(c) == report) {
            return c;
        }
    }
    return 0;
}
} // namespace tvusb
