// tomlreader.cpp - reads TOML tables strictly, with the line of whatever is wrong.
#include "tomlreader.h"
#include "nearest.h"

#include <fmt/format.h>

#include <algorithm>

toml::table TomlReader::ParseText(const std::string& file, std::string_view text)
{
    try {
        return toml::parse(text, file);
    } catch (const toml::parse_error& error) {
        unsigned uLine = error.source().begin.line;
        throw InputError(fmt::format("{}:{}: {}", file, uLine, error.description()), uLine);
    }
}

void TomlReader::Fail(unsigned uLine, const std::string& what) const
{
    throw InputError(fmt::format("{}:{}: {}", m_file, uLine, what), uLine);
}

std::string TomlReader::WithoutPlace(const InputError& error) const
{
    std::string_view text = error.what();
    std::string place = fmt::format("{}:{}: ", m_file, error.Line());
    return std::string(text.substr(0, place.size()) == place ? text.substr(place.size()) : text);
}

void TomlReader::RefuseUnknownKeys(const toml::table& table, std::initializer_list<std::string_view> known,
                                   const char* pWhere) const
{
    for (const auto& [key, node] : table) {
        std::string name(key.str());
        if (std::find(known.begin(), known.end(), name) != known.end())
            continue;
        std::vector<std::string> names(known.begin(), known.end());
        unsigned uLine = key.source().begin.line;
        Try([&] {
            Fail(uLine, fmt::format("unknown key '{}' in {}{}", name, pWhere, DidYouMean(name, names)));
        });
    }
}

uint32_t TomlReader::NumberOf(const toml::node& node, std::string_view name, uint32_t ulMost) const
{
    const auto* pInteger = node.as_integer();
    if (!pInteger)
        Fail(node, fmt::format("{} is a number", name));
    int64_t llValue = pInteger->get();
    if (llValue < 0 || llValue > int64_t(ulMost))
        Fail(node, fmt::format("{} is a number from 0 to 0x{:X}, not {}", name, ulMost, llValue));
    return static_cast<uint32_t>(llValue);
}

const std::string& TomlReader::TextOf(const toml::node& node, std::string_view name) const
{
    if (!node.is_string())
        Fail(node, fmt::format("{} is text in quotes", name));
    return node.as_string()->get();
}

const toml::array& TomlReader::ArrayOf(const toml::node& node, const char* pWhat) const
{
    if (!node.is_array())
        Fail(node, fmt::format("{} in brackets", pWhat));
    return *node.as_array();
}

const toml::array& TomlReader::TablesOf(const toml::node& node, const char* pWhat) const
{
    const auto* pArray = node.as_array();
    if (!pArray ||
        !std::all_of(pArray->begin(), pArray->end(), [](const toml::node& n) { return n.is_table(); }))
        Fail(node, pWhat);
    return *pArray;
}
