// requests_test.cpp - requests that are passed to the keyboard: what goes over the wire, and what the application
// gets when the keyboard answers oddly, late, or not at all.
#include "machine.h"
#include "control/control.h"
#include "log/log.h"

namespace
{
constexpr NTSTATUS TS = STATUS_BUFFER_TOO_SMALL;
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;

// An access of the keyboard's memory: address, length, data.
EmuBytes Access(USHORT usAddress, USHORT usLength, const EmuBytes& data = {})
{
    EmuBytes payload = BytesOf(static_cast<ULONG>(usAddress | usLength << 16));
    payload.insert(payload.end(), data.begin(), data.end());
    return payload;
}

EmuBytes Command(ULONG ulCommand, USHORT usScanCode)
{
    return BytesOf(KeyCommand{ulCommand, 0xFFFF, usScanCode});
}

EmuBytes String(ULONG ulIndex, ULONG ulLanguage)
{
    return BytesOf(DescriptorIndex{ulIndex, ulLanguage});
}

EmuAnswerRule Rule(EmuAnswer How, ULONG ulAmount = 0, NTSTATUS status = 0, ULONG ulSkip = 0)
{
    return {EmuAny, EmuAny, EmuAny, EmuAny, How, ulAmount, status, ulSkip, 0};
}

class RequestsTest : public ApplicationTest
{
protected:
    // Strings come from here when it is set: one answer a read, the last one again and again.
    NTSTATUS Answer(const UCHAR* pSetup, EmuBytes& data) override
    {
        if (strings.empty() || pSetup[0] != 0x80 || pSetup[3] != USB_STRING_DESCRIPTOR_TYPE) {
            return STATUS_NOT_SUPPORTED;
        }
        EmuBytes answer = strings.front();
        if (strings.size() > 1) {
            strings.erase(strings.begin());
        }
        data.assign(answer.begin(), answer.begin() + std::min(answer.size(), data.size()));
        return STATUS_SUCCESS;
    }

    NTSTATUS Ask(ULONG ulCode, const EmuBytes& payload, ULONG ulOut)
    {
        return Send(ulCode, Record(Keyboard->Index(), payload), ulOut);
    }

    std::vector<EmuBytes> strings;
};

TEST_P(RequestsTest, WhatGoesOverTheWire)
{
    const struct {
        ULONG ulCode;
        EmuBytes payload;
        ULONG ulOut;
        std::vector<EmuBytes> wire; // each setup packet and what went out behind it
        NTSTATUS status;
    } Rows[] = {
        {0x222068, {0x07, 0}, 0, {{0x21, 9, 0x00, 0x02, 0, 0, 1, 0, 0x07}}, OK},
        {0x222068, {0x01, 0}, 0, {{0x21, 9, 0x00, 0x02, 0, 0, 1, 0, 0x04}}, OK},
        {0x222068, {0x0A, 0x07}, 0, {{0x21, 9, 0x00, 0x02, 0, 0, 1, 0, 0x01}}, OK},
        {0x222088, {}, 18, {{0x80, 6, 0, 1, 0, 0, 18, 0}}, OK},
        {0x222088, {}, 17, {}, OK},
        {0x22208C,
         String(0x102, 0x10409),
         256,
         {{0x80, 6, 2, 3, 0x09, 0x04, 4, 0}, {0x80, 6, 2, 3, 0x09, 0x04, 0, 1}},
         OK},
        {0x22208C, String(2, 0x0409), 3, {{0x80, 6, 2, 3, 0x09, 0x04, 4, 0}}, OK},
        {0x2220A0, Command(1, 0x3B), 0, {{0x41, 3, 0x3A, 0, 0, 0, 0, 0}}, OK},
        {0x2220A0, Command(1, 0xE05B), 0, {{0x41, 3, 0xE3, 0, 0, 0, 0, 0}}, OK},
        {0x2220A0, Command(1, 0), 0, {{0x41, 3, 0, 0, 0, 0, 0, 0}}, OK},
        {0x2220A0, Command(2, 0x3B), 0, {{0x41, 1, 0, 0, 0, 0, 0, 0}}, OK},
        {0x2220A0, Command(1, 0x7777), 0, {}, UN},
        {0x2220A0, Command(2, 0x7777), 0, {}, UN},
        {0x2220A4, Access(0x1234, 3), 3, {{0xA1, 1, 0x03, 0x02, 0x01, 0x34, 3, 0}}, OK},
        {0x2220A8,
         Access(0x0034, 3, {7, 8, 9}),
         0,
         {{0x21, 9, 0x03, 0x02, 1, 0, 5, 0, 0x34, 0x00, 7, 8, 9}},
         OK},
        {0x2220A4, Access(9, 0), 64, {{0x81, 6, 0, 0x22, 1, 0, 77, 0}}, OK},
        {0x2220A8, Access(9, 0), 64, {{0x81, 6, 0, 0x22, 1, 0, 77, 0}}, OK},
        {0x222090, Access(0x0102, 3), 3, {{0x80, 6, 0xFD, 1, 0x02, 0x01, 3, 0}}, OK},
        {0x222094, Access(0x0102, 2, {7, 8}), 0, {{0x00, 7, 0xFD, 1, 0, 0, 4, 0, 0x02, 0x01, 7, 8}}, OK},
        {0x222090, Access(0x0102, 0), 3, {}, OK},
        {0x222094, Access(0x0102, 0), 0, {}, OK},
        {0x2220D0, Access(0x0102, 3), 3, {{0xC0, 1, 0, 2, 0x02, 0x01, 3, 0}}, OK},
        {0x2220D4, Access(0x0102, 2, {7, 8}), 0, {{0x40, 9, 0, 2, 0x02, 0x01, 2, 0, 7, 8}}, OK},
        {0x2220D0, Access(0x0102, 0), 3, {{0xC0, 1, 0, 2, 0x02, 0x01, 0, 0}}, OK},
        {0x2220D4, Access(0x0102, 0), 3, {{0x40, 9, 0, 2, 0x02, 0x01, 0, 0}}, OK},
    };
    Keyboard->SetRules({{0x41, EmuAny, EmuAny, EmuAny, EmuAnswerStatus, 0, STATUS_SUCCESS, 0, 0}});
    for (size_t i = 0; i < ARRAYSIZE(Rows); i++) {
        SCOPED_TRACE(testing::Message() << "row " << i << ", code " << std::hex << Rows[i].ulCode);
        Keyboard->TakenRequests();
        EXPECT_EQ(Rows[i].status, Ask(Rows[i].ulCode, Rows[i].payload, Rows[i].ulOut));
        std::vector<EmuBytes> wire;
        for (const EmuRequest& request : Keyboard->TakenRequests()) {
            wire.emplace_back(request.Setup.begin(), request.Setup.end());
            wire.back().insert(wire.back().end(), request.Data.begin(), request.Data.end());
        }
        EXPECT_EQ(Rows[i].wire, wire);
    }
}

TEST_P(RequestsTest, LedsAreRememberedAsFlags)
{
    const UCHAR Flags[][2] = {{0x07, 7}, {0x01, 1}, {0x0A, 2}, {0xF4, 4}, {0, 0}};
    for (const auto& flags : Flags) {
        EXPECT_EQ(OK, Ask(0x222068, {flags[0], 0xFF}, 0));
        EXPECT_EQ(OK, Ask(0x222064, {}, 2));
        EXPECT_EQ((EmuBytes{flags[1], 0}), Out);
    }
    Keyboard->SetRules({Rule(EmuAnswerStatus, 0, STATUS_UNSUCCESSFUL)});
    EXPECT_EQ(UN, Ask(0x222068, {5, 0}, 0));
    EXPECT_EQ(OK, Ask(0x222064, {}, 2));
    EXPECT_EQ((EmuBytes{5, 0}), Out) << "what was wanted, though the keyboard did not take it";
}

// The size is told as the number of bytes that are reported, each zero.
TEST_P(RequestsTest, EepromSize)
{
    const struct {
        UCHAR ucUnit, ucCount;
        ULONG ulSize;
    } Sizes[] = {{8, 0x40, 64}, {8, 0xFF, 255}, {0xFF, 0xFF, 8128}, {7, 1, 0}, {3, 3, 1}, {0, 0x40, 0}};
    for (const auto& size : Sizes) {
        Keyboard->Memory().ucEepromUnit = size.ucUnit;
        Keyboard->Memory().ucEepromCount = size.ucCount;
        for (ULONG ulCode : {0x2220A4u, 0x2220A8u}) {
            EXPECT_EQ(OK, Ask(ulCode, Access(0xFFFF, 0), size.ulSize));
            EXPECT_EQ(EmuBytes(size.ulSize), Out);
            EXPECT_EQ(OK, Ask(ulCode, Access(0, 0), 0x4000));
            EXPECT_EQ(EmuBytes(size.ulSize), Out);
            EXPECT_EQ(size.ulSize == 0 ? OK : TS,
                      Ask(ulCode, Access(0, 0), size.ulSize - (size.ulSize != 0)));
            EXPECT_EQ(0u, Out.size());
        }
    }
    Keyboard->SetRules({Rule(EmuAnswerShort, 73)});
    EXPECT_EQ(OK, Ask(0x2220A4, Access(0, 0), 64));
    EXPECT_EQ(0u, Out.size()) << "the count did not come";
}

TEST_P(RequestsTest, StringsOfOddLengths)
{
    auto descriptor = [](UCHAR ucLength, size_t bytes) {
        EmuBytes answer(bytes, 0xAA);
        answer[0] = ucLength;
        answer[1] = USB_STRING_DESCRIPTOR_TYPE;
        return answer;
    };
    auto text = [](size_t letters, size_t length) {
        EmuBytes bytes(letters, 0xAA);
        bytes.resize(length);
        return bytes;
    };
    const struct {
        const char* pWhat;
        std::vector<EmuBytes> answers;
        ULONG ulOut;
        EmuBytes expected;
    } Rows[] = {
        {"it fits exactly", {descriptor(6, 6)}, 6, text(4, 6)},
        {"bytes behind the string are left out", {descriptor(6, 256)}, 100, text(4, 6)},
        {"too long: its length, as far as there is room", {descriptor(6, 6)}, 5, EmuBytes(5)},
        {"no room at all", {descriptor(6, 6)}, 0, {}},
        {"the second is longer", {descriptor(6, 6), descriptor(20, 20)}, 10, EmuBytes(10)},
        {"the second is longer and fits", {descriptor(6, 6), descriptor(8, 8)}, 10, text(6, 8)},
        {"the second is shorter", {descriptor(20, 20), descriptor(4, 4)}, 20, text(2, 4)},
        {"length 255", {descriptor(255, 255)}, 300, text(253, 255)},
        {"length 255 with more behind it", {descriptor(255, 256)}, 255, text(253, 255)},
        {"length 255 without room", {descriptor(255, 256)}, 254, EmuBytes(254)},
        {"length 2", {descriptor(2, 256)}, 300, EmuBytes(2)},
        {"length 1", {descriptor(1, 256)}, 300, EmuBytes(1)},
        {"length 0", {descriptor(0, 256)}, 300, {}},
        {"nothing came", {EmuBytes()}, 300, {}},
        {"nothing came the second time", {descriptor(6, 6), EmuBytes()}, 300, {}},
        {"less came than its length says", {descriptor(10, 10), descriptor(10, 5)}, 300, text(3, 10)},
    };
    for (const auto& row : Rows) {
        SCOPED_TRACE(row.pWhat);
        strings = row.answers;
        EXPECT_EQ(OK, Ask(0x22208C, String(1, 0x409), row.ulOut));
        EXPECT_EQ(row.expected, Out);
    }
    strings.clear();
    for (ULONG ulSkip : {0u, 1u}) {
        Keyboard->SetRules({Rule(EmuAnswerStatus, 0, STATUS_UNSUCCESSFUL, ulSkip)});
        EXPECT_EQ(OK, Ask(0x22208C, String(1, 0x409), 100)) << "a failure is hidden";
        EXPECT_EQ(0u, Out.size());
    }
}

TEST_P(RequestsTest, ShortAndFailedAnswers)
{
    const struct {
        ULONG ulCode, ulLength;
        NTSTATUS stalled;
    } Reads[] = {{0x222088, 18, OK}, {0x222090, 18, UN}, {0x2220A4, 18, UN}, {0x2220D0, 18, UN}};
    for (const auto& read : Reads) {
        SCOPED_TRACE(testing::Message() << "code " << std::hex << read.ulCode);
        EmuBytes payload = Access(0, static_cast<USHORT>(read.ulLength));
        Keyboard->SetRules({});
        ASSERT_EQ(OK, Ask(read.ulCode, payload, 100));
        EmuBytes whole = Out;
        ASSERT_EQ(read.ulLength, whole.size());

        Keyboard->SetRules({Rule(EmuAnswerShort, 7)});
        EXPECT_EQ(OK, Ask(read.ulCode, payload, 100));
        std::fill(whole.begin() + 7, whole.end(), UCHAR{0});
        EXPECT_EQ(whole, Out) << "what did not come is zero";

        Keyboard->SetRules({Rule(EmuAnswerUrbStatus, 18)});
        EXPECT_EQ(OK, Ask(read.ulCode, payload, 100));
        EXPECT_EQ(EmuBytes(read.ulLength), Out) << "only the URB failed";

        Keyboard->SetRules({Rule(EmuAnswerStatus, 0, STATUS_UNSUCCESSFUL)});
        EXPECT_EQ(read.stalled, Ask(read.ulCode, payload, 100));
        EXPECT_EQ(0u, Out.size());
    }
    for (ULONG ulCode : {0x222068u, 0x222094u, 0x2220A0u, 0x2220A8u, 0x2220D4u}) {
        Keyboard->SetRules({Rule(EmuAnswerStatus, 0, STATUS_DEVICE_NOT_READY)});
        EXPECT_EQ(STATUS_DEVICE_NOT_READY, Ask(ulCode, Access(1, 3), 0)) << std::hex << ulCode;
    }
}

TEST_P(RequestsTest, ByNameWithoutABufferOrAKeyboard)
{
    ULONG ulLength = 77;
    UCHAR ucDescriptor[18] = {0x77};
    EXPECT_EQ(OK, GetStringDescriptor(0, 1, 0x409, nullptr, 0xFFFF, &ulLength));
    EXPECT_GT(ulLength, 2u) << "the length alone";
    EXPECT_EQ(UN, GetDeviceDescriptor(99, ucDescriptor));
    EXPECT_EQ(0x77, ucDescriptor[0]);
    Keyboard->TakenRequests();
    EXPECT_EQ(OK, ReadQuintoraEEprom(0, 0, 8, nullptr, &ulLength));
    EXPECT_EQ(0u, ulLength);
    EXPECT_EQ(0u, Keyboard->TakenRequests().size());
}

// The memory families' whole reach: the largest length that an input and an output can hold.
TEST_P(RequestsTest, LargestTransfers)
{
    EmuBytes data(512);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<UCHAR>(i * 7);
    }
    EXPECT_EQ(OK, Ask(0x2220D4, Access(3, 512, data), 0));
    EXPECT_EQ(OK, Ask(0x2220D0, Access(3, 512), 512));
    EXPECT_EQ(data, Out);
    EXPECT_EQ(OK, Ask(0x222094, Access(5, 512, data), 0));
    EXPECT_EQ(OK, Ask(0x222090, Access(5, 512), 512));
    EXPECT_EQ(data, Out);
    EXPECT_EQ(OK, Ask(0x2220D0, Access(0, 0xFFFF), 0xFFFF));
    EXPECT_EQ(0xFFFFu, Out.size());
}

// Without data there is no buffer, and the vendor family still asks.
TEST_P(RequestsTest, EmptyTransfersNeedNoBuffer)
{
    ULONG ulLength = 7;
    Keyboard->TakenRequests();
    EXPECT_EQ(OK, ReadVendorMemory(Keyboard->Index(), 1, 0, nullptr, &ulLength));
    EXPECT_EQ(OK, WriteVendorMemory(Keyboard->Index(), 1, 0, nullptr, &ulLength));
    EXPECT_EQ(0u, ulLength);
    EXPECT_EQ(2u, Keyboard->TakenRequests().size());
    EXPECT_EQ(OK, ReadDescriptorMemory(Keyboard->Index(), 1, 0, nullptr, &ulLength));
    EXPECT_EQ(OK, WriteDescriptorMemory(Keyboard->Index(), 1, 0, nullptr, &ulLength));
    EXPECT_EQ(0u, Keyboard->TakenRequests().size());
}

TEST_P(RequestsTest, WithoutMemoryNothingIsSent)
{
    const struct {
        ULONG ulCode, ulIrps;
        bool bPool;
        NTSTATUS noIrp;
    } Requests[] = {
        {0x222068, 1, true, UN}, {0x222088, 1, false, OK}, {0x22208C, 1, false, OK}, {0x22208C, 2, false, OK},
        {0x222090, 1, true, UN}, {0x222094, 1, true, UN},  {0x2220A0, 1, false, UN}, {0x2220A4, 1, true, UN},
        {0x2220A8, 1, true, UN}, {0x2220D0, 1, true, UN},  {0x2220D4, 1, true, UN},
    };
    for (const auto& request : Requests) {
        SCOPED_TRACE(testing::Message() << "code " << std::hex << request.ulCode);
        EmuBytes payload = request.ulCode == 0x22208C   ? String(1, 0x409)
                           : request.ulCode == 0x2220A0 ? Command(0, 0)
                                                        : Access(1, 5);
        Keyboard->TakenRequests();
        HostFailNth("irp", 1 + request.ulIrps); // the first is the application's own
        EXPECT_EQ(request.noIrp, Ask(request.ulCode, payload, 100));
        EXPECT_EQ(0u, Out.size());
        if (request.bPool) {
            HostFailNth("pool", 1);
            EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Ask(request.ulCode, payload, 100));
        }
        HostFailNth(nullptr, 0);
        EXPECT_EQ(request.ulIrps - 1, Keyboard->TakenRequests().size());
    }
    for (USHORT usLength : {0, 5}) {
        HostFailNth("pool", 1);
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Ask(0x2220A4, Access(0, usLength), 100));
        HostFailNth(nullptr, 0);
    }
}

TEST_P(RequestsTest, LateAnswerIsWaitedFor)
{
    Keyboard->SetRules({Rule(EmuAnswerLate, 40)});
    unsigned long long ullBefore = HostNowUs();
    EXPECT_EQ(OK, Ask(0x22208C, String(3, 0x409), 100));
    EXPECT_EQ((EmuBytes{'0', 0, '0', 0, '0', 0, '1', 0, 0, 0}), Out);
    EXPECT_EQ(80000u, HostNowUs() - ullBefore) << "two reads";
    EXPECT_EQ(OK, Ask(0x2220D4, Access(8, 2, {1, 2}), 0));
    EXPECT_EQ(120000u, HostNowUs() - ullBefore);
}

// Two application threads at once; the keyboard goes while it owes both an answer.
TEST_P(RequestsTest, KeyboardGoesDuringRequests)
{
    for (EmuAnswer How : {EmuAnswerNever, EmuAnswerDeaf}) {
        for (bool bSurprise : {false, true}) {
            EmuKeyboard* pSecond = Machine->Plug(EmuBootKeyboard);
            ASSERT_EQ(OK, pSecond->StartStatus());
            pSecond->SetRules({Rule(How, 0, 0, 1)}); // the string's second read
            NTSTATUS statuses[2] = {STATUS_PENDING, STATUS_PENDING};
            std::vector<UCHAR> out;
            HostThread text = HostStartThread([&] {
                EmuApplication own(GetParam());
                statuses[0] =
                    own.RequestRecord(0x22208C, pSecond->Index(), String(1, 0x409).data(), 8, 100, &out);
            });
            HostSettle();
            HostThread leds = HostStartThread([&] {
                EmuApplication own(GetParam());
                statuses[1] = own.RequestRecord(0x222068, pSecond->Index(), "\7\0", 2);
            });
            HostSettle();
            EXPECT_EQ(2u, pSecond->HeldRequests());
            EXPECT_EQ(STATUS_PENDING, statuses[1]);
            pSecond->Unplug(bSurprise);
            HostJoinThread(text);
            HostJoinThread(leds);
            EXPECT_EQ(OK, statuses[0]);
            EXPECT_TRUE(out.empty());
            EXPECT_FALSE(NT_SUCCESS(statuses[1]));
            EXPECT_EQ(UN, Send(0x222068, Record(pSecond->Index()), 0)) << "it is gone";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(ProcessSizes, RequestsTest, testing::Bool(), RequestsTest::SizeName);
} // namespace
