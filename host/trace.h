// trace.h - event tracing between the files of the host.
#pragma once

#include "core.h"

void HostStartTrace(); // as TV64USB_TRACE says
unsigned HostAuditTrace(PDRIVER_OBJECT pDriver);

// --- tracetext.cpp
std::string HostTraceText(const HostTraceEvent& event, const std::function<unsigned(ULONGLONG)>& numberOf);
