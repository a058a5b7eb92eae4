// fileinfo.cpp - what an open file tells of itself, and what is changed about it: its end, its name, its life.
#include "file.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

NTSTATUS ZwQueryInformationFile(HANDLE h, PIO_STATUS_BLOCK pStatus, PVOID pBuffer, ULONG ulLength,
                                FILE_INFORMATION_CLASS infoClass)
{
    NTSTATUS status;
    FileBody* pFile = HostBeginOnFile(h, __func__, "fileinfo", 0, &status);
    if (pFile == nullptr) {
        return status;
    }
    if (infoClass == FilePositionInformation && ulLength >= sizeof(FILE_POSITION_INFORMATION)) {
        static_cast<PFILE_POSITION_INFORMATION>(pBuffer)->CurrentByteOffset.QuadPart = pFile->llPosition;
        return HostEndOnFile(pStatus, STATUS_SUCCESS, sizeof(FILE_POSITION_INFORMATION));
    }
    if (infoClass != FileStandardInformation) {
        return HostEndOnFile(pStatus,
                             infoClass == FilePositionInformation ? STATUS_INFO_LENGTH_MISMATCH
                                                                  : STATUS_INVALID_INFO_CLASS,
                             0);
    }
    struct stat info;
    if (ulLength < sizeof(FILE_STANDARD_INFORMATION) || fstat(pFile->iFd, &info) != 0) {
        return HostEndOnFile(pStatus, STATUS_INFO_LENGTH_MISMATCH, 0);
    }
    PFILE_STANDARD_INFORMATION p = static_cast<PFILE_STANDARD_INFORMATION>(pBuffer);
    *p = {};
    p->AllocationSize.QuadPart = (info.st_size + 4095) & ~LONGLONG(4095);
    p->EndOfFile.QuadPart = info.st_size;
    p->NumberOfLinks = static_cast<ULONG>(info.st_nlink);
    p->DeletePending = pFile->bDelete;
    return HostEndOnFile(pStatus, STATUS_SUCCESS, sizeof(*p));
}

static NTSTATUS Rename(FileBody* pFile, const FILE_RENAME_INFORMATION* pRename)
{
    HostText name(reinterpret_cast<const char16_t*>(pRename->FileName),
                  pRename->FileNameLength / sizeof(WCHAR));
    std::string path;
    if (name.find(u'\\') == HostText::npos) {
        path = std::string(pFile->pPath);
        path = HostFileIn(path.substr(0, path.find_last_of('/')), HostUtf8(name));
    } else {
        NTSTATUS status = HostMapPath(name, true, &path);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (!pRename->ReplaceIfExists && access(path.c_str(), F_OK) == 0) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    HostLock lock(g->Lock);
    if (HostIsFileOpen(path.c_str()) && path != pFile->pPath) {
        return STATUS_ACCESS_DENIED; // a file that somebody has open is not replaced
    }
    if (rename(pFile->pPath, path.c_str()) != 0) {
        return HostStatusOfErrno(errno);
    }
    HostForEachOpen(pFile, [&](FileBody* pOpen) {
        free(pOpen->pPath);
        pOpen->pPath = strdup(path.c_str());
    });
    return STATUS_SUCCESS;
}

static ACCESS_MASK NeededToSet(FILE_INFORMATION_CLASS infoClass)
{
    return infoClass == FileEndOfFileInformation                                           ? FILE_WRITE_DATA
           : infoClass == FileDispositionInformation || infoClass == FileRenameInformation ? DELETE
                                                                                           : 0;
}

NTSTATUS ZwSetInformationFile(HANDLE h, PIO_STATUS_BLOCK pStatus, PVOID pBuffer, ULONG ulLength,
                              FILE_INFORMATION_CLASS infoClass)
{
    NTSTATUS status;
    FileBody* pFile = HostBeginOnFile(h, __func__, "fileinfo", NeededToSet(infoClass), &status);
    if (pFile == nullptr) {
        return status;
    }
    switch (infoClass) {
    case FileEndOfFileInformation:
        status = ulLength < 8 ? STATUS_INFO_LENGTH_MISMATCH
                 : ftruncate(pFile->iFd,
                             static_cast<PFILE_END_OF_FILE_INFORMATION>(pBuffer)->EndOfFile.QuadPart) != 0
                     ? HostStatusOfErrno(errno)
                     : STATUS_SUCCESS;
        break;
    case FilePositionInformation:
        status = ulLength < 8 ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS;
        if (ulLength >= 8) {
            pFile->llPosition = static_cast<PFILE_POSITION_INFORMATION>(pBuffer)->CurrentByteOffset.QuadPart;
        }
        break;
    case FileDispositionInformation: {
        HostLock lock(g->Lock);
        HostForEachOpen(pFile, [&](FileBody* pOpen) {
            pOpen->bDelete = static_cast<PFILE_DISPOSITION_INFORMATION>(pBuffer)->DeleteFile;
        });
        break;
    }
    case FileRenameInformation: {
        const FILE_RENAME_INFORMATION* pRename = static_cast<PFILE_RENAME_INFORMATION>(pBuffer);
        size_t head = offsetof(FILE_RENAME_INFORMATION, FileName);
        status = ulLength < head || ulLength - head < pRename->FileNameLength ? STATUS_INFO_LENGTH_MISMATCH
                                                                              : Rename(pFile, pRename);
        break;
    }
    default:
        status = STATUS_INVALID_INFO_CLASS;
    }
    return HostEndOnFile(pStatus, status, 0);
}
