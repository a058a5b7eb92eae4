// text.cpp - small text helpers that the readers and the printers share.
#include "text.h"
#include "client/driver.h"

#include <fmt/format.h>

namespace
{

constexpr char HexDigits[] = "0123456789abcdef";

} // namespace

std::string TextOfUtf16(const uint8_t* pBytes, size_t cBytes)
{
    std::u16string text;
    for (size_t i = 0; i + 1 < cBytes; i += 2)
        text.push_back(WordAt(pBytes, i));
    return tvusb::ToUtf8(text);
}

std::string LowerCase(std::string_view text)
{
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

char* PutHex(char* pText, const std::vector<uint8_t>& bytes)
{
    for (uint8_t ucByte : bytes) {
        *pText++ = HexDigits[ucByte >> 4];
        *pText++ = HexDigits[ucByte & 15];
    }
    return pText;
}

std::string HexOf(const std::vector<uint8_t>& bytes, std::string_view separator)
{
    std::string text;
    for (uint8_t ucByte : bytes) {
        if (!text.empty())
            text += separator;
        text += HexDigits[ucByte >> 4];
        text += HexDigits[ucByte & 15];
    }
    return text;
}

std::string StatusText(int64_t llStatus)
{
    return fmt::format("status 0x{:08x}", static_cast<uint32_t>(llStatus));
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
