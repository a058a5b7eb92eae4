// scene.cpp - plays deeds on a fresh driver.
#include "scene.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "driver/context.h"
#include "driver/driver.h"

// What is freed is kept for a while, so that its use is seen; not more than fits beside the other programs.
extern "C" const char* __asan_default_options()
{
    return "quarantine_size_mb=16:malloc_context_size=4";
}

namespace
{
const struct {
    const char* pName;
    ULONG ulValue;
} SettingRows[] = {
    {"SendUpEventImmediately", 1},
    {"RunDiagNormalPacket02", 1},
    {"Prefix1", 0x3F},
    {"Prefix2", 0x40},
    {"PosKeyPrefix", 0x1D},
    {"KorvexHotkey", 0x00010039},
    {"KorvexHotkey", 0x02010023},
    {"KorvexLEDDisabled", 1},
    {"KorvexLEDDisabled", 0},
    {"KorvexDelay", 0},
    {"KorvexDelay", 20},
    {"LogLevel", 5},
};

EmuMachineOptions OptionsOf(FuzzInput& input, const std::string& root)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.FileRoot = root;
    options.Seed = input.Byte();
    unsigned uMask = input.Word();
    for (const auto& row : SettingRows) {
        if (uMask & 1) {
            options.Settings[row.pName] = row.ulValue;
        }
        uMask >>= 1;
    }
    if (!root.empty()) {
        options.Settings["KorvexConfigFile"] = "\\??\\C:\\macros.bin";
        if (options.Settings.count("LogLevel") != 0) {
            options.Settings["LogFile"] = "\\??\\C:\\log.txt";
        }
    }
    return options;
}
} // namespace

unsigned FuzzSettingBits(const std::string& text)
{
    unsigned uMask = 0;
    std::string last; // a name's first row counts
    for (unsigned i = 0; i < std::size(SettingRows); i++) {
        if (last != SettingRows[i].pName && text.find(SettingRows[i].pName) != std::string::npos) {
            uMask |= 1u << i;
        }
        last = SettingRows[i].pName;
    }
    return uMask;
}

FuzzScene::FuzzScene(FuzzInput& input, const std::string& root) : FuzzScene(OptionsOf(input, root)) {}

FuzzScene::FuzzScene(const EmuMachineOptions& options) : m_pMachine(std::make_unique<EmuMachine>(options))
{
    if (!NT_SUCCESS(m_pMachine->LoadStatus())) {
        fprintf(stderr, "the driver does not load: 0x%08x\n", (unsigned)m_pMachine->LoadStatus());
        abort();
    }
    Open(false);
}

void FuzzScene::Open(bool b32)
{
    m_pApplication.reset();
    m_b32 = b32;
    m_pApplication = std::make_unique<EmuApplication>(b32);
}

void FuzzScene::Plug(unsigned uKind, const EmuPlugOptions& options)
{
    const std::vector<EmuKind>& kinds = EmuMachine::Kinds();
    if (m_Keyboards.size() < MaximumKeyboards) {
        m_pCurrent = m_pMachine->Plug(*kinds[uKind % kinds.size()].pDescriptors, options);
        m_Keyboards.push_back(m_pCurrent);
        m_pApplication->StartReportProcessing(Index());
    }
}

void FuzzScene::Run(std::function<void()> body)
{
    JoinThreads(true);
    if (m_Threads.size() < MaximumThreads) {
        auto pDone = std::make_shared<bool>(false);
        HostThread thread = HostStartThread([body = std::move(body), pDone] {
            body();
            *pDone = true;
        });
        m_Threads.push_back({thread, pDone});
        HostSettle();
    }
}

// Joins the threads that are done, or waits for all.
void FuzzScene::JoinThreads(bool bOnlyDone)
{
    auto join = [bOnlyDone](const Thread& thread) {
        if (bOnlyDone && !*thread.pDone) {
            return false;
        }
        HostJoinThread(thread.Handle);
        return true;
    };
    m_Threads.erase(std::remove_if(m_Threads.begin(), m_Threads.end(), join), m_Threads.end());
}

// A definition: id, type, swallow, modifiers, scan codes.
void FuzzScene::Define(FuzzInput& input)
{
    KeyDefinition definition = {};
    definition.ulId = input.Byte();
    definition.ulType = input.Byte();
    definition.ulSwallow = input.Byte();
    definition.ulModifiers = input.Long();
    std::vector<uint8_t> scans = input.Short();
    definition.usScanCount = static_cast<uint16_t>(scans.size());
    std::copy_n(scans.begin(), std::min(scans.size(), sizeof definition.ucScans), definition.ucScans);
    m_pApplication->AddDefinition(Index(), definition);
}

void FuzzScene::SetRules(FuzzInput& input)
{
    std::vector<EmuAnswerRule> rules(input.Below(4));
    for (EmuAnswerRule& rule : rules) {
        auto any = [&](LONG lValue) { return lValue == 0xFF ? (LONG)EmuAny : lValue; };
        rule.lType = any(input.Byte());
        rule.lRequest = any(input.Byte());
        rule.lValue = rule.lIndex = EmuAny;
        rule.How = static_cast<EmuAnswer>(input.Below(EmuAnswerDeaf + 1));
        rule.ulAmount = input.Byte();
        rule.Status = input.Flag() ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
        rule.ulSkip = input.Below(4);
        rule.ulTimes = input.Below(4);
    }
    m_pCurrent->SetRules(rules);
}

void FuzzScene::Do(FuzzDeed deed, FuzzInput& input)
{
    if (deed == DeedPlug) {
        Plug(input.Byte());
        return;
    }
    if (!m_pCurrent) {
        return;
    }
    static const UCHAR requests[] = {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE,
                                     IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE,
                                     IRP_MN_QUERY_CAPABILITIES};
    switch (deed) {
    case DeedReport:
        m_pCurrent->Report(input.Short());
        break;
    case DeedOn:
        m_pCurrent = m_Keyboards[input.Byte() % m_Keyboards.size()];
        break;
    case DeedUnplug:
        JoinThreads(true);
        if (m_Threads.empty()) {
            m_pCurrent->Unplug(input.Flag());
        } else { // a thread may have a request at it
            m_pCurrent->Unplug(true);
        }
        break;
    case DeedDefine:
        Define(input);
        break;
    case DeedUndefine:
        m_pApplication->RemoveDefinition(Index(), input.Byte());
        break;
    case DeedProcessing:
        input.Flag() ? m_pApplication->StartReportProcessing(Index())
                     : m_pApplication->StopReportProcessing(Index());
        break;
    case DeedScans:
        m_pApplication->InsertScans(Index(), input.Short());
        break;
    case DeedPacket: {
        FifoEntry entry = {};
        std::vector<uint8_t> report = input.Short();
        entry.usLength = static_cast<uint16_t>(report.size());
        std::copy_n(report.begin(), std::min(report.size(), sizeof entry.ucData), entry.ucData);
        m_pApplication->InsertUSBPackets(Index(), {entry});
        break;
    }
    case DeedLed: {
        UCHAR ucLeds = input.Byte();
        EmuHidRoute route = input.Flag() ? EmuHidRouteClass : EmuHidRouteControl;
        EmuKeyboard* pKeyboard = m_pCurrent;
        Run([=] { pKeyboard->SendLed(ucLeds, route); });
        break;
    }
    case DeedWait:
        HostAdvanceToUs(HostNowUs() + std::min<unsigned>(input.Word(), 5000) * 1000ull);
        break;
    case DeedTake:
        m_pApplication->TakeRecords(Index());
        m_pApplication->TakeMacroRecords();
        break;
    case DeedCapture:
        m_pApplication->Request(IOCTL_TVUSB_SET_CAPTURE, {input.Byte(), 0, 0, 0}, 0);
        break;
    case DeedReread:
        m_pApplication->RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0);
        break;
    case DeedFailRead:
        m_pCurrent->FailRead(input.Flag() ? STATUS_UNSUCCESSFUL : STATUS_CANCELLED);
        break;
    case DeedRules:
        SetRules(input);
        break;
    case DeedRegisterEvent:
        m_pApplication->RegisterNotifyEvent(Index());
        break;
    case DeedReopen:
        Open(input.Flag());
        break;
    case DeedPnp:
        m_pCurrent->SendPnp(requests[input.Byte() % std::size(requests)]);
        break;
    default:
        break;
    }
}

void FuzzScene::Play(FuzzInput& input, unsigned uMost)
{
    while (input.More() && uMost-- != 0) {
        Do(static_cast<FuzzDeed>(input.Below(DeedCount)), input);
    }
}

void FuzzScene::End()
{
    if (!m_pMachine) {
        return;
    }
    JoinThreads(true);
    if (!m_Threads.empty()) { // what waits for a keyboard ends with it
        for (EmuKeyboard* pKeyboard : m_Keyboards) {
            pKeyboard->Unplug(true);
        }
    }
    JoinThreads(false);
    m_pApplication.reset();
    if (m_pMachine->Unload() != 0) {
        fprintf(stderr, "things are left over at the end\n");
        abort();
    }
    m_pMachine.reset();
}

const std::string& FuzzFolder()
{
    struct Folder {
        Folder()
        {
            const std::filesystem::path memory = "/dev/shm"; // a disk would be waited for at every rewriting
            bool bMemory = access(memory.c_str(), W_OK) == 0;
            Path = ((bMemory ? memory : std::filesystem::temp_directory_path()) / "tv64usb-fuzz-XXXXXX")
                       .string();
            if (!mkdtemp(Path.data())) {
                perror(Path.c_str());
                exit(1);
            }
        }
        ~Folder()
        {
            std::error_code ignored; // a folder that stays does no harm
            std::filesystem::remove_all(Path, ignored);
        }
        std::string Path;
    };
    static Folder folder;
    return folder.Path;
}

void EmptyFuzzFolder()
{
    for (const auto& entry : std::filesystem::directory_iterator(FuzzFolder())) {
        std::filesystem::remove(entry.path());
    }
}

void WriteFuzzFile(const std::string& name, const std::vector<uint8_t>& bytes)
{
    std::ofstream file(FuzzFolder() + "/" + name, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
