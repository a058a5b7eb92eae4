// control_test.cpp - what the control requests answer, to applications of both process sizes.
#include "machine.h"
#include "control/control.h"

namespace
{
constexpr NTSTATUS TS = STATUS_BUFFER_TOO_SMALL;
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;
constexpr NTSTATUS NO = STATUS_INVALID_DEVICE_REQUEST;

class ControlTest : public ApplicationTest
{
};

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
    EmuKeyboard* pSecond = Machine->Plug(EmuBootKeyboard, options);
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

    Keyboard->Unplug(true);
    pSecond->Unplug(true);
    EXPECT_EQ(UN, Send(IOCTL_TVUSB_GET_KEYBOARD_INFO, {}, 0)) << "no keyboard comes before any length";
}

// 128 keyboards: the list has room for 127, and a text that fills its property to the end is cut by one.
TEST_P(ControlTest, TheListOfKeyboardsEndsWithItsRoom)
{
    EmuPlugOptions options;
    options.Start = false;
    options.NoEnumeration = true;
    EmuKeyboard* pLast = nullptr;
    for (int i = 1; i < 128; i++) {
        pLast = Machine->Plug(EmuBootKeyboard, options);
    }
    const std::vector<WCHAR> text(256, L'd');
    HostSetDeviceProperty(pLast->Physical(), DevicePropertyDeviceDescription, text.data(), 512);
    ASSERT_EQ(OK, pLast->Start());
    ASSERT_EQ(OK, Send(IOCTL_TVUSB_LIST_KEYBOARDS, Record(0), 4096));
    KeyboardList list;
    memcpy(&list, Out.data(), sizeof(list));
    EXPECT_EQ(127, list.usCount);
    EXPECT_EQ(127u, list.Entries[0].ulDeviceIndex) << "the newest first";
    EXPECT_EQ(1u, list.Entries[126].ulDeviceIndex);
    KeyboardInfo info;
    memset(&info, 0x55, sizeof(info));
    EXPECT_EQ(OK, GetKeyboardInfo(128, &info)) << "behind the last one nothing is written";
    EXPECT_EQ(0x55555555u, info.ulDeviceIndex);
    EXPECT_EQ(OK, GetKeyboardInfo(0, &info));
    EXPECT_EQ(std::u16string(255, u'd'), std::u16string(info.Description));
}

TEST_P(ControlTest, KeyboardIsFoundByItsInterfaceName)
{
    const UNICODE_STRING& link = ContextOf(Keyboard)->InterfaceLinkName;
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
    HostFailNth("interface", 1); // this one has no name, and the search goes on behind it
    EmuKeyboard* pNameless = Machine->Plug();
    HostFailNth(nullptr, 0);
    EXPECT_EQ(0, ContextOf(pNameless)->ucInterfaceRegistered);
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_FIND_KEYBOARD, Record(9, payload(name.data(), name.size())), 4));
    EXPECT_EQ(BytesOf(0u), Out);
    ULONG ulIndex;
    std::vector<WCHAR> tooLong(259, L'a');
    tooLong.push_back(0);
    EXPECT_EQ(UN, FindDeviceByInterfaceName(tooLong.data(), &ulIndex));
    EXPECT_EQ(UN, FindDeviceByInterfaceName(nullptr, &ulIndex));
}

TEST_P(ControlTest, TakeManyLeavesEmptySlotsZero)
{
    NotifyRecord notify = {1, 0, NOTIFY_SOURCE_HOTKEY, 1, 0, 5, 42};
    MacroRecord macro = {MACRO_RECORD_REPORT, 0, 0, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
    EXPECT_EQ(OK, QueueNotifyRecord(FilterOf(Keyboard), &notify));
    EXPECT_EQ(OK, QueueMacroRecord(&macro));
    const struct {
        ULONG ulCode;
        EmuBytes record;
    } Queues[] = {{IOCTL_TVUSB_TAKE_MANY_NOTIFY, BytesOf(notify)},
                  {IOCTL_TVUSB_TAKE_MANY_MACRO, BytesOf(macro)}};
    for (const auto& queue : Queues) {
        ULONG ulSlot = static_cast<ULONG>(queue.record.size());
        EXPECT_EQ(UN, Send(queue.ulCode, Record(0, BytesOf<USHORT>(4)), 3 * ulSlot)) << "nothing is taken";
        EXPECT_EQ(UN, Send(queue.ulCode, Record(0, BytesOf<USHORT>(3277)), 4096)) << "no 16-bit product";
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
    SignalNotifyEvent(FilterOf(Keyboard));
    EXPECT_TRUE(HostTakeEvent(hEvent));
    EXPECT_EQ(OK, Send(IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, Record(0), 0));
    HostCloseHandle(hEvent);
}

INSTANTIATE_TEST_SUITE_P(ProcessSizes, ControlTest, testing::Bool(), ControlTest::SizeName);
} // namespace
