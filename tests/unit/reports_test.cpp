// reports_test.cpp - the report kinds where a story cannot look: lengths that no keyboard sends, what is
// remembered and dumped of them, and repeats that two processors fight about.
#include "machine.h"
#include "urbs.h"

#include <functional>

#include "hotkeys/hotkeys.h"
#include "log/log.h"
#include "report/report.h"

namespace
{
using Handler = std::function<NTSTATUS(ULONG, PUCHAR)>;

// The report in a buffer of exactly its length, so that a byte too many is caught.
NTSTATUS Handle(const Handler& handler, EmuBytes& report)
{
    auto pBuf = std::make_unique<UCHAR[]>(report.size());
    std::copy(report.begin(), report.end(), pBuf.get());
    NTSTATUS status = handler(static_cast<ULONG>(report.size()), pBuf.get());
    std::copy(pBuf.get(), pBuf.get() + report.size(), report.begin());
    return status;
}
} // namespace

class Reports : public KeyboardTest
{
protected:
    void SetUp() override {}

    void Begin(const EmuDescriptors& kind) { Start(kind, {}); }
    void Define(uint32_t ulId, uint32_t ulType, uint32_t ulSwallow, std::initializer_list<uint8_t> scans = {})
    {
        KeyDefinition definition = Hotkey(ulId, 0, scans);
        definition.ulType = ulType;
        definition.ulSwallow = ulSwallow;
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    }
    NTSTATUS Pos(EmuBytes report)
    {
        return Handle([&](ULONG ulLen, PUCHAR pBuf) { return HandleOPOSPacket(Filter(), ulLen, pBuf); },
                      report);
    }
    std::string Events()
    {
        std::string text;
        for (const NotifyRecord& record : Application->TakeRecords(Keyboard->Index())) {
            char hex[16];
            snprintf(hex, sizeof(hex), "%02X ", static_cast<unsigned>(record.ulValue));
            text += hex;
        }
        return text;
    }
};

// A hotkey that the report holds is cut out of reports of a sound length alone.
TEST_F(Reports, ExtendedReportsHaveTheirLengths)
{
    struct Road {
        const char* pszName;
        NTSTATUS (*pHandler)(PDEVICE_OBJECT, ULONG, PUCHAR);
        uint8_t ucScan;   // the hotkey's, behind E0
        EmuBytes Held;    // the report that holds it, continued by 0x55
        EmuBytes Without; // the same without it
        ULONG ulFrom, ulTo;
    } roads[] = {
        {"keys", DiagJaalaaPacket, 0x19, {0xA1, 0, 0, 0x55}, {0xA0, 0, 0, 0x55}, 4, 8},
        {"power", DiagJaalaaPacketPower, 0x5F, {1, 2}, {1, 0}, 2, 2},
        {"Jaalaa", DiagUSBPacket, 0x19, {2, 0xA1, 0, 0, 0x55}, {2, 0xA0, 0, 0, 0x55}, 5, 9},
    };
    Begin(EmuJaalaaKeyboard);
    for (const Road& road : roads) {
        Define(7, 1, 0, {0xE0, road.ucScan});
        for (ULONG ulLen = 0; ulLen <= 12; ulLen++) {
            SCOPED_TRACE(std::string(road.pszName) + " " + std::to_string(ulLen));
            EmuBytes held = road.Held, without = road.Without;
            held.resize(ulLen, 0x55);
            without.resize(ulLen, 0x55);
            EmuBytes report = held;
            bool bSound = ulLen >= road.ulFrom && ulLen <= road.ulTo;
            NTSTATUS status = Handle(
                [&](ULONG ulBytes, PUCHAR pBuf) { return road.pHandler(Filter(), ulBytes, pBuf); }, report);
            EXPECT_EQ(status, bSound ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
            EXPECT_EQ(report, bSound ? without : held);
            WriteShared(Globals.ulModifierFlags, 0u); // eight bytes count as a standard report there
        }
        FreeKeyDefinitions(Filter());
    }
}

TEST_F(Reports, ChicKeyReportsHaveThreeKeyBytes)
{
    Begin(EmuChicKeyboard);
    Define(7, 1, 0, {0xE0, 0x32});
    for (ULONG ulLen = 1; ulLen <= 9; ulLen++) {
        SCOPED_TRACE(ulLen);
        EmuBytes report = {3, 0, 0, 0x44, 0xFF};
        report.resize(ulLen, 0x55);
        EmuBytes wanted = report;
        if (ulLen >= 4) {
            wanted[3] = 0x40; // what follows is no key area
        }
        NTSTATUS status = Handle(
            [&](ULONG ulBytes, PUCHAR pBuf) { return DiagUSBPacket(Filter(), ulBytes, pBuf); }, report);
        EXPECT_EQ(status, ulLen >= 4 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        EXPECT_EQ(report, wanted);
        WriteShared(Globals.ulModifierFlags, 0u); // as above
    }
}

TEST_F(Reports, ThePowerReportIsRememberedAsSent)
{
    Begin(EmuPowerKeyboard);
    Define(7, 1, 1, {0xE0, 0x30});
    EmuBytes report = {0xE9, 0xB5};
    Handle([&](ULONG ulLen, PUCHAR pBuf) { return DiagPowerPacket(Filter(), ulLen, pBuf); }, report);
    EXPECT_EQ((EmuBytes{0xE9, 0xB5}), EmuBytes(Context()->ucOldPowerPacket, Context()->ucOldPowerPacket + 2));
    for (ULONG ulLen : {0u, 1u, 3u, 8u}) {
        EmuBytes other(ulLen, 0x11);
        EXPECT_EQ(STATUS_UNSUCCESSFUL,
                  Handle([&](ULONG ulBytes, PUCHAR pBuf) { return DiagPowerPacket(Filter(), ulBytes, pBuf); },
                         other));
        EXPECT_EQ(other, EmuBytes(ulLen, 0x11));
    }
    EXPECT_EQ(0xE9, Context()->ucOldPowerPacket[0]);
}

// Whatever its length, a point-of-sale report is remembered up to eight bytes; the bytes behind a shorter one
// stay.
TEST_F(Reports, PointOfSaleRemembersEightBytes)
{
    Begin(EmuBootKeyboard);
    Define(5, 5, 1);
    for (ULONG ulLen = 1; ulLen <= 64; ulLen++) {
        SCOPED_TRACE(ulLen);
        UCHAR ucWanted[8];
        memset(ucWanted, 0xEE, sizeof(ucWanted));
        memcpy(Context()->ucOldOPOSPacket, ucWanted, sizeof(ucWanted));
        EmuBytes report(ulLen);
        for (ULONG i = 0; i < ulLen; i++) {
            report[i] = static_cast<UCHAR>(0x70 + i);
        }
        memcpy(ucWanted, report.data(), std::min<size_t>(ulLen, sizeof(ucWanted)));
        EmuBytes handled = report;
        EXPECT_EQ(
            STATUS_SUCCESS,
            Handle([&](ULONG ulBytes, PUCHAR pBuf) { return HandleOPOSPacket(Filter(), ulBytes, pBuf); },
                   handled));
        EXPECT_EQ(0, memcmp(Context()->ucOldOPOSPacket, ucWanted, sizeof(ucWanted)));
        bool bCarriesKeys = ulLen == 8 || ulLen == 3 || ulLen == 2;
        EXPECT_EQ(handled == report, !bCarriesKeys);
        EXPECT_EQ(Events().empty(), !bCarriesKeys || ulLen == 2 || ulLen == 3); // 0x7271 is no usage
    }
}

// The look-up of a consumer usage is as wide as the report says, which of both pages it meets follows.
TEST_F(Reports, ConsumerUsagesAreLookedUpByWidth)
{
    struct {
        EmuBytes report;
        const char* pszEvents;
    } cases[] = {
        {{1, 0xE9, 0x00}, "E0 30 "}, {{1, 0xB5, 0x00}, "E0 19 "}, // its key row is reserved
        {{1, 0xE2, 0x00}, "38 "},                                 // Left Alt comes before Mute
        {{1, 0x04, 0x00}, "1E "},    {{1, 0x83, 0x01}, "E0 6D "}, {{1, 0x52, 0x01}, ""},
        {{1, 0x00, 0x02}, ""},       {{0x83, 0x01}, "E0 6D "},    {{0xE9, 0x00}, ""},
        {{0xB5, 0x00}, ""},          {{0x00, 0x02}, ""},
    };
    Begin(EmuConsumerKeyboard);
    for (const auto& row : cases) {
        Define(5, 5, 0); // nothing was pressed before
        Pos(row.report);
        EXPECT_EQ(row.pszEvents, Events()) << std::hex << row.report[0] << " " << row.report[1];
        FreeKeyDefinitions(Filter());
    }
}

TEST_F(Reports, OnlyTheSwallowByteOfOneSwallows)
{
    Begin(EmuBootKeyboard);
    for (uint32_t ulSwallow : {0u, 1u, 2u, 0x101u, 0x100u}) {
        SCOPED_TRACE(ulSwallow);
        Define(5, 5, ulSwallow);
        EmuBytes report = {2, 0, 4, 5, 0, 6, 0, 0}; // the keys end at the first gap
        Handle([&](ULONG ulLen, PUCHAR pBuf) { return HandleOPOSPacket(Filter(), ulLen, pBuf); }, report);
        bool bSwallowed = static_cast<UCHAR>(ulSwallow) == 1;
        EXPECT_EQ(report,
                  bSwallowed ? (EmuBytes{0, 0, 0, 0, 0, 6, 0, 0}) : (EmuBytes{2, 0, 4, 5, 0, 6, 0, 0}));
        EXPECT_EQ("2A 1E 30 ", Events());
        FreeKeyDefinitions(Filter());
    }
}

TEST_F(Reports, EveryScanCodeByteIsSent)
{
    struct {
        ULONG ulScanCode;
        UCHAR ucBreak, ucHasBreak;
        const char* pszEvents;
    } cases[] = {
        {0x1E, 0, 1, "1E "},
        {0x1E, 1, 1, "9E "},
        {0x1E, 1, 0, ""},
        {0xE02AE037, 0, 1, "E0 2A E0 37 "},
        {0xE02AE037, 1, 1, "E0 AA E0 B7 "},
        {0xE11D45, 0, 0, "E1 1D 45 E1 9D C5 "},
        {0xE11D45, 1, 0, ""},
        {0xE11D45, 1, 1, "E1 9D C5 "}, // if it had a break, it would come once
        {0xE000, 0, 1, "E0 "},         // an empty byte is no event
    };
    Begin(EmuBootKeyboard);
    for (const auto& row : cases) {
        EXPECT_EQ(STATUS_SUCCESS,
                  SendOPOSScanCode(Filter(), row.ulScanCode, row.ucBreak, row.ucHasBreak, 1, nullptr));
        auto records = Application->TakeRecords(Keyboard->Index());
        std::string text;
        for (const NotifyRecord& record : records) {
            EXPECT_EQ(0u, record.ulId); // without a definition
            EXPECT_EQ(NOTIFY_SOURCE_REPORT, record.ucSource);
            char hex[16];
            snprintf(hex, sizeof(hex), "%02X ", static_cast<unsigned>(record.ulValue));
            text += hex;
        }
        EXPECT_EQ(row.pszEvents, text) << std::hex << row.ulScanCode;
    }
}

TEST_F(Reports, DumpsEndWhereTheBytesEnd)
{
    Begin(EmuBootKeyboard);
    KeptLog log(LOG_TRAFFIC);
    memset(Context()->ucOldOPOSPacket, 0xA7, 8);
    Pos(EmuBytes(24, 0xB3));
    EmuBytes empty;
    Handle([&](ULONG ulLen, PUCHAR pBuf) { return DiagJaalaaPacket(Filter(), ulLen, pBuf); }, empty);
    std::string text = log.Take();
    EXPECT_EQ(8u, KeptLog::Count(text, "a7 ")) << text;
    EXPECT_EQ(48u, KeptLog::Count(text, "b3 ")) << text;
    EXPECT_EQ(1u, KeptLog::Count(text, "(HandleOPOSPacket) old packet:")) << text;
    EXPECT_EQ(1u, KeptLog::Count(text, "(DiagJaalaaPacket) new packet:")) << text;
}

// Indexes that came from outside the tables are those of the last rows.
TEST_F(Reports, RepeatsStayWithinTheirTables)
{
    Begin(EmuBootKeyboard);
    Define(5, 5, 0);
    WriteShared(Globals.usTypematicRate, 0xFFFF);
    WriteShared(Globals.usTypematicDelay, 0xFFFF);
    const unsigned long long ullBegin = HostNowUs();
    Pos({0, 0, 4, 0, 0, 0, 0, 0});
    Events();
    HostAdvanceToUs(ullBegin + 1032999);
    EXPECT_EQ("", Events());
    HostAdvanceToUs(ullBegin + 1033000); // 1000 ms, and a period of 33 ms
    EXPECT_EQ("1E ", Events());
}

// The second way to look for hotkeys takes reports of other lengths as they are: no modifiers, keys in front.
TEST_F(Reports, ShortReportsHaveNoModifiers)
{
    Begin(EmuBootKeyboard);
    Define(7, 1, 1, {0x3B});
    EmuBytes report = {1, 0x3A, 5};
    EXPECT_EQ(
        STATUS_SUCCESS,
        Handle([&](ULONG ulLen, PUCHAR pBuf) { return DiagNormalPacket02(Filter(), ulLen, pBuf); }, report));
    EXPECT_EQ((EmuBytes{1, 5, 0}), report);
    EXPECT_EQ(0u, Globals.ulModifierFlags);
    EXPECT_EQ("01 ", Events());
    UCHAR ucOnes[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_TRUE(IsAllRollover(8, ucOnes));
    EXPECT_FALSE(IsAllRollover(7, ucOnes));
    EXPECT_FALSE(IsAllRollover(9, ucOnes));
}

// A callback that was under way on another processor while a report ended its repeat and started the next.
TEST_F(Reports, ALateCallbackArmsNothing)
{
    Begin(EmuBootKeyboard);
    Define(5, 5, 0);
    unsigned long long ullNext;
    Pos({0, 0, 4, 0, 0, 0, 0, 0});
    HostAdvanceToUs(HostNowUs() + 100000);
    Pos({0, 0, 4, 5, 0, 0, 0, 0});
    const unsigned long long ullDue = HostNowUs() + 500000;
    Events();
    for (auto pCallback : {TypematicDelayCallback, TypematicRepeatCallback}) {
        pCallback(nullptr, Filter(), nullptr, nullptr);
        ASSERT_TRUE(HostNextTimerUs(&ullNext));
        EXPECT_EQ(ullNext, ullDue); // the delay of the new repeat, and no other timer
    }
    EXPECT_EQ("", Events());
    HostAdvanceToUs(ullDue + 67000);
    EXPECT_EQ("30 ", Events());
    Pos({0, 0, 4, 5, 0, 0, 0, 0});
    for (auto pCallback : {TypematicDelayCallback, TypematicRepeatCallback}) {
        pCallback(nullptr, Filter(), nullptr, nullptr);
    }
    EXPECT_FALSE(HostNextTimerUs(&ullNext)); // keys that stay held do not repeat again
    EXPECT_EQ("", Events());
}
