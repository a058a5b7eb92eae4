// tour_test.cpp - every control request, in both process sizes: its checks one after the other, no keyboard, an
// unknown one, success.
#include "machine.h"
#include "control/control.h"

namespace
{
constexpr NTSTATUS TS = STATUS_BUFFER_TOO_SMALL;
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;
constexpr NTSTATUS NO = STATUS_INVALID_DEVICE_REQUEST;
constexpr NTSTATUS BAD = STATUS_INVALID_HANDLE;

enum Input { NoInput, WholeRecord, FourBytes };

struct Outcome {
    NTSTATUS status;
    ULONG ulInformation;
};

class TourTest : public ApplicationTest
{
public:
    // The keyboard takes everything; it gives the shortest string there is, and zeros.
    NTSTATUS Answer(const UCHAR* pSetup, EmuBytes& data) override
    {
        if (pSetup[0] == 0x80 && pSetup[3] == USB_STRING_DESCRIPTOR_TYPE) {
            const UCHAR String[] = {4, USB_STRING_DESCRIPTOR_TYPE, 'x', 0};
            data.assign(String, String + std::min(data.size(), sizeof(String)));
            return STATUS_SUCCESS;
        }
        return bToured ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED;
    }

    void SetUp() override
    {
        ApplicationTest::SetUp();
        HostSetCaller32(GetParam());
        ASSERT_EQ(OK, HostOpen(L"\\\\.\\TvUSB", &file));
    }

    void TearDown() override
    {
        HostClose(file);
        ApplicationTest::TearDown();
    }

    // The request itself, as an application is told nothing of what the driver reports with an error.
    NTSTATUS Send(ULONG ulCode, const EmuBytes& in, ULONG ulOut)
    {
        ULONG ulInformation;
        Out.assign(ulOut, 0xEE);
        NTSTATUS status =
            HostDeviceControl(file, ulCode, in.data(), (ULONG)in.size(), Out.data(), ulOut, &ulInformation);
        if (NT_ERROR(status)) {
            EXPECT_EQ(EmuBytes(ulOut, 0xEE), Out) << "no output with an error";
        }
        Out.resize(ulInformation);
        return status;
    }

    EmuBytes Handle() { return BytesOf(hEvent); }
    EmuBytes Definition() { return BytesOf(KeyDefinition{7, 0, 1, 0x400, 1, 0, {0x3B}}); }
    EmuBytes DefinitionId() { return BytesOf(7u); }
    EmuBytes Two() { return BytesOf<USHORT>(2); }
    EmuBytes FiveBytes() { return BytesOf(ULONG{5} << 16); } // at address 0
    EmuBytes Scans() { return {0, 0, 0, 0, 2, 0, 0x1D, 0x9D}; }
    EmuBytes Packets() { return {1, 0, 0, 0, 8, 0, 1, 0, 0, 0, 0, 0, 0, 0}; }

    EmuBytes Notify()
    {
        NotifyRecord record = {1, 0, NOTIFY_SOURCE_HOTKEY, 1, 0, 5, 42};
        EXPECT_EQ(OK, QueueNotifyRecord(FilterOf(Keyboard), &record));
        return Two();
    }

    EmuBytes Macro()
    {
        MacroRecord record = {MACRO_RECORD_REPORT, 0, 0, 1, {1}};
        EXPECT_EQ(OK, QueueMacroRecord(&record));
        return Two();
    }

    EmuBytes Name()
    {
        const UNICODE_STRING& link = ContextOf(Keyboard)->InterfaceLinkName;
        const UCHAR* pName = reinterpret_cast<const UCHAR*>(link.Buffer + 4);
        return EmuBytes(pName, pName + link.Length - 8);
    }

protected:
    struct Row;
    static const Row Rows[55];
    void CheckLengths(const Row& row, NTSTATUS shortStatus, Outcome shortest);
    void CheckSuccess(const Row& row);
    EmuBytes Shortest(const Row& row);

    HANDLE hEvent = nullptr;
    HostFile file = nullptr;
    bool bToured = false; // the keyboard is enumerated, the driver's own requests come
};

struct TourTest::Row {
    ULONG ulCode;
    Input input;
    ULONG ulOut;          // least output length
    NTSTATUS shortStatus; // of anything missing
    Outcome none;         // the shortest request that passes, with an empty payload, without keyboards
    Outcome unknown;      // the same about an unknown keyboard
    Outcome success;      // a long output, about the known one
    EmuBytes (TourTest::*pPrepare)(); // makes the payload of the success, and what it needs
};

// clang-format off
const TourTest::Row TourTest::Rows[55] = {
    {0x22200C, NoInput,     4,    TS, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x222014, NoInput,     4,    TS, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x222018, NoInput,     0,    NO, {NO, 0},    {NO, 0},    {NO, 0},    nullptr},
    {0x22201C, NoInput,     0,    NO, {NO, 0},    {NO, 0},    {NO, 0},    nullptr},
    {0x222020, NoInput,     0,    NO, {NO, 0},    {NO, 0},    {NO, 0},    nullptr},
    {0x222024, NoInput,     0,    NO, {NO, 0},    {NO, 0},    {NO, 0},    nullptr},
    {0x222028, NoInput,     4,    TS, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x22202C, WholeRecord, 4,    TS, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x222030, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::Handle},
    {0x222034, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x222038, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x22203C, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x222040, NoInput,     2,    TS, {OK, 2},    {OK, 2},    {OK, 2},    nullptr},
    {0x222044, WholeRecord, 2052, TS, {UN, 0},    {OK, 2052}, {OK, 2052}, nullptr},
    {0x222048, NoInput,     0,    NO, {NO, 0},    {NO, 0},    {NO, 0},    nullptr},
    {0x22204C, WholeRecord, 0,    UN, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::Definition},
    {0x222050, WholeRecord, 0,    UN, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::DefinitionId},
    {0x222054, WholeRecord, 4,    UN, {UN, 0},    {UN, 0},    {OK, 4},    nullptr},
    {0x222058, WholeRecord, 0,    UN, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x22205C, WholeRecord, 20,   UN, {UN, 0},    {UN, 0},    {OK, 20},   &TourTest::Notify},
    {0x222060, WholeRecord, 20,   UN, {UN, 0},    {UN, 0},    {OK, 20},   &TourTest::Notify},
    {0x222064, WholeRecord, 2,    UN, {UN, 2},    {UN, 2},    {OK, 2},    nullptr},
    {0x222068, WholeRecord, 0,    UN, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x22206C, WholeRecord, 4,    UN, {UN, 4},    {UN, 4},    {OK, 4},    nullptr},
    {0x222070, WholeRecord, 0,    UN, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x222074, WholeRecord, 20,   UN, {OK, 0},    {OK, 0},    {OK, 40},   &TourTest::Notify},
    {0x222078, WholeRecord, 4,    UN, {UN, 0},    {UN, 0},    {OK, 4},    &TourTest::Name},
    {0x22207C, WholeRecord, 0,    TS, {UN, 0},    {BAD, 0},   {OK, 0},    &TourTest::Handle},
    {0x222080, NoInput,     4,    TS, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x222084, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::Scans},
    {0x222088, WholeRecord, 0,    TS, {OK, 0},    {OK, 0},    {OK, 18},   nullptr},
    {0x22208C, WholeRecord, 0,    TS, {OK, 0},    {OK, 0},    {OK, 4},    nullptr},
    {0x222090, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 5},    &TourTest::FiveBytes},
    {0x222094, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::FiveBytes},
    {0x222098, WholeRecord, 2,    UN, {UN, 0},    {UN, 0},    {UN, 0},    nullptr},
    {0x2220A0, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x2220A4, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 5},    &TourTest::FiveBytes},
    {0x2220A8, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::FiveBytes},
    {0x2220C8, WholeRecord, 1,    UN, {UN, 0},    {UN, 0},    {OK, 1},    nullptr},
    {0x2220CC, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::Packets},
    {0x2220D0, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 5},    &TourTest::FiveBytes},
    {0x2220D4, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    &TourTest::FiveBytes},
    {0x2220D8, WholeRecord, 4,    UN, {UN, 0},    {UN, 0},    {OK, 4},    nullptr},
    {0x2220DC, WholeRecord, 1020, UN, {OK, 1020}, {OK, 1020}, {OK, 1020}, nullptr},
    {0x2220E0, WholeRecord, 0,    TS, {BAD, 0},   {BAD, 0},   {OK, 0},    &TourTest::Handle},
    {0x2220E4, WholeRecord, 0,    TS, {UN, 0},    {UN, 0},    {OK, 0},    nullptr},
    {0x2220E8, WholeRecord, 4,    UN, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x2220EC, WholeRecord, 0,    UN, {OK, 0},    {OK, 0},    {OK, 0},    nullptr},
    {0x2220F0, WholeRecord, 16,   UN, {UN, 0},    {UN, 0},    {OK, 16},   &TourTest::Macro},
    {0x2220F4, WholeRecord, 16,   UN, {UN, 0},    {UN, 0},    {OK, 16},   &TourTest::Macro},
    {0x2220F8, WholeRecord, 16,   UN, {OK, 0},    {OK, 0},    {OK, 32},   &TourTest::Macro},
    {0x2220FC, WholeRecord, 4,    UN, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x222100, WholeRecord, 0,    UN, {OK, 0},    {OK, 0},    {OK, 0},    nullptr},
    {0x222104, NoInput,     4,    UN, {OK, 4},    {OK, 4},    {OK, 4},    nullptr},
    {0x222108, FourBytes,   0,    UN, {OK, 0},    {OK, 0},    {OK, 0},    nullptr},
};
// clang-format on

EmuBytes TourTest::Shortest(const Row& row)
{
    return row.input == WholeRecord ? Record(UNKNOWN_INDEX) : EmuBytes(row.input == FourBytes ? 4 : 0);
}

// The shortest request passes; each of its lengths one less, or no buffer at all, does not.
void TourTest::CheckLengths(const Row& row, NTSTATUS shortStatus, Outcome shortest)
{
    EmuBytes in = Shortest(row);
    EXPECT_EQ(shortest.status, Send(row.ulCode, in, row.ulOut));
    EXPECT_EQ(shortest.ulInformation, Out.size());
    EXPECT_EQ(shortStatus, Send(row.ulCode, {}, 0)) << "no buffer";
    EXPECT_EQ(0u, Out.size());
    if (row.ulOut != 0) {
        EXPECT_EQ(shortStatus, Send(row.ulCode, in, row.ulOut - 1)) << "output too short";
        EXPECT_EQ(0u, Out.size());
    }
    if (row.input != NoInput) {
        in.pop_back();
        EXPECT_EQ(shortStatus, Send(row.ulCode, in, 4096)) << "input too short";
        EXPECT_EQ(0u, Out.size());
    }
}

void TourTest::CheckSuccess(const Row& row)
{
    EmuBytes payload = row.pPrepare != nullptr ? (this->*row.pPrepare)() : EmuBytes();
    EmuBytes in = row.input == WholeRecord ? Record(Keyboard->Index(), payload) : Shortest(row);
    EXPECT_EQ(row.success.status, Send(row.ulCode, in, 4096)) << "success";
    EXPECT_EQ(row.success.ulInformation, Out.size());
}

TEST_P(TourTest, EveryRequestInItsOrderOfChecks)
{
    hEvent = HostCreateEvent(false);
    Machine->AddClassDevice(0);
    bToured = true;
    Machine->AddClassDevice(0); // has the key repeat
    for (const Row& row : Rows) {
        SCOPED_TRACE(testing::Message() << "code " << std::hex << row.ulCode);
        CheckLengths(row, row.shortStatus, row.unknown);
    }
    for (const Row& row : Rows) {
        SCOPED_TRACE(testing::Message() << "code " << std::hex << row.ulCode);
        CheckSuccess(row);
    }
    EXPECT_EQ(TS, Send(0x222044, Record(0, BytesOf<USHORT>(1)), 2051))
        << "the length comes before the position";
    EXPECT_EQ(UN, Send(0x222044, Record(0, BytesOf<USHORT>(1)), 2052));
    Keyboard->Unplug(true);
    for (const Row& row : Rows) {
        SCOPED_TRACE(testing::Message() << "without keyboards, code " << std::hex << row.ulCode);
        bool bNeedsKeyboard = row.ulCode == 0x222044; // before any length
        CheckLengths(row, bNeedsKeyboard ? UN : row.shortStatus, row.none);
    }
    Application->Close();
    HostCloseHandle(hEvent);
}

TEST_P(TourTest, NumbersWithoutARowAreUnknown)
{
    for (ULONG ulCode = 0x222000; ulCode <= 0x222114; ulCode++) {
        bool bRow = std::any_of(std::begin(Rows), std::end(Rows),
                                [ulCode](const Row& row) { return row.ulCode == ulCode; });
        if (!bRow) {
            EXPECT_EQ(NO, Send(ulCode, Record(0), 4096)) << std::hex << ulCode;
            EXPECT_EQ(0u, Out.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(ProcessSizes, TourTest, testing::Bool(), TourTest::SizeName);
} // namespace
