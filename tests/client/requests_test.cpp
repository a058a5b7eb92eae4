// requests_test.cpp - what the library sends: each request by one call, its input in both record layouts.
#include <gtest/gtest.h>

#include <map>

#include "client/requesttexts.h"
#include "client/windows_errors.h"
#include "tests/client/record_transport.h"

namespace
{
using Input = std::vector<uint8_t>;

class RequestsTest : public testing::TestWithParam<bool> // true: a 32-bit process
{
protected:
    RequestsTest() : driver(std::make_unique<RecordTransport>(GetParam(), &sent)), keyboard(Find()) {}

    tvusb::Keyboard Find()
    {
        EXPECT_TRUE(driver.Open().Ok());
        auto found = driver.FindByName(u"name"); // index 0, as every answer is zero
        sent.clear();
        return *found;
    }

    // A record with this payload, as the driver expects it.
    static Input Record(const Input& payload)
    {
        size_t at = GetParam() ? 4 : 8;
        Input in(std::max<size_t>(GetParam() ? 520 : 528, at + payload.size()));
        std::copy(payload.begin(), payload.end(), in.begin() + at);
        return in;
    }

    std::vector<Sent> sent;
    tvusb::Driver driver;
    tvusb::Keyboard keyboard;
};

TEST_P(RequestsTest, EachHasOneCall)
{
    auto event = driver.MakeEvent();
    auto macros = driver.Macros();
    auto reserved = driver.ReservedRequests();
    auto each = [](auto&&... status) { (void)std::initializer_list<int>{((void)status, 0)...}; };
    each(driver.GetVersion(), driver.GetTime(), driver.GetModifiers(), driver.GetKeyboardCount(),
         driver.GetKeyboardInfo(0), driver.ListKeyboards(), driver.FindKeyboardIndex(u"name"),
         driver.RegisterApplicationEvent(*event));
    each(keyboard.AddDefinition({}), keyboard.RemoveDefinition(1), keyboard.StartProcessing(),
         keyboard.StopProcessing(), keyboard.InsertScans({}, false),
         keyboard.InsertPackets({FifoEntry()}, false), keyboard.GetLeds(), keyboard.SetLeds(1),
         keyboard.GetTypematic(), keyboard.SetTypematic(1, 1), keyboard.SendKeyCommand(1, 1),
         keyboard.GetReservedStatus(), keyboard.GetControlPipe());
    each(keyboard.ReadDeviceDescriptor(), keyboard.ReadString(1, 0x409), keyboard.ReadEeprom(0, 1),
         keyboard.WriteEeprom(0, {1}), keyboard.ReadDescriptorMemory(0, 1),
         keyboard.WriteDescriptorMemory(0, {1}), keyboard.ReadVendorMemory(0, 1),
         keyboard.WriteVendorMemory(0, {1}));
    auto queue = [&](auto records) {
        each(records.Register(*event), records.Release(), records.Count(), records.Clear(), records.Peek(),
             records.Take(), records.TakeMany(1));
    };
    queue(keyboard.Events());
    queue(macros.Records());
    each(macros.IsOn(), macros.Reload(), macros.GetCapture(), macros.SetCapture(1));
    each(reserved.Refused806(), reserved.Refused807(), reserved.Refused808(), reserved.Refused809(),
         reserved.Refused812(), reserved.Fail(), reserved.GetZero(), reserved.CheckZero(0));

    std::map<uint32_t, int> calls;
    for (const Sent& one : sent) {
        calls[one.ulCode]++;
    }
    for (const tvusb::RequestText& request : tvusb::RequestTexts) {
        EXPECT_EQ(1, calls[request.ulCode]) << request.pName;
    }
    EXPECT_EQ(55u, calls.size());
}

TEST_P(RequestsTest, InputsLieWhereTheDriverReadsThem)
{
    Input expected = Record({7, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0x02, 4, 0, 0, 2, 0, 0, 0, 0xE0, 0x5B});
    (void)keyboard.AddDefinition(
        tvusb::MakeHotkey(7, MODIFIER_ANY_CONTROL | MODIFIER_LEFT_CONTROL, {0xE0, 0x5B}, true));
    EXPECT_EQ(expected, sent.back().In);

    (void)keyboard.WriteEeprom(0x1234, {0xAA, 0xBB, 0xCC});
    EXPECT_EQ(Record({0x34, 0x12, 3, 0, 0xAA, 0xBB, 0xCC}), sent.back().In);
    (void)keyboard.ReadVendorMemory(0x1234, 0x201);
    EXPECT_EQ(Record({0x34, 0x12, 0x01, 0x02}), sent.back().In);
    EXPECT_EQ(0x201u, sent.back().ulOut);
    (void)keyboard.SetTypematic(30, 3);
    EXPECT_EQ(Record({30, 0, 3, 0}), sent.back().In);
    (void)keyboard.SendKeyCommand(1, 0x3B);
    EXPECT_EQ(Record({1, 0, 0, 0, 0, 0, 0x3B, 0}), sent.back().In);
    (void)keyboard.ReadString(2, 0x409);
    EXPECT_EQ(Record({2, 0, 0, 0, 9, 4, 0, 0}), sent.back().In);
    (void)keyboard.InsertScans({0xE0, 0x1D}, true);
    EXPECT_EQ(Record({1, 0, 0, 0, 2, 0, 0xE0, 0x1D}), sent.back().In);
    (void)keyboard.InsertPackets({tvusb::MakeReport({9, 8}), tvusb::MakeReport({7})}, true);
    EXPECT_EQ(Record({2, 0, 0, 0, 0, 0, 0, 0, 2, 0, 9, 8, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 7}),
              sent.back().In);
    (void)driver.FindKeyboardIndex(u"\\\\?\\ab");
    EXPECT_EQ(Record({'a', 0, 'b', 0}), sent.back().In);

    // The handle is as wide as the process's pointers.
    auto event = driver.MakeEvent();
    (void)keyboard.Events().Register(*event);
    Input handle(GetParam() ? 4 : 8, 0xFF);
    handle[0] = 0x9C;
    EXPECT_EQ(Record(handle), sent.back().In);

    // Not a record.
    (void)driver.Macros().SetCapture(0xFE);
    EXPECT_EQ((Input{0xFE, 0, 0, 0}), sent.back().In);
}

TEST_P(RequestsTest, LongWritesLengthenTheInputAndBadValuesAreNotSent)
{
    std::vector<uint8_t> data(0xFFFD, 0x5A);
    EXPECT_TRUE(keyboard.WriteDescriptorMemory(0, data).Ok());
    EXPECT_EQ(sent.back().In.size(), (GetParam() ? 8u : 12u) + data.size());
    EXPECT_EQ(0x5A, sent.back().In.back());

    sent.clear();
    const uint32_t ulBad = tvusb::Status::InvalidParameter;
    data.push_back(0);
    EXPECT_EQ(keyboard.WriteDescriptorMemory(0, data), ulBad);
    EXPECT_EQ(keyboard.WriteEeprom(0, {}), ulBad);
    EXPECT_EQ(keyboard.ReadEeprom(0, 0).Error(), ulBad);
    EXPECT_EQ(keyboard.ReadEeprom(0x100, 1).Error(), ulBad);
    EXPECT_EQ(keyboard.InsertScans(std::vector<uint8_t>(511), false), ulBad);
    EXPECT_EQ(keyboard.InsertPackets({}, false), ulBad);
    EXPECT_EQ(keyboard.InsertPackets(std::vector<FifoEntry>(33), false), ulBad);
    EXPECT_EQ(driver.FindKeyboardIndex(std::u16string(258, u'x')).Error(), ulBad);
    EXPECT_TRUE(sent.empty());
}

INSTANTIATE_TEST_SUITE_P(Processes, RequestsTest, testing::Bool(),
                         [](const auto& info) { return info.param ? "Bits32" : "Bits64"; });

TEST(StatusTest, SaysWhatItMeansForTheRequest)
{
    using tvusb::Status;
    const struct {
        Status status;
        const char* pText;
    } cases[] = {
        {{Status::Unsuccessful, IOCTL_TVUSB_TAKE_NOTIFY},
         "TAKE_NOTIFY: no keyboard has this index, or nothing is queued (0xC0000001)"},
        {{Status::Unsuccessful, IOCTL_TVUSB_GET_VERSION},
         "GET_VERSION: the driver could not do it (0xC0000001)"},
        {Status::OfRequest(Status::Unsuccessful, IOCTL_TVUSB_TAKE_NOTIFY, 3),
         "TAKE_NOTIFY, keyboard 3: no keyboard has this index, or nothing is queued (0xC0000001)"},
        {Status::OfRequest(Status::Cancelled, IOCTL_TVUSB_TAKE_MACRO, 3),
         "TAKE_MACRO: the request was called back (0xC0000120)"},
        {tvusb::Driver(nullptr).Open(), "opening the driver: the driver is not open (0xC0000128)"},
        {{Status::NameNotFound, 0, "opening the driver"},
         "opening the driver: no keyboard of the driver is started, or the driver is not installed "
         "(0xC0000034)"},
        {tvusb::Keyboard().SetLeds(0), "SET_LEDS, no keyboard: the driver is not open (0xC0000128)"},
        {{0xC0000185, IOCTL_TVUSB_READ_EEPROM},
         "READ_EEPROM: the keyboard refused the transfer (0xC0000185)"},
        {{0xC0070457, IOCTL_TVUSB_FAIL},
         "FAIL: the system or the keyboard's bus reported this status (0xC0070457)"},
        {{Status::Success}, "done (0x00000000)"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(row.status.Text(), row.pText);
    }
    EXPECT_TRUE(Status(Status::Timeout).Ok());
    EXPECT_FALSE(Status(0x80000005).Ok());
}

// Numbers of the system's own list; request 0 is the opening.
TEST(WindowsErrorTest, StandsForWhatItMeans)
{
    using tvusb::Status;
    const struct {
        uint32_t ulError, ulRequest, ulStatus;
    } cases[] = {
        {31, IOCTL_TVUSB_GET_LEDS, Status::Unsuccessful},
        {122, IOCTL_TVUSB_READ_EEPROM, Status::BufferTooSmall},
        {433, IOCTL_TVUSB_READ_EEPROM, 0xC000000E},
        {23, IOCTL_TVUSB_READ_EEPROM, Status::DeviceDataError},
        {303, IOCTL_TVUSB_READ_EEPROM, Status::DeletePending},
        {5, IOCTL_TVUSB_READ_EEPROM, Status::DeletePending},
        {5, IOCTL_TVUSB_REGISTER_MACRO_EVENT, Status::AccessDenied},
        {6, IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, Status::InvalidHandle},
        {5, 0, Status::AccessDenied},
        {2, 0, Status::NameNotFound},
        {433, 0, Status::NameNotFound},
        {1111, IOCTL_TVUSB_GET_LEDS, 0xC0070457},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(row.ulStatus, tvusb::StatusOfError(row.ulError, row.ulRequest)) << row.ulError;
    }
}

TEST(TextTest, SurrogatesBecomeUtf8)
{
    EXPECT_EQ("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x94\x91", tvusb::ToUtf8(u"a\u00E4\u20AC\U0001F511"));
    EXPECT_EQ("a\xEF\xBF\xBD", tvusb::ToUtf8({u'a', char16_t(0xD83D)}));
}
} // namespace
