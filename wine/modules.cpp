// modules.cpp - the loader's list of modules, its notification, protected pages. See modules.h.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <winternl.h>

#include "modules.h"

namespace
{
struct LoadedData {
    ULONG ulFlags;
    const UNICODE_STRING* pFullName;
    const UNICODE_STRING* pBaseName;
    PVOID pBase;
    ULONG ulBytes;
};
typedef VOID(CALLBACK LoadedRoutine)(ULONG ulReason, const LoadedData* pData, PVOID pContext);
typedef NTSTATUS(NTAPI RegisterNotification)(ULONG ulFlags, LoadedRoutine* pRoutine, PVOID pContext,
                                             PVOID* ppCookie);
typedef NTSTATUS(NTAPI ProtectMemory)(HANDLE hProcess, PVOID* ppAddress, SIZE_T* pBytes, ULONG ulNew,
                                      ULONG* pulOld);
enum : ULONG { Loading = 1 };

// Offsets in bytes: the process block's loader data, its list in load order, an entry's base address and
// name.
enum : ULONG { PebLoader = 0x18, LoaderModules = 0x10, ModuleBase = 0x30, ModuleName = 0x58 };

const wchar_t* pszAwaited;
ModuleLoaded* pAwaiting;

bool SameText(const char* pszOne, const char* pszOther)
{
    while (*pszOne && *pszOne == *pszOther) {
        pszOne++;
        pszOther++;
    }
    return *pszOne == *pszOther;
}

// ASCII, without case.
bool SameName(const UNICODE_STRING* pName, const wchar_t* pszName)
{
    unsigned uChars = pName->Length / sizeof(wchar_t);
    unsigned i = 0;
    while (i < uChars && pszName[i] && (pName->Buffer[i] | 0x20) == (pszName[i] | 0x20)) {
        i++;
    }
    return i == uChars && !pszName[i];
}

template <typename Type> Type* At(void* pBase, ULONG_PTR ulOffset)
{
    return reinterpret_cast<Type*>(static_cast<unsigned char*>(pBase) + ulOffset);
}

void* FindModule(const wchar_t* pszModule)
{
    void* pProcess;
    __asm__("mov %%gs:0x60, %0" : "=r"(pProcess));
    LIST_ENTRY* pHead = At<LIST_ENTRY>(*At<void*>(pProcess, PebLoader), LoaderModules);
    for (LIST_ENTRY* pEntry = pHead->Flink; pEntry != pHead; pEntry = pEntry->Flink) {
        if (SameName(At<UNICODE_STRING>(pEntry, ModuleName), pszModule)) {
            return *At<void*>(pEntry, ModuleBase);
        }
    }
    return nullptr;
}

VOID CALLBACK Loaded(ULONG ulReason, const LoadedData* pData, PVOID)
{
    if (ulReason == Loading && SameName(pData->pBaseName, pszAwaited)) {
        pAwaiting(pData->pBase, pData->ulBytes);
    }
}
} // namespace

void* FindExport(const wchar_t* pszModule, const char* pszName)
{
    void* pBase = FindModule(pszModule);
    if (!pBase) {
        return nullptr;
    }
    auto pHeaders = At<IMAGE_NT_HEADERS>(pBase, At<IMAGE_DOS_HEADER>(pBase, 0)->e_lfanew);
    ULONG ulExports = pHeaders->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
    auto pExports = At<IMAGE_EXPORT_DIRECTORY>(pBase, ulExports);
    for (DWORD i = 0; ulExports && i < pExports->NumberOfNames; i++) {
        if (SameText(At<char>(pBase, At<DWORD>(pBase, pExports->AddressOfNames)[i]), pszName)) {
            WORD usOrdinal = At<WORD>(pBase, pExports->AddressOfNameOrdinals)[i];
            return At<void>(pBase, At<DWORD>(pBase, pExports->AddressOfFunctions)[usOrdinal]);
        }
    }
    return nullptr;
}

unsigned long ModuleBytes(void* pModule)
{
    return At<IMAGE_NT_HEADERS>(pModule, At<IMAGE_DOS_HEADER>(pModule, 0)->e_lfanew)
        ->OptionalHeader.SizeOfImage;
}

void CallAtLoad(const wchar_t* pszModule, ModuleLoaded* pRoutine)
{
    static PVOID pCookie;
    pszAwaited = pszModule;
    pAwaiting = pRoutine;
    if (!pCookie) {
        auto pRegister =
            reinterpret_cast<RegisterNotification*>(FindExport(L"ntdll.dll", "LdrRegisterDllNotification"));
        pRegister(0, Loaded, nullptr, &pCookie);
    }
}

void WriteModule(void* pTo, const void* pFrom, unsigned long ulBytes)
{
    static auto pProtect =
        reinterpret_cast<ProtectMemory*>(FindExport(L"ntdll.dll", "NtProtectVirtualMemory"));
    const HANDLE hSelf = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
    PVOID pPage = pTo;
    SIZE_T bytes = ulBytes;
    ULONG ulOld;
    pProtect(hSelf, &pPage, &bytes, PAGE_EXECUTE_READWRITE, &ulOld);
    for (unsigned long i = 0; i < ulBytes; i++) {
        static_cast<volatile unsigned char*>(pTo)[i] = static_cast<const unsigned char*>(pFrom)[i];
    }
    pProtect(hSelf, &pPage, &bytes, ulOld, &ulOld);
}
