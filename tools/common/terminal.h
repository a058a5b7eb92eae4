// terminal.h - what the place that text is printed to can show.
#pragma once

#include <cstdio>

struct Terminal {
    bool bColour = false;    // a terminal that is not dumb, and NO_COLOR is not set
    bool bUtf8 = true;       // the locale's characters
    unsigned uColumns = 200; // COLUMNS, or those of the terminal; plenty when it is none
};

Terminal TerminalOf(FILE* pOut);
