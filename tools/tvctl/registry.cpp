// registry.cpp - the parameters key under the driver's service; elsewhere than on Windows there is none.
#include "registry.h"

#ifdef _WIN32
#include <windows.h>

namespace
{

constexpr wchar_t ServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Tv64USB";
constexpr wchar_t ParametersKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams";
constexpr DWORD NameChars = 16384; // the longest name of a value, and its end

// Names beyond ASCII are none of the driver's.
std::string NameOf(const std::vector<wchar_t>& name, DWORD ulChars)
{
    std::string text;
    for (DWORD i = 0; i < ulChars; i++)
        text += name[i] >= ' ' && name[i] <= '~' ? static_cast<char>(name[i]) : '?';
    return text;
}

LONG Open(const wchar_t* pPath, HKEY* phKey)
{
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, pPath, 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, phKey);
}

bool ReadValues(HKEY hKey, std::vector<RegistryValue>& values)
{
    std::vector<wchar_t> name(NameChars);
    for (DWORD i = 0;; i++) {
        DWORD ulChars = NameChars, ulType = 0, ulBytes = 0;
        LONG lError = RegEnumValueW(hKey, i, name.data(), &ulChars, nullptr, &ulType, nullptr, &ulBytes);
        if (lError != ERROR_SUCCESS)
            return lError == ERROR_NO_MORE_ITEMS;
        std::vector<uint8_t> data(ulBytes);
        lError = RegQueryValueExW(hKey, name.data(), nullptr, &ulType, data.data(), &ulBytes);
        if (lError != ERROR_SUCCESS)
            return false;
        data.resize(ulBytes);
        values.push_back({NameOf(name, ulChars), ulType, std::move(data)});
    }
}

} // namespace

DriverRegistry ReadDriverRegistry()
{
    DriverRegistry registry;
    registry.bThere = true;
    HKEY hKey = nullptr;
    registry.bInstalled = Open(ServiceKey, &hKey) == ERROR_SUCCESS;
    if (registry.bInstalled)
        RegCloseKey(hKey);
    LONG lError = Open(ParametersKey, &hKey);
    registry.bReadable = lError == ERROR_FILE_NOT_FOUND;
    if (lError == ERROR_SUCCESS) {
        registry.bReadable = ReadValues(hKey, registry.values);
        RegCloseKey(hKey);
    }
    return registry;
}
#else
DriverRegistry ReadDriverRegistry()
{
    return {};
}
#endif
