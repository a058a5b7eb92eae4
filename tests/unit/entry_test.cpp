// entry_test.cpp - the driver's entry and its settings, and the start-up guard.
#include <gtest/gtest.h>

#include "registry.h"
#include "driver/context.h"
#include "driver/driver.h"
#include "macro/macro.h"
#include "report/keytable.h"
#include "siblings/siblings.h"

namespace
{
UCHAR UsageOf(ULONG ulScanCode)
{
    USHORT usUsage = 0, usBytes = 0;
    PS2ToHID(ulScanCode, &usUsage, &usBytes);
    return static_cast<UCHAR>(usUsage);
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
    for (const char* pszLevel : {"dword:00000002", "\"2\""}) { // what follows a bad level is not read
        LoadedDriver driver(Key + "\"LogFile\"=\"n\"\r\n\"LogLevel\"=" + pszLevel +
                            "\r\n\"LogFileSize\"=dword:00001000\r\n");
        EXPECT_EQ(*pszLevel == 'd' ? 0x1000u : 0x20000000u, Settings.ulLogFileSize);
    }
    LoadedDriver driver(Key + "\"LogFile\"=hex(1):66,00,67,00\r\n"); // without a NUL at its end
    ASSERT_EQ(4u, Settings.LogFileName.Length);
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
        EXPECT_EQ(STATUS_SUCCESS, UpdateErrorCount(row.usMode, &ucRefuse));
        if (!(row.usMode == ErrorCountCheck && row.ucRefuse)) {
            EXPECT_EQ(row.llCount, StoredCount()) << row.pStored << " mode " << row.usMode;
        }
        EXPECT_EQ(row.ucRefuse, ucRefuse) << row.pStored << " mode " << row.usMode;
        EXPECT_EQ(0u, HostStop());
    }
}

// What counts is what the next start of the system reads.
TEST(ErrorCount, OutlivesASystemThatStopsInTheSection)
{
    std::string registry;
    for (unsigned uStops = 1; uStops <= 2; uStops++) {
        HostOptions options;
        options.RegistryText = registry;
        HostStart(options);
        UCHAR ucUnused;
        UpdateErrorCount(ErrorCountEnter, &ucUnused); // one section ends well
        UpdateErrorCount(ErrorCountLeave, &ucUnused);
        UpdateErrorCount(ErrorCountEnter, &ucUnused);
        registry = HostFlushedRegistryText();
        EXPECT_EQ(0u, HostStop());
    }
    EmuMachineOptions options = WithRegistry("");
    options.RegistryText = registry;
    EmuMachine machine(options);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, machine.Plug()->AddStatus()) << StoredCount();
    EXPECT_EQ(2, StoredCount());
    EXPECT_EQ(0u, machine.Unload());
}

// What the registry refuses is told, and leaves the stored count and the answer alone.
TEST(ErrorCount, RegistryThatRefuses)
{
    const struct {
        const char* pszStored;
        const char* pszWhat;
        unsigned uNth;
        long long llCount;
    } cases[] = {
        {"\"ErrorCount\"=hex:02,00,00,00\r\n", "key", 1, 2},
        {"\"ErrorCount\"=hex:02,00,00,00\r\n", "value", 2, 2}, // the second query
        {"", "value", 2, -1},                                  // writing the first 0
        {"", "value", 3, 0},                                   // the query behind it
        {"\"ErrorCount\"=hex:01,00,00,00\r\n", "value", 3, 1}, // the write
    };
    for (const auto& row : cases) {
        HostOptions options;
        options.RegistryText = Head + Key + row.pszStored;
        HostStart(options);
        UCHAR ucRefuse = 0x55;
        HostFailNth(row.pszWhat, row.uNth);
        EXPECT_EQ(STATUS_UNSUCCESSFUL, UpdateErrorCount(ErrorCountEnter, &ucRefuse))
            << row.pszWhat << row.uNth;
        HostFailNth(nullptr, 0);
        EXPECT_EQ(0, ucRefuse);
        EXPECT_EQ(row.llCount, StoredCount()) << row.pszWhat << row.uNth;
        EXPECT_EQ(0u, HostStop()) << "the key was closed";
    }
}
} // namespace
