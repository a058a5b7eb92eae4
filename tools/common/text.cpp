// text.cpp - small text helpers that the readers and the printers share.
#include "text.h"
#include "client/driver.h"

#include <fmt/format.h>

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

std::string_view Trim(std::string_view text)
{
    const char* pBlanks = " \t\r\n";
    size_t cFirst = text.find_first_not_of(pBlanks);
    if (cFirst == std::string_view::npos)
        return {};
    return text.substr(cFirst, text.find_last_not_of(pBlanks) - cFirst + 1);
}

void AppendHex(std::string& text, const std::vector<uint8_t>& bytes, std::string_view separator)
{
    static constexpr char digits[] = "0123456789abcdef";
    bool bFirst = true;
    for (uint8_t ucByte : bytes) {
        if (!bFirst)
            text += separator;
        bFirst = false;
        text += digits[ucByte >> 4];
        text += digits[ucByte & 15];
    }
}

std::string HexOf(const std::vector<uint8_t>& bytes, std::string_view separator)
{
    std::string text;
    AppendHex(text, bytes, separator);
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
