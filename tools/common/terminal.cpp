// terminal.cpp - asks the environment, the locale and the terminal.
#include "terminal.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

// The variable's text, "" when it is not set.
const char* Variable(const char* pName)
{
    const char* pText = getenv(pName);
    return pText ? pText : "";
}

} // namespace

Terminal TerminalOf(FILE* pOut)
{
    Terminal terminal;
    const bool bTerminal = isatty(fileno(pOut));
    terminal.bColour = bTerminal && !*Variable("NO_COLOR") && strcmp(Variable("TERM"), "dumb") != 0;
    setlocale(LC_CTYPE, "");
    terminal.bUtf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    winsize size{};
    if (int iColumns = atoi(Variable("COLUMNS")); iColumns > 0)
        terminal.uColumns = static_cast<unsigned>(iColumns);
    else if (bTerminal && ioctl(fileno(pOut), TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        terminal.uColumns = size.ws_col;
    return terminal;
}
