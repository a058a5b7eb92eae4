// control_test.cpp - the control requests as applications of both process sizes send them: what is checked,
// how it fails, how much is reported.
#include <gtest/gtest.h>

#include "control/control.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

namespace
{
constexpr ULONG UNKNOWN_INDEX = 77;
constexpr NTSTATUS OK = STATUS_SUCCESS;
constexpr NTSTATUS TS = STATUS_BUFFER_TOO_SMALL;
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;
constexpr NTSTATUS NO = STATUS_INVALID_DEVICE_REQUEST;
constexpr NTSTATUS BAD = STATUS_INVALID_HANDLE;

class ControlTest : public ::testing::TestWithParam<bool> // true: a 32-bit process
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(OK, machine.LoadStatus());
        pKeyboard = machine.Plug();
        ASSERT_EQ(OK, pKeyboard->StartStatus());
        pApp = std::make_unique<EmuApplication>(GetParam());
        ASSERT_EQ(OK, pApp->OpenStatus());
    }

    void TearDown() override
    {
        pApp.reset();
        EXPECT_EQ(0u, machine.Unload());
    }

    static EmuMachineOptions Options()
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        return options;
    }

    static ULONG PayloadOffset() { return GetParam() ? 4 : 8; }
    static ULONG RecordBytes() { return GetParam() ? 520 : 528; }

    static EmuBytes Record(ULONG ulIndex, const EmuBytes& payload = {})
    {
        EmuBytes in(RecordBytes());
        memcpy(in.data(), &ulIndex, sizeof(ulIndex));
        std::copy(payload.begin(), payload.end(), in.begin() + PayloadOffset());
        return in;
    }

    NTSTATUS Send(ULONG ulCode, const EmuBytes& in, ULONG ulOut)
    {
        Out.assign(ulOut, 0xEE);
        return pApp->Request(ulCode, in, ulOut, &Out);
    }

    EmuMachine machine{Options()};
    EmuKeyboard* pKeyboard = nullptr;
    std::unique_ptr<EmuApplication> pApp;
    EmuBytes Out; // what the last request reported
};

template <typename Value> EmuBytes BytesOf(const Value& value)
{
    const UCHAR* p = reinterpret_cast<const UCHAR*>(&value);
    return EmuBytes(p, p + sizeof(value));
}

enum Input { NoInput, WholeRecord, FourBytes };

struct CodeRow {
    ULONG ulCode;
    Input input;
    ULONG ulOut;          // least output length
    NTSTATUS shortStatus; // of anything missing
    NTSTATUS status;      // of the shortest request that passes, for an unknown keyboard and an empty payload
    ULONG ulInformation;
};

const CodeRow Codes[] = {
    {0x22200C, NoInput, 4, TS, OK, 4},      {0x222014, NoInput, 4, TS, OK, 4},
    {0x222018, NoInput, 0, NO, NO, 0},      {0x22201C, NoInput, 0, NO, NO, 0},
    {0x222020, NoInput, 0, NO, NO, 0},      {0x222024, NoInput, 0, NO, NO, 0},
    {0x222028, NoInput, 4, TS, OK, 4},      {0x22202C, WholeRecord, 4, TS, OK, 4},
    {0x222030, WholeRecord, 0, TS, UN, 0},  {0x222034, WholeRecord, 0, TS, UN, 0},
    {0x222038, WholeRecord, 0, TS, UN, 0},  {0x22203C, WholeRecord, 0, TS, UN, 0},
    {0x222040, NoInput, 2, TS, OK, 2},      {0x222044, WholeRecord, 2052, TS, OK, 2052},
    {0x222048, NoInput, 0, NO, NO, 0},      {0x22204C, WholeRecord, 0, UN, UN, 0},
    {0x222050, WholeRecord, 0, UN, UN, 0},  {0x222054, WholeRecord, 4, UN, UN, 0},
    {0x222058, WholeRecord, 0, UN, UN, 0},  {0x22205C, WholeRecord, 20, UN, UN, 0},
    {0x222060, WholeRecord, 20, UN, UN, 0}, {0x222064, WholeRecord, 2, UN, UN, 2},
    {0x222068, WholeRecord, 0, UN, UN, 0},  {0x22206C, WholeRecord, 4, UN, UN, 4},
    {0x222070, WholeRecord, 0, UN, UN, 0},  {0x222074, WholeRecord, 20, UN, OK, 0},
    {0x222078, WholeRecord, 4, UN, UN, 0},  {0x22207C, WholeRecord, 0, TS, BAD, 0},
    {0x222080, NoInput, 4, TS, OK, 4},      {0x222084, WholeRecord, 0, TS, UN, 0},
    {0x222088, WholeRecord, 0, TS, OK, 0},  {0x22208C, WholeRecord, 0, TS, OK, 0},
    {0x222090, WholeRecord, 0, TS, UN, 0},  {0x222094, WholeRecord, 0, TS, UN, 0},
    {0x222098, WholeRecord, 2, UN, UN, 0},  {0x2220A0, WholeRecord, 0, TS, UN, 0},
    {0x2220A4, WholeRecord, 0, TS, UN, 0},  {0x2220A8, WholeRecord, 0, TS, UN, 0},
    {0x2220C8, WholeRecord, 1, UN, UN, 0},  {0x2220CC, WholeRecord, 0, TS, UN, 0},
    {0x2220D0, WholeRecord, 0, TS, UN, 0},  {0x2220D4, WholeRecord, 0, TS, UN, 0},
    {0x2220D8, WholeRecord, 4, UN, UN, 0},  {0x2220DC, WholeRecord, 1020, UN, OK, 1020},
    {0x2220E0, WholeRecord, 0, TS, BAD, 0}, {0x2220E4, WholeRecord, 0, TS, UN, 0},
    {0x2220E8, WholeRecord, 4, UN, OK, 4},  {0x2220EC, WholeRecord, 0, UN, OK, 0},
    {0x2220F0, WholeRecord, 16, UN, UN, 0}, {0x2220F4, WholeRecord, 16, UN, UN, 0},
    {0x2220F8, WholeRecord, 16, UN, OK, 0}, {0x2220FC, WholeRecord, 4, UN, OK, 4},
    {0x222100, WholeRecord, 0, UN, OK, 0},  {0x222104, NoInput, 4, UN, OK, 4},
    {0x222108, FourBytes, 0, UN, OK, 0},
};
static_assert(ARRAYSIZE(Codes) == 55, "every code");

TEST_P(ControlTest, EveryCodeChecksItsLengths)
{
    for (const CodeRow& row : Codes) {
        SCOPED_TRACE(::testing::Message() << "code " << std::hex << row.ulCode);
        EmuBytes in =
            row.input == WholeRecord ? Record(UNKNOWN_INDEX) : EmuBytes(row.input == FourBytes ? 4 : 0);
        EXPECT_EQ(row.status, Send(row.ulCode, in, row.ulOut));
        EXPECT_EQ(row.ulInformation, Out.size());
        EXPECT_EQ(row.shortStatus, Send(row.ulCode, {}, 0)) << "no buffer";
        EXPECT_EQ(0u, Out.size());
        if (row.ulOut != 0) {
            EXPECT_EQ(row.shortStatus, Send(row.ulCode, in, row.ulOut - 1)) << "output too short";
            EXPECT_EQ(0u, Out.size());
        }
        if (row.input != NoInput) {
            in.pop_back();
            EXPECT_EQ(row.shortStatus, Send(row.ulCode, in, 4096)) << "input too short";
            EXPECT_EQ(0u, Out.size());
        }
    }
}

TEST_P(ControlTest, NumbersWithoutARowAreUnknown)
{
    ULONG ulRows = 0;
    for (ULONG ulCode = 0x222000; ulCode <= 0x22210C; ulCode++) {
        bool bRow = std::any_of(std::begin(Codes), std::end(Codes),
                                [ulCode](const CodeRow& row) { return row.ulCode == ulCode; });
        ulRows += bRow;
        if (!bRow) {
            EXPECT_EQ(NO, Send(ulCode, Record(0), 4096)) << std::hex << ulCode;
            EXPECT_EQ(0u, Out.size());
        }
    }
    EXPECT_EQ(55u, ulRows);
}

TEST_P(ControlTest, KnownKeyboardPassesTheSameChecks)
{
    KeyDefinition definition = {7, 0, 1, 0x400, 1, 0, {0x3B}};
    const struct {
        ULONG ulCode, ulOut, ulInformation;
        EmuBytes payload;
    } Requests[] = {
        {IOCTL_TVUSB_ADD_DEFINITION, 0, 0, BytesOf(definition)},
        {IOCTL_TVUSB_REMOVE_DEFINITION, 0, 0, BytesOf(7u)},
        {IOCTL_TVUSB_GET_NOTIFY_COUNT, 4, 4, {}},
        {IOCTL_TVUSB_CLEAR_NOTIFY, 0, 0, {}},
        {IOCTL_TVUSB_GET_LEDS, 2, 2, {}},
        {IOCTL_TVUSB_GET_RESERVED_STATUS, 1, 1, {}},
        {IOCTL_TVUSB_GET_CONTROL_PIPE, 4, 4, {}},
        {IOCTL_TVUSB_START_PROCESSING, 0, 0, {}},
        {IOCTL_TVUSB_STOP_PROCESSING, 0, 0, {}},
    };
    for (const auto& request : Requests) {
        EXPECT_EQ(OK, Send(request.ulCode, Record(0, request.payload), request.ulOut)) << request.ulCode;
        EXPECT_EQ(request.ulInformation, Out.size());
    }
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_REMOVE_DEFINITION, Record(0, BytesOf(7u)), 0)) << "it is gone";
}

TEST_P(ControlTest, CheckZeroLooksAtByteEightOfALongInput)
{
    const struct {
        ULONG ulIn, ulOut;
        UCHAR ucByte8;
        NTSTATUS status32, status64;
    } Cases[] = {
        {528, 4, 0x02, NO, NO}, {528, 4, 0x04, NO, NO}, {528, 4, 0x01, OK, OK}, {528, 4, 0xF9, OK, OK},
        {527, 4, 0x06, OK, TS}, {528, 3, 0x06, TS, TS}, {519, 4, 0x06, TS, TS}, {520, 4, 0x06, OK, TS},
    };
    for (const auto& check : Cases) {
        EmuBytes in(check.ulIn);
        in[8] = check.ucByte8;
        NTSTATUS expected = GetParam() ? check.status32 : check.status64;
        EXPECT_EQ(expected, Send(0x22202C, in, check.ulOut)) << check.ulIn << " " << int(check.ucByte8);
        EXPECT_EQ(expected == OK ? EmuBytes(4) : EmuBytes(), Out);
    }
}

TEST_P(ControlTest, StateIsReadAndSet)
{
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_GET_VERSION, {}, 100));
    EXPECT_EQ((EmuBytes{0x00, 0x03, 0x01, 0x00}), Out);
    HostAdvanceToUs(HostNowUs() + 5000);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_GET_TIME, {}, 4));
    EXPECT_EQ(BytesOf(static_cast<ULONG>(now.QuadPart / 1000)), Out);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_GET_KEYBOARD_COUNT, {}, 2));
    EXPECT_EQ(BytesOf<USHORT>(1), Out);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_SET_CAPTURE, BytesOf(0x00000101u), 0));
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_GET_CAPTURE, {}, 4));
    EXPECT_EQ(BytesOf(1u), Out);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_SET_CAPTURE, BytesOf(0xFFFFFF00u), 0));
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_GET_CAPTURE, {}, 4));
    EXPECT_EQ(BytesOf(0u), Out);
}

TEST_P(ControlTest, KeyboardsAreListed)
{
    static const WCHAR HardwareIds[] = L"HID\\First\0HID\\Second\0";
    EmuPlugOptions options;
    options.Start = false;
    EmuKeyboard* pSecond = machine.Plug(EmuBootKeyboard, options);
    HostSetDeviceProperty(pSecond->Physical(), DevicePropertyHardwareID, HardwareIds, sizeof(HardwareIds));
    ASSERT_EQ(OK, pSecond->Start());

    bool bSeen[2] = {};
    for (USHORT usPosition = 0; usPosition < 2; usPosition++) {
        ASSERT_EQ(OK, Send(IOCTL_TVUSB_GET_KEYBOARD_INFO, Record(9, BytesOf(usPosition)), 2060));
        ASSERT_EQ(sizeof(KeyboardInfo), Out.size());
        KeyboardInfo info;
        memcpy(&info, Out.data(), sizeof(info));
        ASSERT_LT(info.ulDeviceIndex, 2u);
        bSeen[info.ulDeviceIndex] = true;
        EXPECT_EQ(0, info.Reserved[0]);
        if (info.ulDeviceIndex == 1) {
            EXPECT_EQ(u"HID\\First", std::u16string(info.HardwareId));
            EXPECT_TRUE(
                std::all_of(info.HardwareId + 10, info.HardwareId + 256, [](char16_t c) { return c == 0; }));
        }
    }
    EXPECT_TRUE(bSeen[0] && bSeen[1]);
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_GET_KEYBOARD_INFO, Record(0, BytesOf<USHORT>(2)), 2052));
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_GET_KEYBOARD_INFO, Record(0, BytesOf<USHORT>(0xFFFF)), 2052));

    ASSERT_EQ(OK, Send(IOCTL_TVUSB_LIST_KEYBOARDS, Record(0), 4096));
    KeyboardList list;
    ASSERT_EQ(sizeof(list), Out.size());
    memcpy(&list, Out.data(), sizeof(list));
    EXPECT_EQ(2, list.usCount);
    EXPECT_EQ(1u, list.Entries[0].ulDeviceIndex + list.Entries[1].ulDeviceIndex);

    pKeyboard->Unplug(true);
    pSecond->Unplug(true);
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_GET_KEYBOARD_INFO, {}, 0)) << "no keyboard comes before any length";
}

TEST_P(ControlTest, KeyboardIsFoundByItsInterfaceName)
{
    const UNICODE_STRING& link = FilterContextOf(pKeyboard->Filter())->InterfaceLinkName;
    ASSERT_GT(link.Length, 8);
    auto payload = [](const WCHAR* pFrom, size_t chars) {
        EmuBytes bytes(reinterpret_cast<const UCHAR*>(pFrom), reinterpret_cast<const UCHAR*>(pFrom + chars));
        bytes.resize(bytes.size() + 2);
        return bytes;
    };
    std::vector<WCHAR> name(link.Buffer + 4, link.Buffer + link.Length / 2);
    for (bool bLower : {false, true}) {
        for (WCHAR& c : name) {
            c = static_cast<WCHAR>(bLower ? tolower(c) : toupper(c));
        }
        EXPECT_EQ(OK, Send(IOCTL_TVUSB_FIND_KEYBOARD, Record(9, payload(name.data(), name.size())), 4));
        EXPECT_EQ(BytesOf(0u), Out);
    }
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_FIND_KEYBOARD, Record(9, payload(link.Buffer, link.Length / 2)), 4));
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_FIND_KEYBOARD, Record(9, payload(name.data(), name.size() - 1)), 4));
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_FIND_KEYBOARD, Record(9, EmuBytes(516, 'a')), 4)) << "no end";
    ULONG ulIndex;
    EXPECT_EQ(UN, FindDeviceByInterfaceName(nullptr, &ulIndex));
}

TEST_P(ControlTest, TakeManyLeavesEmptySlotsZero)
{
    NotifyRecord notify = {1, 0, NOTIFY_SOURCE_HOTKEY, 1, 0, 5, 42};
    MacroRecord macro = {MACRO_RECORD_REPORT, 0, 0, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
    EXPECT_EQ(OK, QueueNotifyRecord(pKeyboard->Filter(), &notify));
    EXPECT_EQ(OK, QueueMacroRecord(&macro));
    const struct {
        ULONG ulCode;
        EmuBytes record;
    } Queues[] = {{IOCTL_TVUSB_TAKE_MANY_NOTIFY, BytesOf(notify)},
                  {IOCTL_TVUSB_TAKE_MANY_MACRO, BytesOf(macro)}};
    for (const auto& queue : Queues) {
        ULONG ulSlot = static_cast<ULONG>(queue.record.size());
        EXPECT_EQ(UN, Send(queue.ulCode, Record(0, BytesOf<USHORT>(4)), 3 * ulSlot)) << "nothing is taken";
        EXPECT_EQ(UN, Send(queue.ulCode, Record(0, BytesOf<USHORT>(0xFFFF)), 4096)) << "no 16-bit product";
        EXPECT_EQ(OK, Send(queue.ulCode, Record(0, BytesOf<USHORT>(3)), 4096));
        EmuBytes expected = queue.record;
        expected.resize(3 * ulSlot);
        EXPECT_EQ(expected, Out);
    }
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_TAKE_MANY_NOTIFY, Record(UNKNOWN_INDEX, BytesOf<USHORT>(2)), 40));
    EXPECT_EQ(EmuBytes(40), Out);
}

TEST_P(ControlTest, KeyboardMemoryStaysWithinTheBuffers)
{
    auto access = [](USHORT usLength) { return BytesOf(ULONG(usLength) << 16 | 0x1234); };
    for (ULONG ulCode : {0x222090u, 0x2220A4u, 0x2220D0u}) {
        EXPECT_EQ(TS, Send(ulCode, Record(0, access(101)), 100)) << std::hex << ulCode;
        EXPECT_EQ(TS, Send(ulCode, Record(0, access(0xFFFF)), 4096));
        EXPECT_NE(TS, Send(ulCode, Record(0, access(100)), 100));
        EXPECT_LE(Out.size(), 100u);
    }
    for (ULONG ulCode : {0x222094u, 0x2220A8u, 0x2220D4u}) {
        ULONG ulRoom = RecordBytes() - PayloadOffset() - 4;
        EmuBytes longer = Record(0, access(static_cast<USHORT>(ulRoom + 1)));
        EXPECT_EQ(TS, Send(ulCode, longer, 4096)) << std::hex << ulCode;
        longer.push_back(0);
        EXPECT_NE(TS, Send(ulCode, longer, 0));
        EXPECT_NE(TS, Send(ulCode, Record(0, access(static_cast<USHORT>(ulRoom))), 0));
        EXPECT_EQ(TS, Send(ulCode, Record(0, access(0xFFFF)), 4096));
    }
}

TEST_P(ControlTest, InsertionsStayWithinThePayload)
{
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_INSERT_SCANS, Record(0, {0, 0, 0, 0, 0xFF, 0x01}), 0)) << "511 bytes";
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_INSERT_PACKETS, Record(0, {33, 0}), 0)) << "33 entries";
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_INSERT_PACKETS, Record(0, {0, 0}), 0)) << "none";
}

TEST_P(ControlTest, RecordsBelongToTheProcessSize)
{
    EmuBytes in(528);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_START_PROCESSING, in, 0));
    in.resize(520);
    EXPECT_EQ(GetParam() ? OK : TS, Send(IOCTL_TVUSB_STOP_PROCESSING, in, 0));
    HANDLE hEvent = HostCreateEvent(false);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, Record(0, BytesOf(hEvent)), 0));
    SignalNotifyEvent(pKeyboard->Filter());
    EXPECT_TRUE(HostTakeEvent(hEvent));
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, Record(0), 0));
    HostCloseHandle(hEvent);
}

INSTANTIATE_TEST_SUITE_P(ProcessSizes, ControlTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Bits32" : "Bits64"; });
} // namespace
