// found.cpp - the findings of one input.
#include "audit.h"
#include "tools/common/text.h"
#include "tools/why/why.h"

#include <fmt/format.h>

#include <numeric>
#include <stdexcept>

namespace
{

std::string LineOf(const std::string& input, const Finding& finding)
{
    std::vector<std::string> texts = finding.details;
    texts.insert(texts.begin(), finding.text);
    return fmt::format(
        "{{\"type\":\"finding\",\"file\":{},\"t_us\":{},\"kbd\":{},\"kind\":\"{}\",\"text\":{}}}\n",
        QuotedJson(input), finding.ullUs, finding.uKeyboard, NameOf(finding.kind),
        QuotedJson(JoinedWith(texts, "; ")));
}

} // namespace

Found::Found(std::string input, bool bAll) : m_input(std::move(input))
{
    if (!bAll)
        return;
    m_all.reset(tmpfile(), [](FILE* pFile) { pFile ? fclose(pFile) : 0; });
    if (!m_all)
        throw std::runtime_error("no temporary file can be made");
}

void Found::Add(const Finding& finding)
{
    ++m_counts[static_cast<size_t>(finding.kind)];
    if (m_all && fputs(LineOf(m_input, finding).c_str(), m_all.get()) == EOF)
        throw std::runtime_error("the temporary file of the findings cannot be written");
    std::vector<Finding>& first = m_first[static_cast<size_t>(finding.kind)];
    if (first.size() < MostShown)
        first.push_back(finding);
}

size_t Found::Count() const
{
    return std::accumulate(m_counts.begin(), m_counts.end(), size_t(0));
}

void Found::PrintAll() const
{
    if (!m_all || fflush(m_all.get()) != 0)
        throw std::runtime_error("the temporary file of the findings cannot be written");
    rewind(m_all.get());
    char buffer[1 << 14];
    for (size_t cNow; (cNow = fread(buffer, 1, sizeof(buffer), m_all.get())) != 0;)
        fwrite(buffer, 1, cNow, stdout);
}
