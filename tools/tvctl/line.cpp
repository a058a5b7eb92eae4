// line.cpp - members as JSON.
#include "line.h"
#include "tools/common/text.h"

Line& Line::Raw(std::string_view name, std::string_view json)
{
    if (!m_members.empty())
        m_members += ',';
    m_members += QuotedJson(name) + ":";
    m_members += json;
    return *this;
}

Line& Line::Text(std::string_view name, std::string_view text)
{
    return Raw(name, QuotedJson(text));
}

Line& Line::Number(std::string_view name, int64_t llNumber)
{
    return Raw(name, std::to_string(llNumber));
}

Line& Line::Truth(std::string_view name, bool bTruth)
{
    return Raw(name, bTruth ? "true" : "false");
}

Line& Line::Hex(std::string_view name, const std::vector<uint8_t>& bytes)
{
    return Text(name, HexOf(bytes));
}

Line& Line::Nothing(std::string_view name)
{
    return Raw(name, "null");
}

Line& Line::Objects(std::string_view name, const std::vector<Line>& lines)
{
    std::string json;
    for (const Line& line : lines)
        json += (json.empty() ? "" : ",") + line.Json();
    return Raw(name, "[" + json + "]");
}
