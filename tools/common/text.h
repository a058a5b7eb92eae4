// text.h - small text helpers that the readers and the printers share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// UTF-8 of little-endian UTF-16 bytes; a lone surrogate becomes the replacement character.
std::string TextOfUtf16(const uint8_t* pBytes, size_t cBytes);

// Lower-case ASCII copy.
std::string LowerCase(std::string_view text);

inline bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Without blanks at either end.
inline std::string_view Trim(std::string_view text)
{
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

// Writes two lower-case hexadecimal digits a byte. Returns their end.
char* PutHex(char* pText, const std::vector<uint8_t>& bytes);
// The same, with the separator between the bytes.
std::string HexOf(const std::vector<uint8_t>& bytes, std::string_view separator = "");

// "status 0xc000000d"
std::string StatusText(int64_t llStatus);

// The little-endian word of two bytes there.
inline uint16_t WordAt(const uint8_t* pBytes, size_t cAt = 0)
{
    return static_cast<uint16_t>(pBytes[cAt] | pBytes[cAt + 1] << 8);
}

// A JSON string with its quotes; the text is UTF-8.
std::string QuotedJson(std::string_view text);
