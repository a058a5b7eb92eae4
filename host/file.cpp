// file.cpp - files: NT paths onto the host's folders.
//
//   \??\C:\dir\x   \DosDevices\C:\dir\x   \SystemRoot\x     below HostOptions::FileRoot (without the drive;
//                                                           \SystemRoot is the folder Windows)
//   \??\/abs/x                                              the host's own path
//
// Names are tried as they stand, then, with OBJ_CASE_INSENSITIVE, without case. Reads and writes without an offset go on where the last
// one ended. Who else may have the file open is told in sharing.cpp.
#include "file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

static void DestroyFile(void* p)
{
    FileBody* pFile = static_cast<FileBody*>(p);
    bool bLast = true;
    {
        HostLock lock(g->Lock);
        g->OpenFiles.erase(std::find(g->OpenFiles.begin(), g->OpenFiles.end(), pFile));
        HostForEachOpen(pFile, [&](FileBody*) { bLast = false; });
    }
    close(pFile->iFd);
    if (pFile->bDelete && bLast) {
        unlink(pFile->pPath);
    }
    free(pFile->pPath);
}

NTSTATUS HostStatusOfErrno(int iError)
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
std::string HostFileIn(const std::string& folder, const std::string& name, bool bIgnoreCase)
{
    std::string exact = folder + "/" + name;
    if (!bIgnoreCase || access(exact.c_str(), F_OK) == 0) {
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

NTSTATUS HostMapPath(const HostText& name, bool bIgnoreCase, std::string* pPath)
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
        mapped = HostFileIn(mapped, "Windows");
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
        mapped = piece.empty() ? mapped : HostFileIn(mapped, piece, bIgnoreCase);
    }
    *pPath = mapped;
    return STATUS_SUCCESS;
}

static NTSTATUS MapName(POBJECT_ATTRIBUTES pAttributes, std::string* pPath)
{
    return HostMapPath(HostTextOf(pAttributes->ObjectName), pAttributes->Attributes & OBJ_CASE_INSENSITIVE,
                       pPath);
}

static bool IsOverwritten(ULONG ulDisposition)
{
    return ulDisposition == FILE_SUPERSEDE || ulDisposition >= FILE_OVERWRITE;
}

static int OpenFlags(ACCESS_MASK rights, ULONG ulDisposition, bool bExists)
{
    bool bWrite = rights & (FILE_WRITE_DATA | FILE_APPEND_DATA);
    bool bRead = rights & FILE_READ_DATA;
    int iFlags = bWrite ? (bRead ? O_RDWR : O_WRONLY) : O_RDONLY;
    if (!bExists) {
        iFlags |= O_CREAT | O_EXCL;
    } else if (IsOverwritten(ulDisposition)) {
        iFlags |= O_TRUNC | (bWrite ? 0 : O_RDWR);
    }
    return iFlags | O_CLOEXEC;
}

// Opens or makes the file if nobody else's open stands against it.
// Lock: held.
static NTSTATUS OpenFile(const std::string& path, FileBody* pFile, ULONG ulDisposition,
                         ULONG_PTR* pInformation)
{
    struct stat info;
    bool bExists = stat(path.c_str(), &info) == 0;
    bool bMustExist = ulDisposition == FILE_OPEN || ulDisposition == FILE_OVERWRITE;
    if ((bExists && ulDisposition == FILE_CREATE) || (!bExists && bMustExist)) {
        *pInformation = bExists ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
        return bExists ? STATUS_OBJECT_NAME_COLLISION : HostStatusOfErrno(errno);
    }
    if (bExists && S_ISDIR(info.st_mode)) {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (bExists) {
        ACCESS_MASK used = pFile->Rights | (IsOverwritten(ulDisposition) ? FILE_WRITE_DATA : 0);
        NTSTATUS status = HostCheckSharing(info, used, pFile->ulShare);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    pFile->iFd = open(path.c_str(), OpenFlags(pFile->Rights, ulDisposition, bExists), 0644);
    if (pFile->iFd < 0 || fstat(pFile->iFd, &info) != 0) {
        return errno == ENOENT ? STATUS_OBJECT_PATH_NOT_FOUND : HostStatusOfErrno(errno);
    }
    pFile->Device = info.st_dev;
    pFile->Node = info.st_ino;
    pFile->pPath = strdup(path.c_str());
    *pInformation = !bExists                          ? FILE_CREATED
                    : ulDisposition == FILE_SUPERSEDE ? FILE_SUPERSEDED
                    : ulDisposition >= FILE_OVERWRITE ? FILE_OVERWRITTEN
                                                      : FILE_OPENED;
    return STATUS_SUCCESS;
}

NTSTATUS ZwCreateFile(PHANDLE pHandle, ACCESS_MASK access, POBJECT_ATTRIBUTES pAttributes,
                      PIO_STATUS_BLOCK pStatus, PLARGE_INTEGER, ULONG, ULONG ulShare, ULONG ulDisposition,
                      ULONG ulOptions, PVOID, ULONG)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("file", __func__, [&] { return HostShown(pAttributes->ObjectName); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::string path;
    NTSTATUS status = MapName(pAttributes, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FileBody file = {};
    file.Rights = HostRightsOf(HostKindDiskFile, access);
    file.ulShare = ulShare;
    file.bSynchronous = ulOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
    FileBody* pFile;
    {
        HostLock lock(g->Lock);
        status = OpenFile(path, &file, ulDisposition, &pStatus->Information);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        pFile = static_cast<FileBody*>(HostNewObject(HostKindDiskFile, sizeof(FileBody), DestroyFile));
        *pFile = file;
        g->OpenFiles.push_back(pFile);
    }
    *pHandle = HostNewHandle(pFile, pAttributes->Attributes, access);
    pStatus->Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

FileBody* HostBeginOnFile(HANDLE h, const char* pCall, const char* pKind, ACCESS_MASK needed,
                          NTSTATUS* pStatus)
{
    HostEnter(pCall, PASSIVE_LEVEL);
    if (HostShouldFail(pKind, pCall)) {
        *pStatus = STATUS_INSUFFICIENT_RESOURCES;
        return nullptr;
    }
    return static_cast<FileBody*>(HostFromHandle(h, HostKindDiskFile, needed, pStatus));
}

NTSTATUS HostEndOnFile(PIO_STATUS_BLOCK pStatus, NTSTATUS status, ULONG_PTR ulInformation)
{
    pStatus->Status = status;
    pStatus->Information = ulInformation;
    return status;
}

NTSTATUS ZwReadFile(HANDLE h, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK pStatus, PVOID pBuffer,
                    ULONG ulLength, PLARGE_INTEGER pOffset, PULONG)
{
    NTSTATUS status;
    FileBody* pFile = HostBeginOnFile(h, __func__, "read", FILE_READ_DATA, &status);
    if (pFile == nullptr) {
        return status;
    }
    if (HostShouldFail("shortread")) {
        ulLength /= 2;
    }
    bool bHere = pOffset == nullptr || pOffset->QuadPart == -2;
    if (bHere && !pFile->bSynchronous) {
        return STATUS_INVALID_PARAMETER; // only such a file has a position
    }
    LONGLONG llAt = bHere ? pFile->llPosition : pOffset->QuadPart;
    ssize_t got = pread(pFile->iFd, pBuffer, ulLength, llAt);
    if (got < 0) {
        return HostEndOnFile(pStatus, HostStatusOfErrno(errno), 0);
    }
    if (got == 0 && ulLength != 0) {
        return HostEndOnFile(pStatus, STATUS_END_OF_FILE, 0);
    }
    pFile->llPosition = llAt + got;
    return HostEndOnFile(pStatus, STATUS_SUCCESS, static_cast<ULONG_PTR>(got));
}

NTSTATUS ZwWriteFile(HANDLE h, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK pStatus, PVOID pBuffer,
                     ULONG ulLength, PLARGE_INTEGER pOffset, PULONG)
{
    NTSTATUS status;
    FileBody* pFile = HostBeginOnFile(h, __func__, "write", 0, &status);
    if (pFile == nullptr) {
        return status;
    }
    if (!(pFile->Rights & (FILE_WRITE_DATA | FILE_APPEND_DATA))) {
        return STATUS_ACCESS_DENIED;
    }
    bool bHere = pOffset == nullptr || pOffset->QuadPart == -2;
    if (bHere && !pFile->bSynchronous) {
        return STATUS_INVALID_PARAMETER;
    }
    LONGLONG llAt = bHere ? pFile->llPosition : pOffset->QuadPart;
    if (!(pFile->Rights & FILE_WRITE_DATA) || (!bHere && llAt == -1)) {
        llAt = lseek(pFile->iFd, 0, SEEK_END);
    }
    HostTellOutput("a file", pBuffer, ulLength);
    ssize_t put = pwrite(pFile->iFd, pBuffer, ulLength, llAt);
    if (put < 0) {
        return HostEndOnFile(pStatus, HostStatusOfErrno(errno), 0);
    }
    pFile->llPosition = llAt + put;
    return HostEndOnFile(pStatus, STATUS_SUCCESS, static_cast<ULONG_PTR>(put));
}

NTSTATUS ZwDeleteFile(POBJECT_ATTRIBUTES pAttributes)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("file", __func__, [&] { return HostShown(pAttributes->ObjectName); })) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::string path;
    NTSTATUS status = MapName(pAttributes, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HostLock lock(g->Lock);
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        return HostStatusOfErrno(errno);
    }
    status = HostCheckSharing(info, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (HostIsFileOpen(path.c_str())) { // the name goes with the last open
        FileBody asked = {};
        asked.Device = info.st_dev;
        asked.Node = info.st_ino;
        HostForEachOpen(&asked, [](FileBody* pOpen) { pOpen->bDelete = true; });
        return STATUS_SUCCESS;
    }
    return unlink(path.c_str()) == 0 ? STATUS_SUCCESS : HostStatusOfErrno(errno);
}
