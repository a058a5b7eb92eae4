// file.cpp - the log file: appended to, and started over when it has reached its size.
//
// In:  text of whole lines (the last one may be cut short).
// Out: the file LogFileName, never longer than ulLogFileSize (0: no limit) unless a single line is, and one
// older
//      file of the same name with ".old" behind it. A line is never split between the two.
// The drain's thread, at PASSIVE_LEVEL. The file is open only while something is written, so that it can be
// read, copied or taken away at any time; the right to rename it is asked for only when it starts over, because
// whoever reads it without sharing that right would else keep the log from writing at all.
#include "log/file.h"

#include "log/fields.h"

namespace
{
enum : ULONG { NAME_CHARS = 140 }; // prefix + 126 characters + ".old"

struct LogFile {
    HANDLE hFile;
    LONGLONG llSize;
    char cLast; // what was written last
};

// The name as the system wants it: a drive path gets the prefix of the system's drive names.
// IRQL = PASSIVE. Fails: never, a stored name always fits.
void BuildName(PUNICODE_STRING pName, PWCH pBuffer, PCWSTR pszSuffix)
{
    pName->Buffer = pBuffer;
    pName->Length = 0;
    pName->MaximumLength = NAME_CHARS * sizeof(WCHAR);
    if (SettingsOfLog.LogFileName.Buffer[0] != L'\\') {
        RtlAppendUnicodeToString(pName, L"\\??\\");
    }
    RtlAppendUnicodeToString(pName, SettingsOfLog.LogFileName.Buffer);
    RtlAppendUnicodeToString(pName, pszSuffix);
}

// Opens the file, made if it is not there.
// IRQL = PASSIVE. Owns: the caller closes the handle. Fails: as the file system says.
NTSTATUS OpenByName(ACCESS_MASK access, PHANDLE phFile)
{
    WCHAR nameBuffer[NAME_CHARS];
    UNICODE_STRING name;
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK ioStatus;

    BuildName(&name, nameBuffer, L"");
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    return ZwCreateFile(phFile, access | SYNCHRONIZE, &attributes, &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ, FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE,
                        nullptr, 0);
}

// Opens the file for appending.
// IRQL = PASSIVE. Owns: the caller closes the handle. Fails: the file refuses; no file is open then.
NTSTATUS OpenLogFile(LogFile* pFile)
{
    IO_STATUS_BLOCK ioStatus;
    FILE_STANDARD_INFORMATION information;
    NTSTATUS status = OpenByName(FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, &pFile->hFile);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwQueryInformationFile(pFile->hFile, &ioStatus, &information, sizeof(information),
                                    FileStandardInformation);
    if (!NT_SUCCESS(status)) {
        ZwClose(pFile->hFile);
        return status;
    }
    pFile->llSize = information.EndOfFile.QuadPart;
    return STATUS_SUCCESS;
}

// Gives the file the older one's name, in place of the last older one.
// IRQL = PASSIVE. Fails: it keeps its name, because somebody reads it or the file system says so.
NTSTATUS RenameLogFile()
{
    struct {
        FILE_RENAME_INFORMATION Rename;
        WCHAR Rest[NAME_CHARS];
    } request;
    WCHAR nameBuffer[NAME_CHARS];
    UNICODE_STRING name;
    IO_STATUS_BLOCK ioStatus;
    HANDLE hFile;

    BuildName(&name, nameBuffer, L".old");
    RtlZeroMemory(&request, sizeof(request));
    request.Rename.ReplaceIfExists = TRUE;
    request.Rename.FileNameLength = name.Length;
    PUCHAR pTarget = reinterpret_cast<PUCHAR>(&request) + FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    RtlCopyMemory(pTarget, name.Buffer, name.Length);
    NTSTATUS status = OpenByName(DELETE, &hFile);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwSetInformationFile(hFile, &ioStatus, &request, sizeof(request), FileRenameInformation);
    ZwClose(hFile);
    return status;
}

// Turns the open file into the older one and opens a new file.
// IRQL = PASSIVE. Fails: the file keeps its name or the new one cannot be made; no file is open then.
NTSTATUS StartOver(LogFile* pFile)
{
    ZwClose(pFile->hFile);
    const NTSTATUS status = RenameLogFile();
    return NT_SUCCESS(status) ? OpenLogFile(pFile) : status;
}

// IRQL = PASSIVE. Fails: the file refuses.
NTSTATUS AppendPiece(LogFile* pFile, const char* pText, ULONG ulLength)
{
    IO_STATUS_BLOCK ioStatus;
    LARGE_INTEGER end;
    end.LowPart = FILE_WRITE_TO_END_OF_FILE;
    end.HighPart = -1;
    const NTSTATUS status = ZwWriteFile(pFile->hFile, nullptr, nullptr, nullptr, &ioStatus,
                                        const_cast<char*>(pText), ulLength, &end, nullptr);
    if (NT_SUCCESS(status)) {
        pFile->llSize += ulLength;
        pFile->cLast = pText[ulLength - 1];
    }
    return status;
}

// The length of the whole lines at the text's start that take no more than llRoom; at least one line.
ULONG MeasureLines(const char* pText, ULONG ulLength, LONGLONG llRoom)
{
    if (ulLength <= llRoom) {
        return ulLength;
    }
    ULONG ulFit = 0;
    for (ULONG i = 0; i < ulLength; i++) {
        if (pText[i] == '\n' || i + 1 == ulLength) {
            if (ulFit != 0 && i + 1 > llRoom) {
                break;
            }
            ulFit = i + 1;
        }
    }
    return ulFit;
}

// Appends text, starting the file over as often as its size asks for.
// IRQL = PASSIVE. Fails: the file refuses; no file is open then.
NTSTATUS AppendLines(LogFile* pFile, const char* pText, ULONG ulLength, PULONG pulWritten)
{
    const LONGLONG llLimit =
        SettingsOfLog.ulLogFileSize != 0 ? SettingsOfLog.ulLogFileSize : 0x7FFFFFFFFFFFFFFFLL;
    while (*pulWritten < ulLength) {
        const char* pRest = pText + *pulWritten;
        const LONGLONG llRoom = llLimit - pFile->llSize;
        const ULONG ulPiece = MeasureLines(pRest, ulLength - *pulWritten, llRoom);
        NTSTATUS status;
        if (ulPiece > llRoom && pFile->llSize > 0) {
            status = StartOver(pFile);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            continue;
        }
        status = AppendPiece(pFile, pRest, ulPiece);
        if (!NT_SUCCESS(status)) {
            ZwClose(pFile->hFile);
            return status;
        }
        *pulWritten += ulPiece;
    }
    return STATUS_SUCCESS;
}

// The line that says that text is missing, a line of its own: a text that was cut within a line, now or when it
// was written, has no line end.
// IRQL = PASSIVE. Fails: as AppendLines.
NTSTATUS AppendMark(LogFile* pFile)
{
    const char* pszMark = "\r\nOVERFLOW\r\n";
    if (pFile->cLast == '\n') {
        pszMark += 2;
    } else if (pFile->cLast == '\r') {
        pszMark += 1;
    }
    ULONG ulWritten = 0;
    return AppendLines(pFile, pszMark, static_cast<ULONG>(strlen(pszMark)), &ulWritten);
}
} // namespace

// IRQL = PASSIVE. Fails: the file refuses; *pulWritten tells how far it came.
NTSTATUS WriteLogFile(const char* pText, ULONG ulLength, UCHAR ucCut, char* pcLast, PULONG pulWritten)
{
    LogFile file;
    *pulWritten = 0;
    NTSTATUS status = OpenLogFile(&file);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    file.cLast = *pcLast;
    status = AppendLines(&file, pText, ulLength, pulWritten);
    if (NT_SUCCESS(status) && ucCut != 0) {
        status = AppendMark(&file);
    }
    if (NT_SUCCESS(status)) {
        ZwClose(file.hFile);
    }
    *pcLast = file.cLast;
    return status;
}
