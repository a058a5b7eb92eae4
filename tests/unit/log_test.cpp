// log_test.cpp - the driver's text log: what is kept, how a line looks, what happens when it is full, and the
// way into the file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <host.h>

#include "driver/context.h"
#include "driver/driver.h"
#include "log/log.h"

namespace
{
// The writer's side alone: a buffer that nothing drains.
class LogText : public testing::Test
{
protected:
    void SetUp() override
    {
        HostStart({});
        memset((void*)&Settings, 0, sizeof(Settings));
        memset((void*)&Globals, 0, sizeof(Globals));
        InitializeLog();
        Settings.LogFileName = {2, 4, m_Name};
        Settings.ulLogLevel = LOG_TRAFFIC;
        Globals.pLogBuffer = m_Buffer;
    }
    void TearDown() override
    {
        Globals.pLogBuffer = nullptr;
        EXPECT_EQ(0u, HostStop());
    }
    std::string Take()
    {
        std::string text = m_Buffer;
        CutTo(0);
        return text;
    }
    // As the drain leaves it: so much text, and no mark.
    void CutTo(ULONG ulLength)
    {
        m_Buffer[ulLength] = 0;
        Globals.ulLogLength = ulLength;
        Globals.ucLogCut = 0;
    }
    bool Kept(UCHAR ucLevel)
    {
        LogPrintf(ucLevel, 0, "x");
        return !Take().empty();
    }

    WCHAR m_Name[2] = L"f";
    char m_Buffer[LOG_BUFFER_BYTES] = {};
};

TEST_F(LogText, LevelsThatPass)
{
    const struct {
        ULONG ulLogLevel;
        std::vector<UCHAR> Pass, Stop;
    } cases[] = {
        {0, {0}, {1, 3, 10}},         {3, {0, 1, 2, 3}, {4, 10}},
        {10, {10}, {0, 1, 3, 9, 11}}, // 10 is special: nothing below passes either
        {0x100, {0}, {1, 3, 10}},     // only the low byte counts
        {0x10A, {0, 3, 10}, {11}},    // and only the whole word can be special
    };
    for (const auto& row : cases) {
        Settings.ulLogLevel = row.ulLogLevel;
        for (UCHAR ucLevel : row.Pass) {
            EXPECT_TRUE(IsLogOn(ucLevel)) << row.ulLogLevel << " " << +ucLevel;
            EXPECT_TRUE(Kept(ucLevel)) << row.ulLogLevel << " " << +ucLevel;
        }
        for (UCHAR ucLevel : row.Stop) {
            LogWrite(ucLevel, 0, 0, "x");
            EXPECT_EQ(row.ulLogLevel == 10 && ucLevel < 10 ? "x\r\n" : "", Take())
                << "asked for by level alone";
            EXPECT_FALSE(IsLogOn(ucLevel)) << row.ulLogLevel << " " << +ucLevel;
            EXPECT_FALSE(Kept(ucLevel)) << row.ulLogLevel << " " << +ucLevel;
        }
    }
}

TEST_F(LogText, OffWithoutNameOrBuffer)
{
    m_Name[0] = 0;
    EXPECT_FALSE(Kept(0));
    EXPECT_EQ(0, KeReadStateEvent(&Globals.LogEvent)) << "nothing to drain";
    EXPECT_EQ(0, Globals.ucLogEventPending);
    Settings.LogFileName.Buffer = nullptr;
    EXPECT_FALSE(Kept(0));
    Settings.LogFileName.Buffer = m_Name;
    m_Name[0] = 'f';
    LogPrintf(1, 1, nullptr);
    EXPECT_EQ("", Take());
    EXPECT_TRUE(Kept(0));
    EXPECT_EQ(1, Globals.ucLogEventPending);
    Globals.pLogBuffer = nullptr;
    LogPrintf(0, 1, "into nothing"); // and no fault
    EXPECT_EQ("", Take());
}

TEST_F(LogText, DumpsInLinesOfSixteen)
{
    UCHAR bytes[20];
    for (UCHAR i = 0; i < sizeof(bytes); i++) {
        bytes[i] = static_cast<UCHAR>(0xF0 + i);
    }
    HostAdvanceToUs(123000);
    const std::string time = "07/03/2014 09:41:05:123 -- ";
    const std::string sixteen = time + "t[00-15]: f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff \r\n";
    LogHexDump("t", 16, bytes);
    EXPECT_EQ(sixteen, Take());
    LogHexDump("t", 20, bytes);
    EXPECT_EQ(sixteen + time + "t[16-19]: 00 01 02 03 \r\n", Take());
    LogHexDump("t", 0, bytes);
    EXPECT_EQ(time + "t ulLen is 0\r\n", Take());
    LogHexDump("t", 4, nullptr);
    EXPECT_EQ(time + "t pBuf is NULL\r\n", Take());
    LogHexDump("%s%n 100%:", 1, bytes); // a title is text, no format
    EXPECT_EQ(time + "%s%n 100%:[00-00]: f0 \r\n", Take());
    Settings.ulLogLevel = 0;
    LogHexDump("t", 16, bytes);
    EXPECT_EQ("", Take());
}

TEST_F(LogText, LongMessageIsCut)
{
    const std::string longText(3000, 'a');
    LogPrintf(1, 0, "%s", longText.c_str());
    EXPECT_EQ(std::string(2047, 'a') + "\r\n", Take());
}

TEST_F(LogText, FullBufferKeepsItsReserve)
{
    const std::string line(1000, 'b');
    for (int i = 0; i < 50; i++) {
        LogPrintf(1, 0, "%s", line.c_str());
    }
    EXPECT_EQ(40949u, strlen(m_Buffer));
    EXPECT_EQ(0, memcmp(m_Buffer + 1002 * 40, line.data(), 40949 - 1002 * 40)) << "the last line is cut";
    EXPECT_EQ(1, Globals.ucLogCut);
    CutTo(40940); // nine characters of room: even the time is cut, and all ends at the same place
    LogPrintf(1, 1, "c");
    EXPECT_EQ("07/03/201", std::string(m_Buffer + 40940));
    CutTo(40946); // room for one character of the line end
    LogPrintf(1, 0, "cd");
    EXPECT_EQ("cd\r", std::string(m_Buffer + 40946));
}

// What finds no room costs nothing: it is not even formatted.
TEST_F(LogText, NothingIsFormattedForAFullBuffer)
{
    int formatted = -1;
    LogPrintf(1, 0, "room%n", &formatted);
    EXPECT_EQ(4, formatted);
    EXPECT_EQ("room\r\n", Take());
    memset(m_Buffer, 'b', 40949);
    CutTo(40949);
    formatted = -1;
    KeResetEvent(&Globals.LogEvent); // as the drain takes it
    Globals.ucLogEventPending = 0;
    LogPrintf(1, 0, "none%n", &formatted);
    LogWrite(1, 0, 0, "made before somebody else took the room");
    EXPECT_EQ(-1, formatted);
    EXPECT_EQ(1, Globals.ucLogCut) << "and it is told that something is missing";
    EXPECT_NE(0, KeReadStateEvent(&Globals.LogEvent));
    EXPECT_EQ(40949u, strlen(m_Buffer));
}

TEST_F(LogText, FromAnyLevel)
{
    KIRQL oldIrql;
    SpinLock lock = {};
    KeInitializeSpinLock(&lock.Lock);
    {
        LockScope scope(lock); // the log's own lock is the leaf
        LogPrintf(1, 0, "dispatch");
        EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
    }
    KeResetEvent(&Globals.LogEvent); // as the drain takes it
    Globals.ucLogEventPending = 0;
    KeRaiseIrql(HIGH_LEVEL, &oldIrql);
    LogPrintf(1, 0, "above");
    EXPECT_EQ(HIGH_LEVEL, KeGetCurrentIrql());
    EXPECT_EQ(1, Globals.ucLogDpcPending);
    KeLowerIrql(oldIrql);
    HostSettle();
    EXPECT_EQ(0, Globals.ucLogDpcPending);
    EXPECT_NE(0, KeReadStateEvent(&Globals.LogEvent)) << "the deferred call signals the drain";
    EXPECT_EQ("dispatch\r\nabove\r\n", Take());
}

TEST(LogFormat, AsTheBoundedPrintf)
{
    char out[8];
    memset(out, 'x', sizeof(out));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LogFormat(out, 0, "ab"));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LogFormat(out, 0x80000000ull, "ab"));
    EXPECT_EQ('x', out[0]);
    EXPECT_EQ(STATUS_SUCCESS, LogFormat(out, 4, "%c%02u", 'a', 7u)); // fits exactly
    EXPECT_STREQ("a07", out);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, LogFormat(out, 4, "abcd"));
    EXPECT_STREQ("abc", out);
    EXPECT_EQ('x', out[4]);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, LogFormat(out, 1, "a"));
    EXPECT_STREQ("", out);
}

// The whole log: the driver's own entry starts it, its unload ends it.
class LogInFile : public testing::Test
{
protected:
    void Load(const std::string& values)
    {
        m_Root = std::filesystem::temp_directory_path() / ("tv64usb-log-" + std::to_string(getpid()));
        std::filesystem::remove_all(m_Root);
        std::filesystem::create_directories(m_Root);
        HostOptions options;
        options.FileRoot = m_Root.string();
        options.RegistryText =
            "Windows Registry Editor Version 5.00\r\n\r\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams]\r\n"
            "\"LogLevel\"=dword:00000001\r\n" +
            values;
        HostStart(options);
        m_bRunning = true;
        ASSERT_EQ(STATUS_SUCCESS, HostLoadDriver(DriverEntry, L"Tv64USB", &m_pDriver));
        ASSERT_NE(nullptr, Globals.pLogBuffer);
    }
    void Unload()
    {
        EXPECT_EQ(0u, HostUnloadDriver(m_pDriver));
        EXPECT_EQ(nullptr, Globals.pLogBuffer);
        EXPECT_EQ(0u, HostStop());
        m_bRunning = false;
    }
    void TearDown() override
    {
        if (m_bRunning) { // a test that failed
            HostStop();
        }
        std::filesystem::remove_all(m_Root);
    }
    void StartOver(bool bTogether);
    // The file of that name, wherever under the root the host puts it.
    std::string Read(const std::string& name)
    {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Root)) {
            if (entry.is_regular_file() && entry.path().filename() == name) {
                std::ostringstream text;
                text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
                return text.str();
            }
        }
        return "(no file)";
    }

    std::filesystem::path m_Root;
    bool m_bRunning = false;
    PDRIVER_OBJECT m_pDriver = nullptr;
};

const char* const DrivePath = "\"LogFile\"=\"\\\\??\\\\C:\\\\tv.log\"\r\n";

TEST_F(LogInFile, DrainsAppendsAndLosesNothingAtUnload)
{
    Load("\"LogFile\"=\"C:\\\\tv.log\"\r\n");         // as people write it
    std::ofstream(m_Root / "TV.log") << "before\r\n"; // a name is the same in whatever case
    LogPrintf(1, 0, "one");
    HostSettle();
    EXPECT_EQ("before\r\none\r\n", Read("TV.log"));
    EXPECT_STREQ("", Globals.pLogBuffer);
    EXPECT_EQ(0, Globals.ucLogEventPending);
    LogPrintf(1, 0, "two");
    HostSettle();
    LogPrintf(1, 0, "three");
    Unload();
    EXPECT_EQ("before\r\none\r\ntwo\r\nthree\r\n", Read("TV.log"));
}

// The text that is kept ends within a line, within a line end, or with a whole line: OVERFLOW is a line always.
TEST_F(LogInFile, OverflowIsTold)
{
    for (size_t last : {998, 948, 947}) {
        Load(DrivePath);
        std::string expected;
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);              // the drain cannot come between
        for (int i = 0; i < (last == 998 ? 41 : 50); i++) { // nothing comes behind the cut line, or much
            const std::string line(i == 40 ? last : 998, 'l');
            LogPrintf(1, 0, "%s", line.c_str());
            expected += line + "\r\n";
        }
        if (last != 998) {
            LogHexDump("without a place", 3, "abc");
        }
        KeLowerIrql(oldIrql);
        HostSettle();
        LogPrintf(1, 0, "after");
        Unload();
        const char* pszEnd = last == 998 ? "\r\n" : last == 948 ? "\n" : "";
        EXPECT_EQ(expected.substr(0, 40949) + pszEnd + "OVERFLOW\r\nafter\r\n", Read("tv.log")) << last;
    }
}

TEST_F(LogInFile, ACutTextFitsItsFiles)
{
    Load(std::string(DrivePath) + "\"LogFileSize\"=dword:00001000\r\n"); // room for four lines
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    for (int i = 0; i < 41; i++) {
        LogPrintf(1, 0, "%s", std::string(998, 'l').c_str());
    }
    KeLowerIrql(oldIrql);
    Unload();
    EXPECT_EQ(std::string(949, 'l') + "\r\nOVERFLOW\r\n", Read("tv.log"));
}

TEST_F(LogInFile, OverflowIsToldOnceItCanBe)
{
    Load(DrivePath);
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    for (int i = 0; i < 50; i++) {
        LogPrintf(1, 0, "%s", std::string(998, 'l').c_str());
    }
    KeLowerIrql(oldIrql);
    HostFailNth("write", 2); // the text is written, the line behind it is not
    HostSettle();
    HostFailNth(nullptr, 0);
    EXPECT_EQ(40949u, Read("tv.log").size());
    LogPrintf(1, 0, "missing"); // there is room again, but the mark comes first
    HostSettle();
    EXPECT_EQ("\r\nOVERFLOW\r\n", Read("tv.log").substr(40949));
    LogPrintf(1, 0, "after");
    Unload();
    EXPECT_EQ("\r\nOVERFLOW\r\nafter\r\n", Read("tv.log").substr(40949));
}

// One line after the other, and many that come together, give the same files.
TEST_F(LogInFile, StartsOverAtItsSize)
{
    for (bool bTogether : {true, false}) {
        SCOPED_TRACE(bTogether);
        StartOver(bTogether);
    }
}

TEST_F(LogInFile, KeepsOneFileWhenItMayNotStartOver)
{
    Load(std::string(DrivePath) + "\"LogFileSize\"=dword:00000000\r\n"); // no limit
    std::string expected;
    for (int i = 0; i < 25; i++) {
        LogPrintf(1, 0, "line");
        expected += "line\r\n";
    }
    Unload();
    EXPECT_EQ(expected, Read("tv.log"));
    EXPECT_EQ("(no file)", Read("tv.log.old"));

    Load(std::string(DrivePath) + "\"LogFileSize\"=dword:0000000a\r\n");
    LogPrintf(1, 0, "line %03d", 1);
    HostSettle();
    HostFailNth("fileinfo", 2); // its size is told, its name stays
    LogPrintf(1, 0, "line %03d", 2);
    HostSettle();
    HostFailNth(nullptr, 0);
    EXPECT_EQ("line 001\r\n", Read("tv.log"));
    EXPECT_STREQ("line 002\r\n", Globals.pLogBuffer) << "kept for the next time";
    Unload();
    EXPECT_EQ("line 002\r\n", Read("tv.log"));
    EXPECT_EQ("line 001\r\n", Read("tv.log.old"));
}

// Whoever reads the file and shares reading and writing alone does not stop the log; the file starts over when it is
// not read any more.
TEST_F(LogInFile, IsWrittenWhileItIsRead)
{
    Load(std::string(DrivePath) + "\"LogFileSize\"=dword:00000014\r\n"); // two lines
    LogPrintf(1, 0, "line %03d", 1);
    HostSettle();
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\??\\C:\\tv.log");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE hReader;
    IO_STATUS_BLOCK ioStatus;
    ASSERT_EQ(STATUS_SUCCESS, ZwCreateFile(&hReader, GENERIC_READ, &attributes, &ioStatus, nullptr,
                                           FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0));
    LogPrintf(1, 0, "line %03d", 2);
    HostSettle();
    EXPECT_EQ("line 001\r\nline 002\r\n", Read("tv.log"));
    LogPrintf(1, 0, "line %03d", 3);
    HostSettle();
    EXPECT_STREQ("line 003\r\n", Globals.pLogBuffer) << "kept until the file can start over";
    ZwClose(hReader);
    Unload();
    EXPECT_EQ("line 003\r\n", Read("tv.log"));
    EXPECT_EQ("line 001\r\nline 002\r\n", Read("tv.log.old"));
}

void LogInFile::StartOver(bool bTogether)
{
    Load(std::string(DrivePath) + "\"LogFileSize\"=dword:00000064\r\n"); // 100 bytes: ten lines of ten
    KIRQL oldIrql;
    KeRaiseIrql(bTogether ? DISPATCH_LEVEL : PASSIVE_LEVEL, &oldIrql); // there the drain cannot come between
    for (int i = 0; i < 25; i++) {
        LogPrintf(1, 0, "line %03d", i);
        if (!bTogether) {
            HostSettle();
        }
    }
    KeLowerIrql(oldIrql);
    HostSettle();
    std::string older, newer;
    for (int i = 10; i < 25; i++) {
        char szLine[32];
        snprintf(szLine, sizeof(szLine), "line %03d\r\n", i);
        (i < 20 ? older : newer) += szLine;
    }
    EXPECT_EQ(newer, Read("tv.log"));
    EXPECT_EQ(older, Read("tv.log.old"));
    const std::string longLine(150, 'm'); // longer than the file may be: whole, and alone
    LogPrintf(1, 0, "%s", longLine.c_str());
    Unload();
    EXPECT_EQ(longLine + "\r\n", Read("tv.log"));
    EXPECT_EQ(newer, Read("tv.log.old"));
}

TEST_F(LogInFile, KeepsTheTextWhileTheFileRefuses)
{
    Load("\"LogFile\"=\"\\\\??\\\\C:\\\\later\\\\tv.log\"\r\n"); // the folder is not there yet
    LogPrintf(1, 0, "early");
    HostSettle();
    EXPECT_STREQ("early\r\n", Globals.pLogBuffer);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Root)) {
        if (entry.is_directory()) {
            std::filesystem::create_directory(entry.path() / "later");
        }
    }
    std::filesystem::create_directories(m_Root / "later");
    LogPrintf(1, 0, "late");
    Unload();
    EXPECT_EQ("early\r\nlate\r\n", Read("tv.log"));
}
} // namespace
