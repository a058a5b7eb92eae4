// file.h - the log file.
#pragma once

#include <kernel.h>

// file.cpp: appends whole lines to the file, and the OVERFLOW line when ucCut is 1. *pcLast is the last character
// that was written before, and then the last of these; *pulWritten tells how much of the text is in the file.
// IRQL = PASSIVE. Fails: the file refuses.
NTSTATUS WriteLogFile(const char* pText, ULONG ulLength, UCHAR ucCut, char* pcLast, PULONG pulWritten);
