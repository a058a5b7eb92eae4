// file.cpp - files: NT paths onto the host's folders.
//
//   \??\C:\dir\x   \DosDevices\C:\dir\x   \SystemRoot\x     below HostOptions::FileRoot (without the drive;
//                                                           \SystemRoot is the folder Windows)
//   \??\/abs/x                                              the host's own path
//
// Names are tried as they stand, then without case. Reads and writes without an offset go on where the last
// one ended.
#include "core.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

struct FileBody {
    int iFd;
    LONGLONG llPosition;
    bool bAppendOnly;
    bool bDeleteOnClose;
    char* pPath;
};

static void DestroyFile(void* p)
{
    FileBody* pFile = static_cast<FileBody*>(p);
    close(pFile->iFd);
    if (pFile->bDeleteOnClose) {
        unlink(pFile->pPath);
    }
    free(pFile->pPath);
}

static NTSTATUS StatusOfErrno(int iError)
{
    switch (iError) {
    case ENOENT:
        return STATUS_OBJECT_NAME_NOT_FOUND;
    case ENOTDIR:
        return STATUS_OBJECT_PATH_NOT_FOUND;
    case EEXIST:
        return STATUS_OBJECT_NAME_COLLISION;
    case EISDIR:
        return STATUS_FILE_IS_A_DIRECTORY;
    case EACCES:
    case EPERM:
    case EROFS:
        return STATUS_ACCESS_DENIED;
    case ENOSPC:
        return STATUS_DISK_FULL;
    default:
        return STATUS_IO_DEVICE_ERROR;
    }
}

// One step down: the name as it stands, or one that differs in case only.
static std::string Child(const std::string& folder, const std::string& name)
{
    std::string exact = folder + "/" + name;
    if (access(exact.c_str(), F_OK) == 0) {
        return exact;
    }
    DIR* pDir = opendir(folder.c_str());
    std::string found = exact;
    for (struct dirent* p; pDir != nullptr && (p = readdir(pDir)) != nullptr;) {
        if (strcasecmp(p->d_name, name.c_str()) == 0) {
            found = folder + "/" + p->d_name;
        }
    }
    if (pDir != nullptr) {
        closedir(pDir);
    }
    return found;
}

static NTSTATUS MapPath(const HostText& name, std::string* pPath)
{
    std::string path = HostUtf8(name);
    std::string upper = HostUtf8(HostCanonicalName(name));
    std::string rest;
    std::string mapped = g->Options.FileRoot;
    if (upper.compare(0, 5, "\\??\\/") == 0) {
        *pPath = path.substr(path.find('/'));
        return STATUS_SUCCESS;
    }
    if (upper.compare(0, 12, "\\SYSTEMROOT\\") == 0) {
        mapped = Child(mapped, "Windows");
        rest = path.substr(12);
    } else if (upper.size() > 7 && upper.compare(0, 4, "\\??\\") == 0 && upper.compare(5, 2, ":\\") == 0) {
        rest = path.substr(path.find(":\\") + 2);
    } else {
        return path.empty() || path[0] != '\\' ? STATUS_OBJECT_PATH_SYNTAX_BAD : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (g->Options.FileRoot.empty()) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    while (!rest.empty()) {
        size_t end = rest.find('\\');
        std::string piece = rest.substr(0, end);
        rest = end == std::string::npos ? "" : rest.substr(end + 1);
        if (piece == "..") {
            return STATUS_OBJECT_NAME_INVALID;
        }
        mapped = piece.empty() ? mapped : Child(mapped, piece);
    }
    *pPath = mapped;
    return STATUS_SUCCESS;
}

static int OpenFlags(ACCESS_MASK access, ULONG ulDisposition, bool bExists)
{
    bool bWrite = access & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA | FILE_APPEND_DATA);
    bool bRead = access & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA);
    int iFlags = bWrite ? (bRead ? O_RDWR : O_WRONLY) : O_RDONLY;
    if (!bExists) {
        iFlags |= O_CREAT | O_EXCL;
    } else if (ulDisposition == FILE_SUPERSEDE || ulDisposition >= FILE_OVERWRITE) {
        iFlags |= O_TRUNC | (bWrite ? 0 : O_RDWR);
    }
    return iFlags | O_CLOEXEC;
}

NTSTATUS ZwCreateFile(PHANDLE pHandle, ACCESS_MASK access, POBJECT_ATTRIBUTES pAttributes,
                      PIO_STATUS_BLOCK pStatus, PLARGE_INTEGER, ULONG, ULONG, ULONG ulDisposition, ULONG,
                      PVOID, ULONG)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("file")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::string path;
    NTSTATUS status = MapPath(HostTextOf(pAttributes->ObjectName), &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    struct stat info;
    bool bExists = stat(path.c_str(), &info) == 0;
    bool bMustExist = ulDisposition == FILE_OPEN || ulDisposition == FILE_OVERWRITE;
    if ((bExists && ulDisposition == FILE_CREATE) || (!bExists && bMustExist)) {
        pStatus->Information = bExists ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
        return bExists ? STATUS_OBJECT_NAME_COLLISION : StatusOfErrno(errno);
    }
    if (bExists && S_ISDIR(info.st_mode)) {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    int iFd = open(path.c_str(), OpenFlags(access, ulDisposition, bExists), 0644);
    if (iFd < 0) {
        return errno == ENOENT ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfErrno(errno);
    }
    FileBody* pFile = static_cast<FileBody*>(HostNewObject(HostKindDiskFile, sizeof(FileBody), DestroyFile));
    bool bAppend = (access & FILE_APPEND_DATA) && !(access & (FILE_WRITE_DATA | GENERIC_WRITE | GENERIC_ALL));
    *pFile = {iFd, 0, bAppend, false, strdup(path.c_str())};
    *pHandle = HostNewHandle(pFile, false);
    pStatus->Status = STATUS_SUCCESS;
    pStatus->Information = !bExists                          ? FILE_CREATED
                           : ulDisposition == FILE_SUPERSEDE ? FILE_SUPERSEDED
                           : ulDisposition >= FILE_OVERWRITE ? FILE_OVERWRITTEN
                                                             : FILE_OPENED;
    return STATUS_SUCCESS;
}

static FileBody* Begin(HANDLE h, const char* pCall, const char* pKind, NTSTATUS* pStatus)
{
    HostEnter(pCall, PASSIVE_LEVEL);
    if (HostShouldFail(pKind)) {
        *pStatus = STATUS_INSUFFICIENT_RESOURCES;
        return nullptr;
    }
    return static_cast<FileBody*>(HostFromHandle(h, HostKindDiskFile, pStatus));
}

static NTSTATUS End(PIO_STATUS_BLOCK pStatus, NTSTATUS status, ULONG_PTR ulInformation)
{
    pStatus->Status = status;
    pStatus->Information = ulInformation;
    return status;
}

NTSTATUS ZwReadFile(HANDLE h, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK pStatus, PVOID pBuffer,
                    ULONG ulLength, PLARGE_INTEGER pOffset, PULONG)
{
    NTSTATUS status;
    FileBody* pFile = Begin(h, __func__, "read", &status);
    if (pFile == nullptr) {
        return status;
    }
    if (HostShouldFail("shortread")) {
        ulLength /= 2;
    }
    bool bHere = pOffset == nullptr || pOffset->QuadPart == -2;
    LONGLONG llAt = bHere ? pFile->llPosition : pOffset->QuadPart;
    ssize_t got = pread(pFile->iFd, pBuffer, ulLength, llAt);
    if (got < 0) {
        return End(pStatus, StatusOfErrno(errno), 0);
    }
    if (got == 0 && ulLength != 0) {
        return End(pStatus, STATUS_END_OF_FILE, 0);
    }
    pFile->llPosition = llAt + got;
    return End(pStatus, STATUS_SUCCESS, static_cast<ULONG_PTR>(got));
}

NTSTATUS ZwWriteFile(HANDLE h, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK pStatus, PVOID pBuffer,
                     ULONG ulLength, PLARGE_INTEGER pOffset, PULONG)
{
    NTSTATUS status;
    FileBody* pFile = Begin(h, __func__, "write", &status);
    if (pFile == nullptr) {
        return status;
    }
    bool bHere = pOffset == nullptr || pOffset->QuadPart == -2;
    LONGLONG llAt = bHere ? pFile->llPosition : pOffset->QuadPart;
    if (pFile->bAppendOnly || (!bHere && llAt == -1)) {
        llAt = lseek(pFile->iFd, 0, SEEK_END);
    }
    ssize_t put = pwrite(pFile->iFd, pBuffer, ulLength, llAt);
    if (put < 0) {
        return End(pStatus, StatusOfErrno(errno), 0);
    }
    pFile->llPosition = llAt + put;
    return End(pStatus, STATUS_SUCCESS, static_cast<ULONG_PTR>(put));
}

NTSTATUS ZwQueryInformationFile(HANDLE h, PIO_STATUS_BLOCK pStatus, PVOID pBuffer, ULONG ulLength,
                                FILE_INFORMATION_CLASS infoClass)
{
    NTSTATUS status;
    FileBody* pFile = Begin(h, __func__, "fileinfo", &status);
    if (pFile == nullptr) {
        return status;
    }
    if (infoClass == FilePositionInformation && ulLength >= sizeof(FILE_POSITION_INFORMATION)) {
        static_cast<PFILE_POSITION_INFORMATION>(pBuffer)->CurrentByteOffset.QuadPart = pFile->llPosition;
        return End(pStatus, STATUS_SUCCESS, sizeof(FILE_POSITION_INFORMATION));
    }
    if (infoClass != FileStandardInformation) {
        return End(pStatus,
                   infoClass == FilePositionInformation ? STATUS_INFO_LENGTH_MISMATCH
                                                        : STATUS_INVALID_INFO_CLASS,
                   0);
    }
    struct stat info;
    if (ulLength < sizeof(FILE_STANDARD_INFORMATION) || fstat(pFile->iFd, &info) != 0) {
        return End(pStatus, STATUS_INFO_LENGTH_MISMATCH, 0);
    }
    PFILE_STANDARD_INFORMATION p = static_cast<PFILE_STANDARD_INFORMATION>(pBuffer);
    *p = {};
    p->AllocationSize.QuadPart = (info.st_size + 4095) & ~LONGLONG(4095);
    p->EndOfFile.QuadPart = info.st_size;
    p->NumberOfLinks = static_cast<ULONG>(info.st_nlink);
    p->DeletePending = pFile->bDeleteOnClose;
    return End(pStatus, STATUS_SUCCESS, sizeof(*p));
}

static NTSTATUS Rename(FileBody* pFile, const FILE_RENAME_INFORMATION* pRename)
{
    HostText name(reinterpret_cast<const char16_t*>(pRename->FileName),
                  pRename->FileNameLength / sizeof(WCHAR));
    std::string path;
    if (name.find(u'\\') == HostText::npos) {
        path = std::string(pFile->pPath);
        path = Child(path.substr(0, path.find_last_of('/')), HostUtf8(name));
    } else {
        NTSTATUS status = MapPath(name, &path);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (!pRename->ReplaceIfExists && access(path.c_str(), F_OK) == 0) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (rename(pFile->pPath, path.c_str()) != 0) {
        return StatusOfErrno(errno);
    }
    free(pFile->pPath);
    pFile->pPath = strdup(path.c_str());
    return STATUS_SUCCESS;
}

NTSTATUS ZwSetInformationFile(HANDLE h, PIO_STATUS_BLOCK pStatus, PVOID pBuffer, ULONG ulLength,
                              FILE_INFORMATION_CLASS infoClass)
{
    NTSTATUS status;
    FileBody* pFile = Begin(h, __func__, "fileinfo", &status);
    if (pFile == nullptr) {
        return status;
    }
    switch (infoClass) {
    case FileEndOfFileInformation:
        status = ulLength < 8 ? STATUS_INFO_LENGTH_MISMATCH
                 : ftruncate(pFile->iFd,
                             static_cast<PFILE_END_OF_FILE_INFORMATION>(pBuffer)->EndOfFile.QuadPart) != 0
                     ? StatusOfErrno(errno)
                     : STATUS_SUCCESS;
        break;
    case FilePositionInformation:
        status = ulLength < 8 ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS;
        if (ulLength >= 8) {
            pFile->llPosition = static_cast<PFILE_POSITION_INFORMATION>(pBuffer)->CurrentByteOffset.QuadPart;
        }
        break;
    case FileDispositionInformation:
        pFile->bDeleteOnClose = static_cast<PFILE_DISPOSITION_INFORMATION>(pBuffer)->DeleteFile;
        break;
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
    return End(pStatus, status, 0);
}

NTSTATUS ZwDeleteFile(POBJECT_ATTRIBUTES pAttributes)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("file")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::string path;
    NTSTATUS status = MapPath(HostTextOf(pAttributes->ObjectName), &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return unlink(path.c_str()) == 0 ? STATUS_SUCCESS : StatusOfErrno(errno);
}
