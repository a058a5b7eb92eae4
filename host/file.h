// file.h - an open file of the host, and the rules of sharing.
#pragma once

#include "core.h"

#include <sys/stat.h>

struct FileBody {
    int iFd;
    LONGLONG llPosition;
    ACCESS_MASK Rights;
    ULONG ulShare;
    bool bSynchronous;
    bool bDelete; // the name goes with the last open; of every open of the file alike
    dev_t Device; // which file it is
    ino_t Node;
    char* pPath; // malloc; of every open of the file alike
};

// --- file.cpp
NTSTATUS HostStatusOfErrno(int iError);
// That name, or one that differs in case only.
std::string HostFileIn(const std::string& folder, const std::string& name, bool bIgnoreCase = true);
NTSTATUS HostMapPath(const HostText& name, bool bIgnoreCase, std::string* pPath);
FileBody* HostBeginOnFile(HANDLE h, const char* pCall, const char* pKind, ACCESS_MASK needed,
                          NTSTATUS* pStatus);
NTSTATUS HostEndOnFile(PIO_STATUS_BLOCK pStatus, NTSTATUS status, ULONG_PTR ulInformation);

// --- sharing.cpp
// What an open of the file would get; no data of a new file is looked for. Lock: Lock held.
NTSTATUS HostCheckSharing(const struct stat& info, ACCESS_MASK rights, ULONG ulShare);
// True if somebody has the file at this path open. Lock: Lock held.
bool HostIsFileOpen(const char* pPath);
// Calls the visitor for every open of the file. Lock: Lock held.
template <typename Visit> void HostForEachOpen(const FileBody* pFile, Visit visit)
{
    for (FileBody* p : g->OpenFiles) {
        if (p->Device == pFile->Device && p->Node == pFile->Node) {
            visit(p);
        }
    }
}
