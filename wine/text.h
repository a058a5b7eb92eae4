// text.h - the kernel's counted text as the language's.
#pragma once

#include <kernel.h>

#include <string>

inline std::u16string TextOf(PUNICODE_STRING pText)
{
    return {reinterpret_cast<const char16_t*>(pText->Buffer), pText->Length / sizeof(WCHAR)};
}

// Valid as long as the text.
inline UNICODE_STRING CountedText(const std::u16string& text)
{
    auto usBytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {usBytes, static_cast<USHORT>(usBytes + sizeof(WCHAR)),
            reinterpret_cast<PWCH>(const_cast<char16_t*>(text.c_str()))};
}
