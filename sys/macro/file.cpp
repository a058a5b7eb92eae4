// file.cpp - the macro configuration file: from its bytes to a table of macros.
//
//   0   "Korvex Configuration File V1.0.0.0"   34 bytes, no NUL
//   34  16 bytes that are not read
//   50  records to the end: u16 key, u16 bytes of actions, actions of 10 bytes each (u8, u8 length, report)
//
// A record that runs past the end ends the file; what was read before it counts. The table is built aside and
// published once, so that a report meets either the old macros or the new ones.
// Runs where the settings are read, at PASSIVE_LEVEL; the text stays non-paged because it is dumped.
#include "macro/macro.h"

#include "ground/sums.h"
#include "log/events.h"
#include "log/log.h"

namespace
{
enum : ULONG {
    HEADER_BYTES = 34,
    FIRST_RECORD = 50,
    RECORD_HEADER_BYTES = 4,
    ACTION_BYTES = 10,
    REPORT_BYTES = MacroTableRecord::ReportBytes,
    RECORD_UNIT = 14, // bytes of a macro's memory for each action and its head
    SPARE_BYTES = 5,
};
enum : LONGLONG { MAX_FILE_BYTES = 1024 * 1024 };

const char Header[HEADER_BYTES + 1] = "Korvex Configuration File V1.0.0.0";
static_assert(RECORD_UNIT >= REPORT_BYTES && RECORD_UNIT >= sizeof(MacroTableRecord),
              "a macro's memory holds its head and its actions");

struct FileText {
    UCHAR* pBytes;
    ULONG ulSize; // what was really read
};

PVOID AllocateMacroMemory(SIZE_T ulBytes)
{
    PVOID pMemory = ExAllocatePoolWithTag(NonPagedPoolNx, ulBytes, MACRO_POOL_TAG);
    if (pMemory != nullptr) {
        RtlZeroMemory(pMemory, ulBytes);
    }
    return pMemory;
}

ULONG WordAt(const FileText& text, ULONG ulOffset)
{
    return text.pBytes[ulOffset] | static_cast<ULONG>(text.pBytes[ulOffset + 1]) << 8;
}

// The whole file in one read.
// IRQL = PASSIVE. Owns: the caller frees pBytes. Fails: no size, above 1 MiB, no memory, not readable.
NTSTATUS ReadWholeFile(HANDLE hFile, FileText* pText)
{
    IO_STATUS_BLOCK ioStatus;
    FILE_STANDARD_INFORMATION information;
    NTSTATUS status =
        ZwQueryInformationFile(hFile, &ioStatus, &information, sizeof(information), FileStandardInformation);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (information.EndOfFile.QuadPart < 0 || information.EndOfFile.QuadPart > MAX_FILE_BYTES) {
        return STATUS_UNSUCCESSFUL;
    }
    const ULONG ulSize = static_cast<ULONG>(information.EndOfFile.QuadPart);
    pText->pBytes = static_cast<UCHAR*>(AllocateMacroMemory(ulSize + SPARE_BYTES));
    if (pText->pBytes == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    LARGE_INTEGER offset;
    offset.QuadPart = 0;
    status = ZwReadFile(hFile, nullptr, nullptr, nullptr, &ioStatus, pText->pBytes, ulSize, &offset, nullptr);
    if (NT_SUCCESS(status)) {
        pText->ulSize = static_cast<ULONG>(ioStatus.Information);
    } else if (status != STATUS_END_OF_FILE) { // cut to nothing since its size was asked for
        ExFreePoolWithTag(pText->pBytes, MACRO_POOL_TAG);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// Whether a whole record begins at the offset.
bool IsWholeRecord(const FileText& text, ULONG ulOffset)
{
    return ulOffset + RECORD_HEADER_BYTES <= text.ulSize &&
           WordAt(text, ulOffset + 2) <= text.ulSize - ulOffset - RECORD_HEADER_BYTES;
}

// The macro of a whole record; bytes behind its last whole action are skipped. Null when there is no memory.
MacroTableRecord* BuildRecord(const FileText& text, ULONG ulOffset)
{
    const ULONG ulActions = WordAt(text, ulOffset + 2) / ACTION_BYTES;
    auto pRecord = static_cast<MacroTableRecord*>(AllocateMacroMemory((ulActions + 1) * RECORD_UNIT));
    if (pRecord == nullptr) {
        return nullptr;
    }
    pRecord->usKey = static_cast<USHORT>(WordAt(text, ulOffset));
    pRecord->usActionCount = static_cast<USHORT>(ulActions);
    const UCHAR* pAction = text.pBytes + ulOffset + RECORD_HEADER_BYTES;
    for (ULONG i = 0; i < ulActions; i++, pAction += ACTION_BYTES) {
        Trace(MacroAction, pRecord->usKey, i, pAction[0], pAction[1]);
        LogHexDump("(ReadKorvexConfigFile) Record:", LowerOf(pAction[1], REPORT_BYTES), pAction + 2);
        RtlCopyMemory(pRecord->Action(i), pAction + 2, REPORT_BYTES);
    }
    return pRecord;
}

// Fails: no memory, more macros than the table holds; the macros before stay in it.
NTSTATUS FillTable(const FileText& text, MacroTable* pTable)
{
    ULONG ulMacro = 0;
    for (ULONG ulOffset = FIRST_RECORD; IsWholeRecord(text, ulOffset);
         ulOffset += RECORD_HEADER_BYTES + WordAt(text, ulOffset + 2)) {
        if (ulMacro == MACRO_TABLE_SIZE) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        pTable->Records[ulMacro] = BuildRecord(text, ulOffset);
        if (pTable->Records[ulMacro] == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        ulMacro++;
    }
    for (ULONG i = 0; i < ulMacro; i++) {
        const MacroTableRecord* pRecord = pTable->Records[i];
        LogHexDump("(ReadKorvexConfigFile) Actions:", pRecord->usActionCount * REPORT_BYTES,
                   pRecord->Action(0));
    }
    return STATUS_SUCCESS;
}

NTSTATUS ParseFile(const FileText& text)
{
    LogHexDump("(ReadKorvexConfigFile)", text.ulSize, text.pBytes);
    if (text.ulSize < HEADER_BYTES || !RtlEqualMemory(text.pBytes, Header, HEADER_BYTES)) {
        return STATUS_UNSUCCESSFUL;
    }
    auto pTable = static_cast<MacroTable*>(AllocateMacroMemory(sizeof(MacroTable)));
    if (pTable == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pTable->lUsers = 1;
    NTSTATUS status = FillTable(text, pTable);
    PublishMacroTable(pTable);
    return status;
}
} // namespace

// Replaces the macros in force by those of an open file.
// IRQL = PASSIVE. Lock: takes MacroTableLock. Fails: the old macros stay when the file has no size, is larger
// than 1 MiB, cannot be read or has another header; the first ones are in force when there are too many or
// memory ran out among them.
NTSTATUS ReadKorvexConfigFile(HANDLE hFile)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    FileText text = {};
    NTSTATUS status = ReadWholeFile(hFile, &text);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ParseFile(text);
    ExFreePoolWithTag(text.pBytes, MACRO_POOL_TAG);
    return status;
}
