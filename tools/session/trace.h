// trace.h - what the driver traces while a session is replayed, by the names of fields.
//
// The driver's own trace points (docs/trace.md) are what the verbs tell of its reasons; nothing is decided a second
// time here.
#pragma once

#include "tools/replay/packet.h"

#include <host.h>

#include <functional>
#include <string>
#include <vector>

class Traced
{
public:
    explicit Traced(const HostTraceEvent& event);

    const std::string& Name() const { return m_content.Name; }
    bool Is(const char* pName) const { return m_content.Name == pName; }
    // Of a field that the event has not: 0, "", none.
    uint32_t Number(const char* pField) const;
    std::string Text(const char* pField) const;
    Bytes BytesOf(const char* pField) const;
    // Name and fields as TV64USB_TRACE prints them.
    std::string Line() const;

private:
    const HostTraceField* Find(const char* pField) const;
    HostTraceContent m_content;
};

// What it is about, as docs/trace.md numbers the keywords.
enum : unsigned {
    TraceReports = 0x04,
    TraceHotkeys = 0x08,
    TraceQueues = 0x10,
    TraceMacro = 0x20,
    TraceSale = 0x40
};
enum : unsigned char { TraceWarnings = 3, TraceEverything = 5 };

// Listens to the driver until the host ends; call it before the driver is loaded.
void ListenToDriver(unsigned char ucLevel, unsigned uKeywords, std::function<void(const Traced&)> told);
