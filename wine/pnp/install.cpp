// install.cpp - calls of the setup library. See install.h.
#include "install.h"

#include <stdexcept>

#include <windows.h>

#include <newdev.h>
#include <setupapi.h>

#include "wine/usermode.h"

namespace
{
const GUID SystemClass = {0x4d36e97d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
// By which applications find the keyboards that the driver serves.
const GUID KeyboardInterface = {0x3B7E91C4, 0x5A2D, 0x4F60, {0x9C, 0x1E, 0x7D, 0x84, 0xA2, 0xF0, 0xB6, 0x13}};
const char BusId[] = "root\\tvbus";
const char SettingsKey[] = "System\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams";

void Demand(bool bDone, const std::string& what)
{
    if (!bDone) {
        throw std::runtime_error(what + ": error " + std::to_string(GetLastError()));
    }
}

// An INF that is open as long as this is there.
class Inf
{
public:
    explicit Inf(const std::string& name)
    {
        UINT uLine = 0;
        std::string path = OwnFolder() + name;
        m_hInf = SetupOpenInfFileA(path.c_str(), nullptr, INF_STYLE_WIN4, &uLine);
        Demand(m_hInf != INVALID_HANDLE_VALUE, name + " is refused at line " + std::to_string(uLine));
    }
    ~Inf() { SetupCloseInfFile(m_hInf); }
    Inf(const Inf&) = delete;
    Inf& operator=(const Inf&) = delete;

    HINF Handle() const { return m_hInf; }

private:
    HINF m_hInf;
};

// The registry key of the settings, made when it is missing.
class Settings
{
public:
    Settings()
    {
        LSTATUS error = RegCreateKeyExA(HKEY_LOCAL_MACHINE, SettingsKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                        nullptr, &m_hKey, nullptr);
        SetLastError(error);
        Demand(error == ERROR_SUCCESS, "the settings of Tv64USB.sys");
    }
    ~Settings() { RegCloseKey(m_hKey); }
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    void Set(const std::string& name, DWORD ulType, const void* pData, size_t length)
    {
        RegSetValueExA(m_hKey, name.c_str(), 0, ulType, static_cast<const BYTE*>(pData),
                       static_cast<DWORD>(length));
    }
    void Remove(const std::string& name) { RegDeleteValueA(m_hKey, name.c_str()); }

private:
    HKEY m_hKey;
};

std::string DriversFolder()
{
    char szPath[MAX_PATH];
    GetSystemDirectoryA(szPath, sizeof(szPath));
    return std::string(szPath) + "\\drivers\\";
}

void MakeRootDevice()
{
    HDEVINFO hSet = SetupDiCreateDeviceInfoList(&SystemClass, nullptr);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    const std::string ids = std::string(BusId) + '\0'; // a list ends with an empty text
    Demand(SetupDiCreateDeviceInfoA(hSet, "root\\tvbus\\0000", &SystemClass, nullptr, nullptr, 0, &device),
           "making the bus device");
    Demand(SetupDiSetDeviceRegistryPropertyA(hSet, &device, SPDRP_HARDWAREID,
                                             reinterpret_cast<const BYTE*>(ids.c_str()),
                                             static_cast<DWORD>(ids.size() + 1)),
           "giving the bus device its id");
    Demand(SetupDiCallClassInstaller(DIF_REGISTERDEVICE, hSet, &device), "registering the bus device");
    SetupDiDestroyDeviceInfoList(hSet);
}
} // namespace

void InstallFilter()
{
    Inf inf("Tv64USB.inf");
    Demand(SetupInstallFromInfSectionA(nullptr, inf.Handle(), "Install.NT", SPINST_FILES, nullptr,
                                       OwnFolder().c_str(), SP_COPY_NEWER, SetupDefaultQueueCallbackA,
                                       SetupInitDefaultQueueCallback(nullptr), nullptr, nullptr),
           "copying the files of Tv64USB.inf");
    Demand(SetupInstallServicesFromInfSectionA(inf.Handle(), "Install.NT.Services", 0),
           "making the service of Tv64USB.inf");
}

void InstallTestDrivers()
{
    const std::string hid = OwnFolder() + "tvhid.inf";
    const std::string bus = OwnFolder() + "tvbus.inf";
    const std::string file = DriversFolder() + "tvhid.sys";
    BOOL bRestart = FALSE;
    Demand(CopyFileA((OwnFolder() + "tvhid.sys").c_str(), file.c_str(), FALSE), "copying to " + file);
    Demand(SetupCopyOEMInfA(hid.c_str(), nullptr, SPOST_PATH, 0, nullptr, 0, nullptr, nullptr),
           "adding tvhid.inf");
    MakeRootDevice();
    Demand(UpdateDriverForPlugAndPlayDevicesA(nullptr, BusId, bus.c_str(), INSTALLFLAG_FORCE, &bRestart),
           "installing tvbus.inf");
}

void SetSetting(const std::string& name, const std::string& text)
{
    Settings().Set(name, REG_SZ, text.c_str(), text.size() + 1);
}

void SetSetting(const std::string& name, unsigned long ulNumber)
{
    Settings().Set(name, REG_DWORD, &ulNumber, sizeof(ulNumber));
}

void RemoveSetting(const std::string& name)
{
    Settings().Remove(name);
}

std::vector<std::string> InterfaceNames()
{
    std::vector<std::string> names;
    HDEVINFO hSet =
        SetupDiGetClassDevsA(&KeyboardInterface, nullptr, nullptr, DIGCF_DEVICEINTERFACE | DIGCF_PRESENT);
    SP_DEVICE_INTERFACE_DATA found = {};
    found.cbSize = sizeof(found);
    for (DWORD i = 0; SetupDiEnumDeviceInterfaces(hSet, nullptr, &KeyboardInterface, i, &found); i++) {
        union {
            SP_DEVICE_INTERFACE_DETAIL_DATA_A Detail;
            char Room[600];
        } name = {};
        name.Detail.cbSize = sizeof(name.Detail);
        if ((found.Flags & SPINT_ACTIVE) &&
            SetupDiGetDeviceInterfaceDetailA(hSet, &found, &name.Detail, sizeof(name), nullptr, nullptr)) {
            names.push_back(name.Detail.DevicePath);
        }
    }
    SetupDiDestroyDeviceInfoList(hSet);
    return names;
}
