// line.h - one line of an answer: for programs a JSON object, for people a text.
//
// Members keep their order. The first is the line's type, by which a program tells lines apart.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class Line
{
public:
    explicit Line(std::string_view type) { Text("type", type); }

    Line& Text(std::string_view name, std::string_view text); // UTF-8
    Line& Number(std::string_view name, int64_t llNumber);
    Line& Truth(std::string_view name, bool bTruth);
    Line& Hex(std::string_view name, const std::vector<uint8_t>& bytes); // as text, two digits a byte
    Line& Nothing(std::string_view name);                                // null
    // Members that stand in the line as an object of its own.
    Line& Object(std::string_view name, const Line& line) { return Raw(name, line.Json()); }
    Line& Objects(std::string_view name, const std::vector<Line>& lines);

    std::string Json() const { return "{" + m_members + "}"; }

private:
    Line& Raw(std::string_view name, std::string_view json);

    std::string m_members;
};
