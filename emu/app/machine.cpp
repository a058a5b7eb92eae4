// Brings up the host, the drivers and the devices between them, and takes everything down again.
#include "machine.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

using std::string;

// A registry value as a line of .reg text.
static string SettingLine(const string& name, const EmuSetting& setting)
{
    string line = "\"" + name + "\"=";
    if (const ULONG* pulNumber = std::get_if<ULONG>(&setting)) {
        char text[32];
        snprintf(text, sizeof text, "dword:%08x\n", static_cast<unsigned>(*pulNumber));
        return line + text;
    }
    line += '"';
    for (char c : std::get<string>(setting)) {
        if (c == '"' || c == '\\') {
            line += '\\';
        }
        line += c;
    }
    return line + "\"\n";
}

// The registry that the driver finds: its parameters key with the settings, then the caller's own text.
static string RegistryText(const EmuMachineOptions& options)
{
    string text = "Windows Registry Editor Version 5.00\n\n"
                  "[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams]\n";
    for (const auto& [name, setting] : options.Settings) {
        text += SettingLine(name, setting);
    }
    const string& more = options.RegistryText;
    size_t head = more.rfind("Windows Registry Editor", 0) == 0 ? more.find('\n') : string::npos;
    return text + "\n" + (head == string::npos ? more : more.substr(head + 1));
}

EmuMachine::EmuMachine(const EmuMachineOptions& options)
    : m_bSettles(options.Mode == HostSimulated && options.Seed == 0 && !options.LateNotifications)
{
    HostOptions host;
    host.Mode = options.Mode;
    host.Seed = options.Seed;
    host.DroppedLock = options.DroppedLock;
    host.bLateNotifications = options.LateNotifications;
    host.ulFirstHandle = options.FirstHandle;
    host.RegistryText = RegistryText(options);
    host.FileRoot = options.FileRoot;
    HostStart(host);
    m_bRunning = true;
    m_LoadStatus = HostLoadDriver(EmuKeyboardEntry, L"EmuKeyboard", &m_pKeyboards);
    if (NT_SUCCESS(m_LoadStatus)) {
        m_LoadStatus = HostLoadDriver(EmuHidEntry, L"EmuHid", &m_pHid);
    }
    if (options.BeforeLoad) {
        options.BeforeLoad();
    }
    if (NT_SUCCESS(m_LoadStatus) && options.Entry) {
        m_LoadStatus = HostLoadDriver(options.Entry, L"Tv64USB", &m_pDriver);
    }
    if (!NT_SUCCESS(m_LoadStatus)) {
        m_pDriver = nullptr;
    }
}

EmuMachine::~EmuMachine()
{
    Unload();
}

const std::vector<EmuKind>& EmuMachine::Kinds()
{
    static const std::vector<EmuKind> kinds = {
        {"normal", &EmuBootKeyboard, 1},       {"power", &EmuPowerKeyboard, 2},
        {"consumer", &EmuConsumerKeyboard, 2}, {"jaalaa", &EmuJaalaaKeyboard, 3},
        {"chic", &EmuChicKeyboard, 4},         {"other", &EmuOtherInterface, 5},
    };
    return kinds;
}

std::vector<string> EmuMachine::KindNames()
{
    std::vector<string> names;
    for (const EmuKind& kind : Kinds()) {
        names.emplace_back(kind.pName);
    }
    return names;
}

const EmuDescriptors* EmuMachine::FindKind(const string& name)
{
    for (const EmuKind& kind : Kinds()) {
        if (name == kind.pName) {
            return kind.pDescriptors;
        }
    }
    return nullptr;
}

std::vector<const EmuDescriptors*> EmuMachine::FindInterfaces(const string& names)
{
    std::vector<const EmuDescriptors*> interfaces;
    std::istringstream stream(names);
    for (string name; std::getline(stream, name, '+');) {
        interfaces.push_back(FindKind(name));
        if (!interfaces.back()) {
            return {};
        }
    }
    return interfaces;
}

// What the system tells about a device: its location, its description, and its hardware ids as a list that an
// empty text ends.
static void SetProperties(PDEVICE_OBJECT pPhysical, const EmuDescriptors& descriptors, ULONG ulPort)
{
    if (ulPort != 0) {
        WCHAR location[] = L"Port_#0000";
        for (int i = 9; i > 5; i--, ulPort /= 10) {
            location[i] = (WCHAR)(L'0' + ulPort % 10);
        }
        HostSetDeviceProperty(pPhysical, DevicePropertyLocationInformation, location, sizeof(location));
    }
    size_t length = 0;
    while (descriptors.pProduct[length]) {
        length++;
    }
    std::vector<WCHAR> text(descriptors.pProduct, descriptors.pProduct + length + 1);
    HostSetDeviceProperty(pPhysical, DevicePropertyDeviceDescription, text.data(),
                          (ULONG)(text.size() * sizeof(WCHAR)));
    length = 0;
    while (descriptors.pHardwareId[length]) {
        length++;
    }
    text.assign(descriptors.pHardwareId, descriptors.pHardwareId + length + 1);
    text.push_back(0);
    HostSetDeviceProperty(pPhysical, DevicePropertyHardwareID, text.data(),
                          (ULONG)(text.size() * sizeof(WCHAR)));
}

// The keyboard's own options, with the handle behind the hooks.
EmuKeyboardOptions EmuKeyboard::KeyboardOptions()
{
    EmuKeyboardOptions options = {};
    options.pHook = m_Options.Hook ? Hook : nullptr;
    options.pHookContext = this;
    options.pSend = m_Options.Send ? Send : nullptr;
    options.pGiveUp = m_Options.GiveUp ? GiveUp : nullptr;
    options.pSendContext = this;
    options.pRequest = m_Options.Record ? Request : nullptr;
    options.pRequestContext = this;
    options.pMemory = m_Options.Memory.get();
    options.pLed = m_Options.OnLed ? Led : nullptr;
    options.pLedContext = this;
    options.StartStatus = m_Options.StartStatus;
    options.ulStartDelayMs = m_Options.StartDelayMs;
    options.bPassive = m_Options.Passive;
    return options;
}

EmuHidOptions EmuKeyboard::HidOptions()
{
    EmuHidOptions options = {};
    options.pObserver = m_Options.OnReceived || m_Options.Record ? Observe : nullptr;
    options.pObserverContext = this;
    options.ulReads = m_Options.Reads;
    options.ulPacketBytes = m_Options.PacketBytes;
    options.bManual = m_Options.Manual;
    options.bNoEnumeration = m_Options.NoEnumeration;
    options.bPatient = m_Options.Patient;
    options.bLoopGuard = m_Options.LoopGuard;
    options.bUsedBuffers = m_Options.UsedBuffers;
    return options;
}

// Puts the driver's filter and the HID stack on the keyboard. False when one of them could not be added.
bool EmuMachine::BuildStack(EmuKeyboard& keyboard)
{
    keyboard.m_AddStatus = STATUS_SUCCESS;
    if (m_pDriver) {
        keyboard.m_AddStatus = HostAddDevice(m_pDriver, keyboard.m_pPhysical);
        if (!NT_SUCCESS(keyboard.m_AddStatus)) {
            return false;
        }
        keyboard.m_ulIndex = m_ulAdded++;
        PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(keyboard.m_pPhysical);
        keyboard.m_pFilter = pTop == keyboard.m_pPhysical ? nullptr : pTop;
        ObDereferenceObject(pTop);
    }
    EmuHidOptions options = keyboard.HidOptions();
    PDEVICE_OBJECT pHid;
    keyboard.m_StartStatus = EmuHidAttach(m_pHid, keyboard.m_pPhysical, &options, &pHid);
    if (!NT_SUCCESS(keyboard.m_StartStatus)) {
        return false;
    }
    ObReferenceObject(pHid);
    keyboard.m_pHid = pHid;
    return true;
}

EmuKeyboard* EmuMachine::Plug(const EmuDescriptors& descriptors, const EmuPlugOptions& options)
{
    m_Keyboards.push_back(std::make_unique<EmuKeyboard>(options));
    EmuKeyboard& keyboard = *m_Keyboards.back();
    EmuKeyboardOptions keyboardOptions = keyboard.KeyboardOptions();
    PDEVICE_OBJECT pPhysical;
    keyboard.m_AddStatus = EmuCreateKeyboard(m_pKeyboards, &descriptors, &keyboardOptions, &pPhysical);
    if (!NT_SUCCESS(keyboard.m_AddStatus)) {
        return &keyboard;
    }
    ObReferenceObject(pPhysical);
    keyboard.m_pPhysical = pPhysical;
    keyboard.m_bPlugged = true;
    keyboard.m_AddStatus = keyboard.SetRules(options.Rules);
    SetProperties(pPhysical, descriptors, options.Port);
    if (!NT_SUCCESS(keyboard.m_AddStatus) || !BuildStack(keyboard)) {
        keyboard.Remove();
    } else if (options.Start) {
        keyboard.Start();
    }
    return &keyboard;
}

void EmuMachine::Forget(EmuKeyboard* pKeyboard)
{
    pKeyboard->Forget();
    auto isIt = [pKeyboard](const auto& pHeld) { return pHeld.get() == pKeyboard; };
    m_Keyboards.erase(std::remove_if(m_Keyboards.begin(), m_Keyboards.end(), isIt), m_Keyboards.end());
}

// Loads a neighbour's driver when it is first needed. Null when it could not be loaded.
static PDRIVER_OBJECT LoadOnce(PDRIVER_OBJECT* ppDriver, PDRIVER_INITIALIZE pEntry, const WCHAR* pService)
{
    if (!*ppDriver && !NT_SUCCESS(HostLoadDriver(pEntry, pService, ppDriver))) {
        *ppDriver = nullptr;
    }
    return *ppDriver;
}

EmuClassDevice* EmuMachine::AddClassDevice(USHORT usNumber)
{
    PDRIVER_OBJECT pDriver = LoadOnce(&m_pClass, EmuClassEntry, L"EmuClass");
    m_ClassDevices.push_back(std::make_unique<EmuClassDevice>(pDriver, usNumber, m_bSettles));
    return m_ClassDevices.back().get();
}

EmuSibling* EmuMachine::AddSibling(EmuSiblingKind kind)
{
    PDRIVER_OBJECT pDriver = LoadOnce(&m_pSiblings, EmuSiblingEntry, L"EmuSibling");
    m_Siblings.push_back(std::make_unique<EmuSibling>(pDriver, kind, m_bSettles));
    return m_Siblings.back().get();
}

unsigned EmuMachine::UnloadDrivers()
{
    for (auto& keyboard : m_Keyboards) {
        keyboard->Unplug(false);
        keyboard->Forget();
    }
    m_Siblings.clear();
    m_ClassDevices.clear();
    unsigned leaks = 0;
    for (PDRIVER_OBJECT* ppDriver : {&m_pDriver, &m_pHid, &m_pKeyboards, &m_pSiblings, &m_pClass}) {
        if (*ppDriver) {
            leaks += HostUnloadDriver(*ppDriver);
        }
        *ppDriver = nullptr;
    }
    return leaks;
}

unsigned EmuMachine::Unload()
{
    if (!m_bRunning) {
        return 0;
    }
    m_bRunning = false;
    unsigned leaks = UnloadDrivers();
    return leaks + HostStop();
}
