// parameters.h - the driver's settings out of .reg text.
#pragma once

#include "usermode.h"

// Numbers and text of the lines `"name"=dword:...` and `"name"="text"`, whatever key they stand under.
Settings32 ReadParameters(const std::string& regText);
