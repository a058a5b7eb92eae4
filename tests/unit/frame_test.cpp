// frame_test.cpp - the driver's frame: entry and its settings, the start-up guard, keyboards that come and
// go, the control device, opens and closes.
#include <gtest/gtest.h>

#include <atomic>

#include "emu/app/application.h"
#include "emu/app/machine.h"

#include "driver/driver.h"
#include "macro/macro.h"
#include "report/keytable.h"
#include "siblings/siblings.h"

namespace
{
const std::string Head = "Windows Registry Editor Version 5.00\r\n\r\n";
const std::string Key =
    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams]\r\n";

// The count as the registry's text shows it: as much as was found, as a number; -1: none.
long long StoredCount()
{
    const std::string text = HostRegistryText();
    const size_t at = text.find("\"ErrorCount\"=hex:");
    if (at == std::string::npos) {
        return -1;
    }
    unsigned bytes[4] = {};
    EXPECT_EQ(4, sscanf(text.c_str() + at, "\"ErrorCount\"=hex:%x,%x,%x,%x", bytes, bytes + 1, bytes + 2,
                        bytes + 3));
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<long long>(bytes[3]) << 24;
}

UCHAR UsageOf(ULONG ulScanCode)
{
    USHORT usUsage = 0, usBytes = 0;
    PS2ToHID(ulScanCode, &usUsage, &usBytes);
    return static_cast<UCHAR>(usUsage);
}

// What the driver guards by its locks, read while nobody else runs.
PDEVICE_OBJECT NewestKeyboard() WITHOUT_LOCK_ANALYSIS
{
    return Globals.pFirstKeyboard;
}

bool HasEvent(DeviceContext* pContext) WITHOUT_LOCK_ANALYSIS
{
    return pContext->pNotifyEvent != nullptr;
}

bool HasMacroEvent() WITHOUT_LOCK_ANALYSIS
{
    return Globals.pMacroEvent != nullptr;
}

// A driver alone, loaded from this registry.
struct LoadedDriver {
    explicit LoadedDriver(const std::string& registry)
    {
        HostOptions options;
        options.RegistryText = registry.empty() ? registry : Head + registry;
        HostStart(options);
        Status = HostLoadDriver(DriverEntry, L"Tv64USB", &pDriver);
    }
    ~LoadedDriver()
    {
        if (NT_SUCCESS(Status)) {
            EXPECT_EQ(0u, HostUnloadDriver(pDriver));
        }
        EXPECT_EQ(0u, HostStop());
    }
    PDRIVER_OBJECT pDriver = nullptr;
    NTSTATUS Status;
};

TEST(Entry, WithoutSettings)
{
    LoadedDriver driver("[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tv64USB]\r\n");
    ASSERT_EQ(STATUS_SUCCESS, driver.Status);
    EXPECT_EQ(0x7Du, Settings.ulPrefix1);
    EXPECT_EQ(0x7Bu, Settings.ulPrefix2);
    EXPECT_EQ(0x79u, Settings.ulPosKeyPrefix);
    EXPECT_EQ(0u, Settings.ulSendUpEventImmediately);
    EXPECT_EQ(0u, Settings.ulRunDiagNormalPacket02);
    EXPECT_EQ(0u, Settings.LogFileName.Length);
    EXPECT_EQ(255u, Settings.LogFileName.MaximumLength);
    EXPECT_EQ(0u, Settings.ulLogLevel);
    EXPECT_EQ(0x20000000u, Settings.ulLogFileSize);
    EXPECT_EQ(nullptr, Globals.pLogBuffer);
    EXPECT_EQ(23u, Globals.usTypematicRate);
    EXPECT_EQ(1u, Globals.usTypematicDelay);
    EXPECT_EQ(UsageOf(0x7D), Globals.ucPrefix1Usage);
    EXPECT_EQ(UsageOf(0x7B), Globals.ucPrefix2Usage);
    EXPECT_EQ(UsageOf(0x79), Globals.ucPosKeyPrefixUsage);
    EXPECT_EQ(0, StoredCount()) << "made, raised and lowered again";
    UNICODE_STRING tail, end = Globals.ParametersPath;
    RtlInitUnicodeString(&tail, L"\\Tv64USB\\TolvenParams");
    end.Buffer += (end.Length - tail.Length) / sizeof(WCHAR);
    end.Length = tail.Length;
    EXPECT_EQ(0, RtlCompareUnicodeString(&tail, &end, FALSE));
    EXPECT_EQ(Globals.RegistryPathCopy.Length + 10, Globals.RegistryPathCopy.MaximumLength);
    EXPECT_FALSE(IsMouseSiblingConnected()) << "there is no control device yet";
}

TEST(Entry, ReadsItsSettings)
{
    LoadedDriver driver(Key +
                        "\"Prefix1\"=dword:00000001\r\n\"Prefix2\"=dword:0000ffff\r\n"
                        "\"PosKeyPrefix\"=dword:0000e01d\r\n\"SendUpEventImmediately\"=dword:00000005\r\n"
                        "\"RunDiagNormalPacket02\"=dword:00000001\r\n\"LogLevel\"=dword:00000003\r\n"
                        "\"LogFileSize\"=dword:00001000\r\n");
    EXPECT_EQ(0x29, Globals.ucPrefix1Usage); // Esc
    EXPECT_EQ(0, Globals.ucPrefix2Usage) << "unknown scan code";
    EXPECT_EQ(UsageOf(0xE01D), Globals.ucPosKeyPrefixUsage);
    EXPECT_EQ(5u, Settings.ulSendUpEventImmediately);
    EXPECT_EQ(1u, Settings.ulRunDiagNormalPacket02);
    EXPECT_EQ(3u, Settings.ulLogLevel) << "an absent log file is no failure";
    EXPECT_EQ(0x1000u, Settings.ulLogFileSize);
}

TEST(Entry, KeepsWhatIsStoredWrongly)
{
    LoadedDriver driver(Key +
                        "\"Prefix1\"=\"1\"\r\n\"Prefix2\"=hex(4):01,02\r\n"
                        "\"PosKeyPrefix\"=hex(4):01,00,00,00,02,00,00,00\r\n\"LogFile\"=dword:00000041\r\n"
                        "\"LogLevel\"=dword:00000003\r\n\"LogFileSize\"=dword:00001000\r\n");
    ASSERT_EQ(STATUS_SUCCESS, driver.Status);
    EXPECT_EQ(0x7Du, Settings.ulPrefix1);
    EXPECT_EQ(0x7Bu, Settings.ulPrefix2);
    EXPECT_EQ(0x79u, Settings.ulPosKeyPrefix);
    EXPECT_EQ(0u, Settings.ulSendUpEventImmediately) << "not run over by a long neighbour";
    EXPECT_EQ(0u, Settings.LogFileName.Length);
    EXPECT_EQ(0u, Settings.ulLogLevel) << "unread behind a bad log file";
    EXPECT_EQ(0x20000000u, Settings.ulLogFileSize);
}

TEST(Entry, LogFileNameOfFittingLength)
{
    for (size_t length : {126u, 127u}) {
        LoadedDriver driver(Key + "\"LogFile\"=\"" + std::string(length, 'n') +
                            "\"\r\n\"LogLevel\"=dword:00000002\r\n");
        EXPECT_EQ(length == 126 ? 252u : 0u, Settings.LogFileName.Length);
        EXPECT_EQ(length == 126 ? 2u : 0u, Settings.ulLogLevel);
    }
    LoadedDriver driver(Key + "\"LogFile\"=hex(1):66,00,67,00\r\n"); // without a NUL at its end
    EXPECT_EQ(4u, Settings.LogFileName.Length);
    EXPECT_EQ(0, Settings.LogFileName.Buffer[2]);
}

TEST(Entry, FailsCleanly)
{
    const std::string log = "\"LogFile\"=\"\\\\??\\\\C:\\\\none.log\"\r\n\"LogLevel\"=dword:00000001\r\n";
    unsigned ulFailed = 0;
    for (unsigned ulNth = 1;; ulNth++) {
        HostOptions options;
        options.RegistryText = Head + Key + log;
        HostStart(options);
        HostFailNth(nullptr, ulNth);
        PDRIVER_OBJECT pDriver = nullptr;
        const NTSTATUS status = HostLoadDriver(DriverEntry, L"Tv64USB", &pDriver);
        const bool bDone = HostFallibleCalls() < ulNth;
        HostFailNth(nullptr, 0);
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(0u, HostUnloadDriver(pDriver)) << ulNth;
        } else {
            ulFailed++;
        }
        EXPECT_EQ(0u, HostStop()) << ulNth;
        if (bDone) {
            break;
        }
    }
    EXPECT_EQ(3u, ulFailed) << "only the two path copies and the system's version can fail the entry";
}

TEST(ErrorCount, StoryOfTheGuard)
{
    const struct {
        const char* pStored;
        USHORT usMode;
        long long llCount;
        UCHAR ucRefuse;
    } cases[] = {
        {"", ErrorCountCheck, 0, 0},
        {"", ErrorCountEnter, 1, 0},
        {"hex:00,00,00,00", ErrorCountLeave, 0, 0},
        {"hex:01,00,00,00", ErrorCountCheck, 1, 0},
        {"hex:02,00,00,00", ErrorCountCheck, 2, 1},
        {"hex:02,00,00,00", ErrorCountLeave, 1, 0},
        {"hex:00,01,00,00", ErrorCountEnter, 0x101, 0},
        {"hex:ff,ff,ff,ff", ErrorCountEnter, 0xFFFFFFFF, 0}, // saturates
        {"dword:00000003", ErrorCountLeave, 2, 0},           // whatever the type, written back as bytes
        {"hex:05", ErrorCountEnter, 6, 0},                   // shorter: zero-extended
        {"hex:01,00,00,00,09", ErrorCountEnter, 2, 0},       // longer: the first four
        {"hex:07,00,00,00", 9, 7, 0},                        // another mode
    };
    for (const auto& row : cases) {
        HostOptions options;
        options.RegistryText =
            Head + Key + (*row.pStored ? std::string("\"ErrorCount\"=") + row.pStored + "\r\n" : "");
        HostStart(options);
        UCHAR ucRefuse = 0x55;
        if (!(row.usMode == ErrorCountCheck && row.ucRefuse)) {
            EXPECT_EQ(STATUS_SUCCESS, UpdateErrorCount(row.usMode, &ucRefuse));
            EXPECT_EQ(row.llCount, StoredCount()) << row.pStored << " mode " << row.usMode;
        } else {
            EXPECT_EQ(STATUS_SUCCESS, UpdateErrorCount(row.usMode, &ucRefuse));
        }
        EXPECT_EQ(row.ucRefuse, ucRefuse) << row.pStored << " mode " << row.usMode;
        EXPECT_EQ(0u, HostStop());
    }
}

// Whether the driver's control device can be opened.
bool CanOpen()
{
    HostFile file;
    if (!NT_SUCCESS(HostOpen(L"\\\\.\\TvUSB", &file))) {
        return false;
    }
    HostClose(file);
    return true;
}

EmuMachineOptions WithRegistry(const std::string& values)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.RegistryText = values.empty() ? values : Key + values;
    return options;
}

// Sends one request to a device as the system would.
NTSTATUS Send(PDEVICE_OBJECT pDevice, UCHAR ucMajor, UCHAR ucMinor, ULONG_PTR* pulInformation)
{
    PIRP pIrp = IoAllocateIrp(pDevice->StackSize, FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = ucMajor;
    pNext->MinorFunction = ucMinor;
    pIrp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    pIrp->IoStatus.Information = 77;
    IO_COMPLETION_ROUTINE* pKeep = [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS {
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(pIrp, pKeep, nullptr, TRUE, TRUE, TRUE);
    const NTSTATUS status = IoCallDriver(pDevice, pIrp);
    EXPECT_EQ(status, pIrp->IoStatus.Status);
    *pulInformation = pIrp->IoStatus.Information;
    IoFreeIrp(pIrp);
    return status;
}

TEST(Keyboards, RefusedWhileTooManySectionsWereCutShort)
{
    for (unsigned ulStored : {1u, 2u}) {
        EmuMachine machine(WithRegistry("\"ErrorCount\"=hex:0" + std::to_string(ulStored) + ",00,00,00\r\n"));
        ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
        EmuKeyboard* pKeyboard = machine.Plug();
        EXPECT_EQ(ulStored == 1 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL, pKeyboard->AddStatus());
        EXPECT_EQ(ulStored == 1, CanOpen());
        EXPECT_EQ(ulStored, StoredCount()) << "not raised further";
        EXPECT_EQ(0u, machine.Unload());
    }
}

TEST(Keyboards, IndexesCountUpAndTheControlDeviceIsShared)
{
    EmuMachine machine(WithRegistry("\"SendUpEventImmediately\"=dword:00000100\r\n"));
    EXPECT_FALSE(CanOpen());
    EmuKeyboard* pFirst = machine.Plug();
    EmuKeyboard* pSecond = machine.Plug();
    const PDEVICE_OBJECT pControl = Globals.pControlDevice;
    EXPECT_EQ(2, Globals.usKeyboardCount);
    EXPECT_EQ(0u, FilterContextOf(pFirst->Filter())->ulDeviceIndex);
    EXPECT_EQ(1u, FilterContextOf(pSecond->Filter())->ulDeviceIndex);
    EXPECT_EQ(1, FilterContextOf(pFirst->Filter())->ucSendUpEventImmediately);
    EXPECT_EQ(0, FilterContextOf(pFirst->Filter())->ucRunDiagNormalPacket02);
    ULONG_PTR ulInformation = 0; // a second start counts nothing twice
    EXPECT_EQ(STATUS_SUCCESS, Send(pFirst->Filter(), IRP_MJ_PNP, IRP_MN_START_DEVICE, &ulInformation));
    EXPECT_EQ(2, Globals.usKeyboardCount);
    EXPECT_EQ(2, Globals.usStartedKeyboards);

    PDEVICE_OBJECT pWalk = FirstKeyboard(); // newest first
    EXPECT_EQ(pSecond->Filter(), pWalk);
    pWalk = NextKeyboard(pWalk);
    EXPECT_EQ(pFirst->Filter(), pWalk);
    EXPECT_EQ(nullptr, NextKeyboard(pWalk));

    pFirst->Remove(); // without a surprise removal before it
    EXPECT_EQ(1, Globals.usKeyboardCount);
    EXPECT_EQ(2, Globals.usStartedKeyboards);
    EXPECT_EQ(pControl, Globals.pControlDevice);
    EmuKeyboard* pThird = machine.Plug();
    EXPECT_EQ(2u, FilterContextOf(pThird->Filter())->ulDeviceIndex);
    pThird->Unplug(true);
    EXPECT_TRUE(CanOpen());
    pSecond->Unplug(false);
    EXPECT_FALSE(CanOpen());
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    EXPECT_EQ(0, Globals.usKeyboardCount);
    EXPECT_TRUE(machine.Plug()->StartStatus() == STATUS_SUCCESS && CanOpen()) << "and all over again";
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, StartThatPendsOrFails)
{
    EmuMachine machine(WithRegistry(""));
    EmuPlugOptions options;
    options.StartDelayMs = 30;
    options.StartStatus = STATUS_DEVICE_POWER_FAILURE;
    EmuKeyboard* pKeyboard = machine.Plug(EmuBootKeyboard, options);
    EXPECT_EQ(STATUS_DEVICE_POWER_FAILURE, pKeyboard->StartStatus());
    EXPECT_LE(30000u, HostNowUs());
    EXPECT_TRUE(CanOpen()) << "counted whatever the start's status";
    EXPECT_EQ(1, Globals.usStartedKeyboards);
    DeviceContext* pContext = FilterContextOf(pKeyboard->Filter());
    EXPECT_NE(0, pContext->DeviceDescription[0]);
    const std::u16string big(300, u'd'); // does not fit: the field stays
    const WCHAR cBefore = pContext->DeviceDescription[0];
    HostSetDeviceProperty(pKeyboard->Physical(), DevicePropertyDeviceDescription, big.data(), 600);
    ULONG_PTR ulInformation = 0;
    Send(pKeyboard->Filter(), IRP_MJ_PNP, IRP_MN_START_DEVICE, &ulInformation);
    EXPECT_EQ(cBefore, pContext->DeviceDescription[0]);
    pKeyboard->Unplug(false);
    EXPECT_FALSE(CanOpen());
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, AFailedCreationIsNotCounted)
{
    EmuMachine machine(WithRegistry("\"ErrorCount\"=hex:01,00,00,00\r\n"));
    UNICODE_STRING link, target;
    RtlInitUnicodeString(&link, L"\\DosDevices\\TvUSB");
    RtlInitUnicodeString(&target, L"\\Device\\Elsewhere");
    ASSERT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&link, &target));
    EmuKeyboard* pUncounted = machine.Plug();
    EXPECT_EQ(STATUS_SUCCESS, pUncounted->StartStatus());
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    EXPECT_EQ(0, Globals.usKeyboardCount);
    EXPECT_EQ(0, FilterContextOf(pUncounted->Filter())->ucInterfaceRegistered);
    EXPECT_EQ(0, StoredCount()) << "lowered by one";
    IoDeleteSymbolicLink(&link);

    machine.Plug();
    EXPECT_EQ(1, Globals.usKeyboardCount);
    pUncounted->Unplug(false); // takes nothing off the count
    EXPECT_EQ(1, Globals.usKeyboardCount);
    EXPECT_TRUE(CanOpen());
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, RemovalWaitsForItsUsers)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    const PDEVICE_OBJECT pFilter = pKeyboard->Filter();
    ULONG_PTR ulUnused = 0; // the keyboard itself can be opened too
    EXPECT_EQ(STATUS_SUCCESS, Send(pFilter, IRP_MJ_CREATE, 0, &ulUnused));
    EXPECT_EQ(1, Globals.usOpenCount);
    EXPECT_EQ(STATUS_SUCCESS, Send(pFilter, IRP_MJ_CLOSE, 0, &ulUnused));
    EXPECT_EQ(0, Globals.usOpenCount);
    ASSERT_TRUE(AcquireDevice(pFilter));
    HostThread thread = HostStartThread([pFilter] {
        LARGE_INTEGER delay;
        delay.QuadPart = -10000LL * 20;
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
        EXPECT_FALSE(AcquireDevice(pFilter)) << "no new users";
        EXPECT_EQ(nullptr, FirstKeyboard());
        ULONG_PTR ulInformation = 0;
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_READ, 0, &ulInformation));
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_POWER, IRP_MN_SET_POWER, &ulInformation));
        EXPECT_EQ(STATUS_DELETE_PENDING, Send(pFilter, IRP_MJ_CREATE, 0, &ulInformation));
        EXPECT_EQ(0, Globals.usOpenCount) << "an open that failed does not count";
        ReleaseDevice(pFilter);
    });
    pKeyboard->Remove();
    EXPECT_EQ(20000u, HostNowUs());
    HostJoinThread(thread);
    EXPECT_EQ(nullptr, NewestKeyboard());
    EXPECT_EQ(0u, machine.Unload());
}

TEST(Keyboards, QueryRemoveForwardsAndMarksStay)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    DeviceContext* pContext = FilterContextOf(pKeyboard->Filter());
    SetKorvexKeyboard(pKeyboard->Filter(), 1);
    EXPECT_EQ(KEYDEF_MACRO_MODE, pContext->ulKeyDefTypes & KEYDEF_MACRO_MODE);
    SetKorvexKeyboard(pKeyboard->Filter(), 2); // only 1 switches on
    EXPECT_EQ(0u, pContext->ulKeyDefTypes);
    EXPECT_TRUE(NT_SUCCESS(pKeyboard->SendPnp(IRP_MN_QUERY_REMOVE_DEVICE)));
    EXPECT_TRUE(NT_SUCCESS(pKeyboard->SendPnp(IRP_MN_CANCEL_REMOVE_DEVICE)));
    EXPECT_EQ(1, Globals.usStartedKeyboards);
    EXPECT_EQ(0u, machine.Unload());
}

KeyDefinition Hotkey(uint32_t ulId)
{
    KeyDefinition definition = {};
    definition.ulId = ulId;
    definition.ulType = 1;
    definition.ulModifiers = 0x400;
    definition.usScanCount = 1;
    definition.ucScans[0] = 0x3B;
    return definition;
}

TEST(Application, LastCloseReleasesWhatItSetUp)
{
    EmuMachine machine(WithRegistry(""));
    DeviceContext* pContexts[] = {FilterContextOf(machine.Plug()->Filter()),
                                  FilterContextOf(machine.Plug()->Filter())};
    KEVENT* pClosed = &ControlContextOf(Globals.pControlDevice)->ClosedEvent;
    HANDLE hEvent = HostCreateEvent(false);
    EmuApplication* pFirst = new EmuApplication;
    EmuApplication* pSecond = new EmuApplication(true);
    EXPECT_EQ(2, Globals.usOpenCount);
    for (ULONG i = 0; i < 2; i++) {
        EXPECT_EQ(STATUS_SUCCESS, pFirst->AddDefinition(i, Hotkey(7)));
        EXPECT_EQ(STATUS_SUCCESS, pFirst->StartReportProcessing(i));
        EXPECT_EQ(STATUS_SUCCESS, pFirst->RegisterNotifyEvent(i));
    }
    EXPECT_EQ(STATUS_SUCCESS, pFirst->RegisterMacroEvent());
    EXPECT_EQ(STATUS_SUCCESS, pFirst->RegisterApplicationEvent(hEvent));
    delete pFirst;
    EXPECT_EQ(0, KeReadStateEvent(pClosed)) << "a handle is still open";
    EXPECT_EQ(KEYDEF_HOTKEY, pContexts[0]->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
    delete pSecond;
    EXPECT_NE(0, KeReadStateEvent(pClosed));
    EXPECT_EQ(0, Globals.usOpenCount);
    for (DeviceContext* pContext : pContexts) {
        EXPECT_EQ(0u, pContext->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
        EXPECT_EQ(0, pContext->ucReportProcessing);
        EXPECT_FALSE(HasEvent(pContext));
    }
    EXPECT_FALSE(HasMacroEvent());
    EXPECT_EQ(nullptr, ControlContextOf(Globals.pControlDevice)->pApplicationEvent);
    {
        EmuApplication again;
        EXPECT_EQ(0, KeReadStateEvent(pClosed)) << "cleared by every open";
    }
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
}

// The time that the surprise removal of the only keyboard takes, with an application that closes after so
// many milliseconds (0: not before the removal is through).
unsigned long long SurpriseUs(bool bRegister, unsigned ulCloseMs, bool* pbSignalled)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    EmuApplication application;
    HANDLE hEvent = HostCreateEvent(false);
    if (bRegister) {
        EXPECT_EQ(STATUS_SUCCESS, application.RegisterApplicationEvent(hEvent));
    }
    HostThread thread = nullptr;
    if (ulCloseMs != 0) {
        thread = HostStartThread([&] {
            EXPECT_EQ(STATUS_SUCCESS, HostWaitEvent(hEvent, -1));
            LARGE_INTEGER delay;
            delay.QuadPart = -10000LL * ulCloseMs;
            KeDelayExecutionThread(KernelMode, FALSE, &delay);
            application.Close();
        });
    }
    const unsigned long long ullBefore = HostNowUs();
    EXPECT_TRUE(NT_SUCCESS(pKeyboard->SurpriseRemove()));
    const unsigned long long ullTaken = HostNowUs() - ullBefore;
    *pbSignalled = ulCloseMs != 0 || HostTakeEvent(hEvent);
    EXPECT_EQ(0, Globals.usStartedKeyboards);
    pKeyboard->Remove();
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    if (thread != nullptr) {
        HostJoinThread(thread);
    }
    application.Close(); // may come after its device is gone
    EXPECT_EQ(0, Globals.usOpenCount);
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
    return ullTaken;
}

TEST(Application, IsToldOfTheLastSurpriseRemoval)
{
    bool bSignalled = false;
    EXPECT_EQ(5000000u, SurpriseUs(true, 0, &bSignalled)) << "waits no longer";
    EXPECT_TRUE(bSignalled);
    EXPECT_EQ(40000u, SurpriseUs(true, 40, &bSignalled)) << "goes on at the close";
    EXPECT_EQ(0u, SurpriseUs(false, 0, &bSignalled)) << "nobody to wait for";
    EXPECT_FALSE(bSignalled);
}

TEST(ControlDevice, CompletesEveryMajorFunction)
{
    EmuMachine machine(WithRegistry(""));
    machine.Plug();
    EXPECT_FALSE(IsMouseSiblingConnected());
    ControlContextOf(Globals.pControlDevice)->UsbMouse.ucConnected = 1;
    EXPECT_TRUE(IsMouseSiblingConnected());
    EXPECT_EQ(0u, Globals.pControlDevice->Flags & DO_DEVICE_INITIALIZING);
    ULONG_PTR ulInformation = 0;
    for (UCHAR ucMajor = 0; ucMajor <= IRP_MJ_MAXIMUM_FUNCTION; ucMajor++) {
        if (ucMajor == IRP_MJ_DEVICE_CONTROL) {
            continue; // the dispatcher's own tests
        }
        EXPECT_EQ(STATUS_SUCCESS, Send(Globals.pControlDevice, ucMajor, 0, &ulInformation)) << +ucMajor;
        EXPECT_EQ(0u, ulInformation) << +ucMajor;
    }
    EXPECT_EQ(STATUS_NOT_IMPLEMENTED,
              Send(Globals.pControlDevice, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS, &ulInformation));
    EXPECT_EQ(0u, ulInformation);
    EXPECT_EQ(STATUS_SUCCESS, Send(Globals.pControlDevice, IRP_MJ_CLOSE, 0, &ulInformation));
    EXPECT_EQ(0, Globals.usOpenCount) << "a close at 0 leaves it there";
    EXPECT_EQ(0u, machine.Unload());
}

TEST(ControlDevice, IsNotForTheWorld)
{
    EmuMachine machine(WithRegistry(""));
    machine.Plug();
    const UCHAR* pBytes = static_cast<const UCHAR*>(Globals.pControlDevice->SecurityDescriptor);
    ASSERT_NE(nullptr, pBytes);
    const UCHAR expected[92] = {
        1, 0, 0x04, 0x80, 0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0, // self-relative, access list at 20
        2, 0, 72,   0,    3,    0,    0,    0,                                      // of three entries
        0, 0, 20,   0,    0xFF, 0x01, 0x1F, 0, 1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0, // system: all
        0, 0, 24,   0,    0xFF, 0x01, 0x1F, 0, 1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 32,
        2, 0, 0,                                                                    // administrators: all
        0, 0, 20,   0,    0x9F, 0x01, 0x12, 0, 1, 1, 0, 0, 0, 0, 0, 5, 4,  0, 0, 0, // interactive: read, write
    };
    EXPECT_EQ(0, memcmp(expected, pBytes, sizeof(expected)));
    EXPECT_EQ(0u, machine.Unload());
}

TEST(ControlDevice, SurvivesItsOpenHandles)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pFirst = machine.Plug();
    HANDLE hEvent = HostCreateEvent(false);
    EmuApplication application;
    EXPECT_EQ(STATUS_SUCCESS, application.RegisterApplicationEvent(hEvent));
    pFirst->Remove(); // in order, under an open handle: its event goes with the device
    EmuKeyboard* pSecond = machine.Plug();
    EXPECT_TRUE(CanOpen());
    EXPECT_EQ(1, Globals.usOpenCount);
    application.Close();
    EXPECT_EQ(0, Globals.usOpenCount);
    EXPECT_NE(0, KeReadStateEvent(&ControlContextOf(Globals.pControlDevice)->ClosedEvent));
    {
        EmuApplication late; // registers when the last keyboard, and the control device with it, is gone
        pSecond->Unplug(false);
        EXPECT_EQ(STATUS_SUCCESS, late.RegisterMacroEvent());
    }
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
}

// A keyboard's whole life with an application beside it; what fails on the way is passed over.
void LiveOnce(EmuMachine& machine)
{
    EmuKeyboard* pKeyboard = machine.Plug();
    {
        EmuApplication application;
        HANDLE hEvent = HostCreateEvent(false);
        application.RegisterApplicationEvent(hEvent);
        application.RegisterNotifyEvent(0);
        application.AddDefinition(0, Hotkey(7));
        application.StartReportProcessing(0);
        for (UCHAR ucKey : {0x04, 0x00}) {
            pKeyboard->Report({0, 0, ucKey, 0, 0, 0, 0, 0});
        }
        pKeyboard->Unplug(true);
        application.Close();
        HostCloseHandle(hEvent);
    }
}

TEST(Keyboards, EveryCallThatCanFailMayFail)
{
    for (unsigned ulNth = 1;; ulNth++) {
        EmuMachine machine(
            WithRegistry("\"LogFile\"=\"\\\\??\\\\C:\\\\none.log\"\r\n\"LogLevel\"=dword:00000001\r\n"));
        HostFailNth(nullptr, ulNth);
        LiveOnce(machine);
        const bool bDone = HostFallibleCalls() < ulNth;
        HostFailNth(nullptr, 0);
        EXPECT_EQ(nullptr, Globals.pControlDevice) << ulNth;
        EXPECT_EQ(0, Globals.usKeyboardCount) << ulNth;
        EXPECT_EQ(0, Globals.usOpenCount) << ulNth;
        ASSERT_EQ(0u, machine.Unload()) << ulNth;
        if (bDone) {
            EXPECT_LT(20u, ulNth);
            break;
        }
    }
}

// Keyboards come and go while applications open, define, look for keyboards and close.
TEST(Threads, RemovalMeetsItsUsers)
{
    EmuMachineOptions options = WithRegistry("");
    options.Mode = HostThreaded;
    EmuMachine machine(options);
    EmuKeyboard* pStays = machine.Plug();
    std::atomic<bool> bStop{false};
    std::atomic<ULONG> ulNewest{0};
    std::vector<HostThread> threads;
    for (int i = 0; i < 2; i++) {
        threads.push_back(HostStartThread([&bStop, &ulNewest, i] {
            while (!bStop) {
                EmuApplication application(i == 1);
                for (ULONG ulIndex : {0u, ulNewest.load(), ulNewest + 1}) {
                    application.AddDefinition(ulIndex, Hotkey(7 + i));
                    application.RegisterNotifyEvent(ulIndex);
                    application.StartReportProcessing(ulIndex);
                    application.TakeRecords(ulIndex);
                }
            }
        }));
    }
    for (ULONG i = 1; i <= 25; i++) {
        EmuKeyboard* pKeyboard = machine.Plug();
        ulNewest = i;
        pKeyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        pKeyboard->Unplug(i % 2 == 0);
    }
    bStop = true;
    for (HostThread thread : threads) {
        HostJoinThread(thread);
    }
    EXPECT_EQ(0, Globals.usOpenCount);
    EXPECT_EQ(pStays->Filter(), NewestKeyboard());
    EXPECT_EQ(0u, FilterContextOf(pStays->Filter())->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
