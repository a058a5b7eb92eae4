// windows_errors.h - which status stands behind an error of the Windows interface.
//
// The system gives applications errors of its own numbering instead of the driver's statuses, and several
// statuses the same error. What was asked tells most of them apart.
#pragma once

#include <stdint.h>

namespace tvusb
{
// The status that a request ended with; request 0 is the opening. An error that stands for none keeps its number,
// as the system itself writes such a status: 0xC0070000 and the number.
uint32_t StatusOfError(uint32_t ulError, uint32_t ulRequest);
} // namespace tvusb
