// expression.cpp - reads an expression, and asks it of a session while that is played.
#include "shrink.h"
#include "tools/audit/audit.h"
#include "tools/common/nearest.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

namespace
{

const std::vector<std::string> LineKinds = {"keyboard", "definition", "report", "event",
                                            "macro",    "led",        "note",   "end"};

std::vector<std::string> FindingKinds()
{
    std::vector<std::string> names;
    for (int i = 0; i < static_cast<int>(FindingKind::Difference); ++i) // which needs a second configuration
        names.emplace_back(NameOf(static_cast<FindingKind>(i)));
    return names;
}

bool IsOneOf(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The member's value without quotes, or nothing. No text can look like a member: its quotes are escaped.
std::optional<std::string_view> MemberOf(std::string_view line, const std::string& name)
{
    size_t cAt = line.find("\"" + name + "\":");
    if (cAt == line.npos)
        return std::nullopt;
    std::string_view value = line.substr(cAt + name.size() + 3);
    if (value[0] != '"')
        return value.substr(0, value.find_first_of(",}"));
    size_t cEnd = 1;
    while (value[cEnd] != '"')
        cEnd += value[cEnd] == '\\' ? 2 : 1;
    return value.substr(1, cEnd - 1);
}

std::string LineOf(const Finding& finding)
{
    return fmt::format("{{\"type\":\"{}\",\"t_us\":{},\"kbd\":{},\"text\":{}}}", NameOf(finding.kind),
                       finding.ullUs, finding.uKeyboard, QuotedJson(finding.text));
}

} // namespace

Expression::Expression(const std::string& text) : m_text(text)
{
    std::vector<std::string> kinds = LineKinds, findings = FindingKinds();
    kinds.insert(kinds.end(), findings.begin(), findings.end());
    std::istringstream words(text);
    Condition* pCondition = nullptr;
    for (std::string word; words >> word;) {
        size_t cEqual = word.find('=');
        if (word == "and" && pCondition && !pCondition->kind.empty()) {
            pCondition = nullptr;
            continue;
        }
        if (!pCondition)
            pCondition = &m_conditions.emplace_back();
        if (word == "not" && pCondition->kind.empty() && !pCondition->bNot) {
            pCondition->bNot = true;
        } else if (pCondition->kind.empty()) {
            if (!IsOneOf(kinds, word))
                throw InputError(fmt::format("--while: '{}' is no kind of line and no finding{}", word,
                                             DidYouMean(word, kinds)));
            pCondition->kind = word;
            pCondition->bFinding = IsOneOf(findings, word);
        } else if (cEqual == 0 || cEqual == word.npos) {
            throw InputError(
                fmt::format("--while: '{}' is no MEMBER=VALUE; conditions have 'and' between them", word));
        } else {
            pCondition->members.emplace_back(word.substr(0, cEqual), word.substr(cEqual + 1));
        }
    }
    if (!pCondition || pCondition->kind.empty())
        throw InputError(fmt::format("--while: '{}' ends before a condition", text));
}

bool Expression::Condition::Fits(const std::string& line) const
{
    if (MemberOf(line, "type") != kind)
        return false;
    for (const auto& [name, value] : members) {
        auto found = MemberOf(line, name);
        if (!found)
            throw InputError(fmt::format("--while: a line '{}' has no member '{}'", kind, name));
        if (*found != value)
            return false;
    }
    return true;
}

// Looks at each line as it is printed.
class Expression::Watch
{
public:
    explicit Watch(const std::vector<Condition>& conditions)
        : m_conditions(conditions), m_seen(conditions.size())
    {
    }
    void Line(const std::string& line)
    {
        for (size_t i = 0; i < m_conditions.size() && !IsDecided(); ++i)
            if (!m_seen[i] && m_conditions[i].Fits(line)) {
                m_seen[i] = true;
                m_ullLatest = std::max(m_ullLatest, TimeOf(line)); // findings come as they are found
            }
    }
    uint64_t DecidedAt() const { return IsDecided() ? m_ullLatest : UINT64_MAX; }
    // True when whatever may still come changes nothing.
    bool IsDecided() const
    {
        bool bAll = true;
        for (size_t i = 0; i < m_conditions.size(); ++i) {
            if (m_conditions[i].bNot && m_seen[i])
                return true;
            bAll &= !m_conditions[i].bNot && m_seen[i];
        }
        return bAll;
    }
    bool Holds() const
    {
        for (size_t i = 0; i < m_conditions.size(); ++i)
            if (m_seen[i] == m_conditions[i].bNot)
                return false;
        return true;
    }

private:
    static uint64_t TimeOf(const std::string& line)
    {
        return std::stoull(std::string(MemberOf(line, "t_us").value()));
    }

    const std::vector<Condition>& m_conditions;
    std::vector<bool> m_seen;
    uint64_t m_ullLatest = 0; // of the lines that decide
};

Expression::Watch Expression::Play(const Script& script, const ReplaySetup& setup) const
{
    Watch watch(m_conditions);
    auto isFinding = [](const Condition& condition) { return condition.bFinding; };
    if (std::any_of(m_conditions.begin(), m_conditions.end(), isFinding))
        AuditOf("", script, setup, [&](const Finding& finding) { watch.Line(LineOf(finding)); });
    if (!std::all_of(m_conditions.begin(), m_conditions.end(), isFinding)) {
        ReplaySetup watched = setup;
        watched.IsEnough = [&] { return watch.IsDecided(); };
        RunReplay(script, watched, *MakeJsonLines([&](const std::string& line) { watch.Line(line); }));
    }
    return watch;
}

bool Expression::HoldsFor(const Script& script, const ReplaySetup& setup) const
{
    return !script.keyboards.empty() && Play(script, setup).Holds();
}

uint64_t Expression::DecidedAt(const Script& script, const ReplaySetup& setup) const
{
    return Play(script, setup).DecidedAt();
}
