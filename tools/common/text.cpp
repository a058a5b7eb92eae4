// text.cpp - small text helpers that the readers and the printers share.
#include "text.h"

#include <fmt/format.h>

namespace
{

void AppendUtf8(std::string& text, uint32_t ulCode)
{
    auto put = [&](uint32_t ulByte) { text.push_back(static_cast<char>(ulByte)); };
    if (ulCode < 0x80) {
        put(ulCode);
    } else if (ulCode < 0x800) {
        put(0xC0 | ulCode >> 6);
        put(0x80 | (ulCode & 0x3F));
    } else if (ulCode < 0x10000) {
        put(0xE0 | ulCode >> 12);
        put(0x80 | (ulCode >> 6 & 0x3F));
        put(0x80 | (ulCode & 0x3F));
    } else {
        put(0xF0 | ulCode >> 18);
        put(0x80 | (ulCode >> 12 & 0x3F));
        put(0x80 | (ulCode >> 6 & 0x3F));
        put(0x80 | (ulCode & 0x3F));
    }
}

} // namespace

std::string TextOfUtf16(const uint8_t* pBytes, size_t cBytes)
{
    std::string text;
    size_t cUnits = cBytes / 2;
    auto unit = [&](size_t i) { return static_cast<uint32_t>(pBytes[2 * i] | pBytes[2 * i + 1] << 8); };
    for (size_t i = 0; i < cUnits; ++i) {
        uint32_t ulCode = unit(i);
        bool bHigh = ulCode >= 0xD800 && ulCode < 0xDC00;
        if (bHigh && i + 1 < cUnits && unit(i + 1) >= 0xDC00 && unit(i + 1) < 0xE000) {
            ulCode = 0x10000 + ((ulCode - 0xD800) << 10) + (unit(i + 1) - 0xDC00);
            ++i;
        } else if (ulCode >= 0xD800 && ulCode < 0xE000) {
            ulCode = 0xFFFD;
        }
        AppendUtf8(text, ulCode);
    }
    return text;
}

std::string LowerCase(std::string_view text)
{
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

std::string_view Trim(std::string_view text)
{
    const char* pBlanks = " \t\r\n";
    size_t cFirst = text.find_first_not_of(pBlanks);
    if (cFirst == std::string_view::npos)
        return {};
    return text.substr(cFirst, text.find_last_not_of(pBlanks) - cFirst + 1);
}

std::string HexOf(const std::vector<uint8_t>& bytes, std::string_view separator)
{
    const char* pDigits = "0123456789abcdef";
    std::string text;
    for (uint8_t ucByte : bytes) {
        if (!text.empty())
            text += separator;
        text += pDigits[ucByte >> 4];
        text += pDigits[ucByte & 15];
    }
    return text;
}

std::string QuotedJson(std::string_view text)
{
    std::string quoted = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\')
            quoted += fmt::format("\\{}", static_cast<char>(c));
        else if (c < 0x20 || c == 0x7F)
            quoted += fmt::format("\\u{:04x}", c);
        else
            quoted += static_cast<char>(c);
    }
    return quoted + "\"";
}
