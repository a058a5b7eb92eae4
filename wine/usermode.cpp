// usermode.cpp - threads, the service manager, the registry, the privileged register. See usermode.h.
#include <windows.h>

#include "usermode.h"

#include <cstdio>

void* KernelExport(const char* pszName)
{
    return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntoskrnl.exe"), pszName));
}

void SleepMs(unsigned uMs)
{
    Sleep(uMs);
}

static DWORD WINAPI CallRoutine(void* pRoutine)
{
    reinterpret_cast<void (*)()>(pRoutine)();
    return 0;
}

void StartThread(void (*pRoutine)())
{
    CloseHandle(CreateThread(nullptr, 0, CallRoutine, reinterpret_cast<void*>(pRoutine), 0, nullptr));
}

static DWORD WINAPI HandleRequests(void* pFirst)
{
    typedef LONG(__cdecl Loop)(HANDLE hStop);
    reinterpret_cast<void (*)()>(pFirst)();
    auto pLoop = reinterpret_cast<Loop*>(KernelExport("wine_ntoskrnl_main_loop"));
    return static_cast<DWORD>(pLoop(CreateEventA(nullptr, TRUE, FALSE, nullptr)));
}

void StartRequests(void (*pFirst)())
{
    CloseHandle(CreateThread(nullptr, 0, HandleRequests, reinterpret_cast<void*>(pFirst), 0, nullptr));
}

bool OpenAndClose(const char* pszPath)
{
    HANDLE hFile = CreateFileA(pszPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    return hFile != INVALID_HANDLE_VALUE && CloseHandle(hFile);
}

bool MakeService(const char* pszService, const std::string& imagePath)
{
    SC_HANDLE hManager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE hService = CreateServiceA(hManager, pszService, pszService, SERVICE_ALL_ACCESS,
                                        SERVICE_KERNEL_DRIVER, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                        imagePath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    if (!hService && GetLastError() == ERROR_SERVICE_EXISTS) {
        hService = OpenServiceA(hManager, pszService, SERVICE_ALL_ACCESS);
        if (!ChangeServiceConfigA(hService, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                  imagePath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)) {
            CloseServiceHandle(hService);
            hService = nullptr;
        }
    }
    bool bMade = hService != nullptr;
    if (bMade) {
        CloseServiceHandle(hService);
    }
    CloseServiceHandle(hManager);
    return bMade;
}

void SetParameters(const char* pszService, const Settings32& settings)
{
    std::string path = std::string("System\\CurrentControlSet\\Services\\") + pszService + "\\TolvenParams";
    HKEY hKey;
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, path.c_str());
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey,
                        nullptr) != ERROR_SUCCESS) {
        fprintf(stderr, "the driver's parameters key cannot be made\n");
        exit(1);
    }
    for (const auto& [name, value] : settings) {
        if (auto pNumber = std::get_if<unsigned long>(&value)) {
            RegSetValueExA(hKey, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(pNumber), 4);
        } else {
            const auto& text = std::get<std::string>(value);
            RegSetValueExA(hKey, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                           static_cast<DWORD>(text.size() + 1));
        }
    }
    RegCloseKey(hKey);
}

std::string OwnFolder()
{
    char path[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, path, sizeof(path));
    std::string folder = path;
    return folder.substr(0, folder.rfind('\\') + 1);
}

static DWORD g_ulLevel; // a slot of each thread

unsigned char ThreadLevel()
{
    return static_cast<unsigned char>(reinterpret_cast<ULONG_PTR>(TlsGetValue(g_ulLevel)));
}

void SetThreadLevel(unsigned char ucLevel)
{
    TlsSetValue(g_ulLevel, reinterpret_cast<void*>(static_cast<ULONG_PTR>(ucLevel)));
}

// "mov %cr8, %reg" and "mov %reg, %cr8": 44 or 45, 0F, 20 or 22, 11 000 reg. Done for the thread, passed
// over.
static LONG CALLBACK OnLevelAccess(EXCEPTION_POINTERS* pException)
{
    DWORD ulCode = pException->ExceptionRecord->ExceptionCode;
    if (ulCode != EXCEPTION_PRIV_INSTRUCTION && ulCode != EXCEPTION_ACCESS_VIOLATION &&
        ulCode != EXCEPTION_ILLEGAL_INSTRUCTION) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    CONTEXT* pContext = pException->ContextRecord;
    auto pCode = reinterpret_cast<const unsigned char*>(pContext->Rip);
    bool bNoCode = ulCode == EXCEPTION_ACCESS_VIOLATION &&
                   pException->ExceptionRecord->ExceptionInformation[1] == pContext->Rip;
    if (bNoCode || (pCode[0] & 0xFE) != 0x44 || pCode[1] != 0x0F || (pCode[2] & 0xFD) != 0x20 ||
        (pCode[3] & 0xF8) != 0xC0) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    DWORD64* pRegister = &pContext->Rax + ((pCode[3] & 7) | (pCode[0] & 1) << 3);
    if (pCode[2] == 0x20) {
        *pRegister = ThreadLevel();
    } else {
        SetThreadLevel(static_cast<unsigned char>(*pRegister));
    }
    pContext->Rip += 4;
    return EXCEPTION_CONTINUE_EXECUTION;
}

void EmulateLevels()
{
    g_ulLevel = TlsAlloc();
    AddVectoredExceptionHandler(1, OnLevelAccess);
}
