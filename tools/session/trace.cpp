// trace.cpp - a tracing session of the emulated machine, and the fields of its events.
#include "trace.h"

namespace
{

constexpr GUID Driver = {0x8A498CF5, 0xEB8E, 0x53DE, {0xD5, 0x0F, 0xC1, 0xF5, 0xBB, 0x50, 0x5D, 0x28}};

// Addresses differ from run to run and mean nothing to people.
unsigned NoNumber(ULONGLONG)
{
    return 0;
}

} // namespace

Traced::Traced(const HostTraceEvent& event) : m_content(HostReadTrace(event, NoNumber)) {}

const HostTraceField* Traced::Find(const char* pField) const
{
    for (const HostTraceField& field : m_content.Fields)
        if (field.Name == pField)
            return &field;
    return nullptr;
}

uint32_t Traced::Number(const char* pField) const
{
    const HostTraceField* pFound = Find(pField);
    return pFound ? static_cast<uint32_t>(pFound->ullNumber) : 0;
}

std::string Traced::Text(const char* pField) const
{
    const HostTraceField* pFound = Find(pField);
    return pFound ? std::string(pFound->Bytes.begin(), pFound->Bytes.end()) : "";
}

Bytes Traced::BytesOf(const char* pField) const
{
    const HostTraceField* pFound = Find(pField);
    return pFound ? pFound->Bytes : Bytes();
}

std::string Traced::Line() const
{
    std::string line = m_content.Name;
    for (const HostTraceField& field : m_content.Fields)
        line += " " + field.Name + "=" + field.Text;
    return line;
}

void ListenToDriver(unsigned char ucLevel, unsigned uKeywords, std::function<void(const Traced&)> told)
{
    HostTrace(Driver, ucLevel, uKeywords, 0,
              [told = std::move(told)](const HostTraceEvent& event) { told(Traced(event)); });
}
