// pnputil.cpp - stands for Windows' pnputil.exe in a test: writes down what it is asked for, and ends as it is told.
//
// A line for each call goes to PNPUTIL_LOG; PNPUTIL_STATUS is the exit status.
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv)
{
    FILE* pLog = fopen(getenv("PNPUTIL_LOG"), "a");
    if (pLog == nullptr) {
        return 1;
    }
    for (int i = 1; i < argc; i++) {
        fprintf(pLog, "%s%s", argv[i], i + 1 < argc ? " " : "\n");
    }
    fclose(pLog);
    return atoi(getenv("PNPUTIL_STATUS"));
}
