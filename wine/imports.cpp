// imports.cpp - writes into a module's import table. See imports.h.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "imports.h"
#include "modules.h"

static bool SameText(const char* pszOne, const char* pszOther)
{
    while (*pszOne && *pszOne == *pszOther) {
        pszOne++;
        pszOther++;
    }
    return *pszOne == *pszOther;
}

static const Replacement* FindRow(const Replacement* pTable, const char* pszName)
{
    for (; pTable->pszName; pTable++) {
        if (SameText(pTable->pszName, pszName)) {
            return pTable;
        }
    }
    return nullptr;
}

unsigned ReplaceImports(void* pModule, const Replacement* pTable)
{
    auto pBase = static_cast<unsigned char*>(pModule);
    auto pHeaders =
        reinterpret_cast<IMAGE_NT_HEADERS*>(pBase + reinterpret_cast<IMAGE_DOS_HEADER*>(pBase)->e_lfanew);
    ULONG ulImports = pHeaders->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    if (!ulImports) {
        return 0;
    }
    unsigned uReplaced = 0;
    for (auto pFrom = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(pBase + ulImports); pFrom->Name; pFrom++) {
        auto pName = reinterpret_cast<IMAGE_THUNK_DATA*>(pBase + pFrom->OriginalFirstThunk);
        auto pEntry = reinterpret_cast<IMAGE_THUNK_DATA*>(pBase + pFrom->FirstThunk);
        for (; pName->u1.AddressOfData; pName++, pEntry++) {
            if (pName->u1.Ordinal & IMAGE_ORDINAL_FLAG64) {
                continue;
            }
            auto pImport = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(pBase + pName->u1.AddressOfData);
            if (auto pRow = FindRow(pTable, reinterpret_cast<const char*>(pImport->Name))) {
                WriteModule(&pEntry->u1.Function, &pRow->pRoutine, sizeof(pRow->pRoutine));
                uReplaced++;
            }
        }
    }
    return uReplaced;
}
