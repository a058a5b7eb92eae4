// usbip_test.cpp - machines that attach a keyboard over USB/IP: one that keeps to the protocol, and others.
#include <gtest/gtest.h>

#include <unistd.h>

#include "emu/app/application.h"
#include "tests/live/importer.h"
#include "tools/common/failure.h"
#include "tools/live/usbip/offer.h"
#include "tools/live/usbip/server.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
constexpr int PatienceMs = 300;

class UsbipTest : public testing::Test
{
protected:
    static EmuMachineOptions Options()
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.Mode = HostThreaded;
        return options;
    }

    UsbipTest() : machine(Options())
    {
        EmuPlugOptions plug;
        plug.OnReceived = [this](const EmuReceived& received) {
            if (usbip::Export* p = pOffered; p && NT_SUCCESS(received.Status)) {
                p->Input(1, received.Bytes);
            }
        };
        plug.OnLed = [this](const EmuBytes& report) { ulLeds = report[0]; };
        pKeyboard = machine.Plug(EmuBootKeyboard, plug);
        offered = usbip::Offer("1-1", EmuBootKeyboard, *pKeyboard);
        server = std::make_unique<usbip::Server>("127.0.0.1:0", PatienceMs);
        server->Offered().Add(offered);
        pOffered = offered.get();
    }
    ~UsbipTest() override
    {
        pKeyboard->Unplug(true);
        pOffered = nullptr;
        server.reset();
        EXPECT_EQ(0u, machine.Unload());
    }

    // Whether a well-behaved machine is served.
    void ExpectServed()
    {
        Machine other(server->Port());
        ASSERT_EQ(0, other.Import("1-1"));
        other.Put(Machine::Head(1, 1, true, 1, 8));
        Poke(0x05);
        EXPECT_EQ((EmuBytes{0, 0, 0x05, 0, 0, 0, 0, 0}), other.TakeAnswer(true).Data);
    }
    // A press of the key; its release comes with the next.
    void Poke(UCHAR ucKey) { pKeyboard->Report({0, 0, ucKey, 0, 0, 0, 0, 0}); }

    EmuMachine machine;
    EmuKeyboard* pKeyboard = nullptr;
    std::atomic<unsigned> ulLeds{0xFF};
    std::unique_ptr<usbip::Server> server;
    std::shared_ptr<usbip::Export> offered;
    std::atomic<usbip::Export*> pOffered{nullptr};
};

TEST_F(UsbipTest, AMachineListsAttachesReadsAndLightsLeds)
{
    Machine list(server->Port());
    list.Put(Machine::Operation(5));
    EmuBytes told = list.Take(12 + 312 + 4);
    ASSERT_EQ(328u, told.size());
    EXPECT_EQ((EmuBytes{0x01, 0x11, 0, 5, 0, 0, 0, 0, 0, 0, 0, 1}),
              EmuBytes(told.begin(), told.begin() + 12));
    EXPECT_EQ("1-1", std::string(reinterpret_cast<char*>(&told[12 + 256])));
    EXPECT_EQ((EmuBytes{0x7A, 0x3C, 0x01, 0x01}), EmuBytes(told.begin() + 312, told.begin() + 316));
    EXPECT_EQ((EmuBytes{3, 1, 1, 0}), EmuBytes(told.end() - 4, told.end())); // its interface

    Machine importer(server->Port());
    ASSERT_EQ(0, importer.Import("1-1"));
    Machine::Answer device = importer.Control(1, {0x80, 6, 0, 1, 0, 0, 18, 0});
    EXPECT_EQ(1u, device.ulSequence);
    EXPECT_EQ(18u, device.Data.size());
    EXPECT_EQ(9u, importer.Control(2, {0x80, 6, 0, 2, 0, 0, 9, 0}).Data.size());
    EXPECT_EQ(0, importer.Control(3, {0, 9, 1, 0, 0, 0, 0, 0}).iStatus);
    EXPECT_EQ(-32, importer.Control(4, {0x80, 6, 0, 6, 0, 0, 10, 0}).iStatus); // no such descriptor
    EXPECT_EQ(0, importer.Control(5, {0x21, 9, 0, 2, 0, 0, 1, 0}, {2}).iStatus);
    EXPECT_EQ(2u, ulLeds);

    EmuApplication application;
    EXPECT_EQ(STATUS_SUCCESS, application.StartReportProcessing(0));
    EXPECT_EQ(STATUS_SUCCESS, application.AddDefinition(0, {7, 1, 1, 0x400, 1, 0, {0x3B}}));
    for (uint32_t ul = 6; ul < 9; ul++) {
        importer.Put(Machine::Head(1, ul, true, 1, 8));
    }
    pKeyboard->Report({1, 0, 0, 0, 0, 0, 0, 0});
    pKeyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0}); // the driver keeps Ctrl+F1
    Poke(0x04);
    EXPECT_EQ((EmuBytes{1, 0, 0, 0, 0, 0, 0, 0}), importer.TakeAnswer(true).Data);
    EXPECT_EQ((EmuBytes{0, 0, 0, 0, 0, 0, 0, 0}), importer.TakeAnswer(true).Data);
    Machine::Answer last = importer.TakeAnswer(true);
    EXPECT_EQ((EmuBytes{0, 0, 0x04, 0, 0, 0, 0, 0}), last.Data);
    EXPECT_EQ(8u, last.ulSequence);
}

TEST_F(UsbipTest, AReadIsTakenBackOrWasAnswered)
{
    Machine importer(server->Port());
    ASSERT_EQ(0, importer.Import("1-1"));
    importer.Put(Machine::Head(1, 1, true, 1, 8));
    importer.Put(Machine::Head(1, 2, true, 1, 8));
    importer.Put(Machine::Head(2, 3, false, 0, 1));
    Machine::Answer answer = importer.TakeAnswer(false);
    EXPECT_EQ(4u, answer.ulCommand);
    EXPECT_EQ(3u, answer.ulSequence);
    EXPECT_EQ(-104, answer.iStatus);
    Poke(0x04); // goes to the read that is left
    answer = importer.TakeAnswer(true);
    EXPECT_EQ(2u, answer.ulSequence);
    EXPECT_EQ(0x04, answer.Data.at(2));
    importer.Put(Machine::Head(2, 4, false, 0, 2));
    answer = importer.TakeAnswer(false);
    EXPECT_EQ(4u, answer.ulCommand);
    EXPECT_EQ(0, answer.iStatus);
}

TEST_F(UsbipTest, OneMachineAtATimeAndTheNextAfterIt)
{
    {
        Machine first(server->Port());
        ASSERT_EQ(0, first.Import("1-1"));
        Machine second(server->Port());
        EXPECT_EQ(1, second.Import("1-1"));
        EXPECT_EQ(1, second.Import("9-9"));
    }
    for (int i = 0; i < 100; i++) { // until the server has noticed
        Machine third(server->Port());
        if (third.Import("1-1") == 0) {
            break;
        }
        ASSERT_LT(i, 99);
        usleep(10000);
    }
    for (int i = 0; i < 100; i++) {
        Machine fourth(server->Port());
        if (fourth.Import("1-1") == 0) {
            fourth.Put(Machine::Head(1, 1, true, 1, 8));
            Poke(0x06);
            EXPECT_EQ(0x06, fourth.TakeAnswer(true).Data.at(2));
            return;
        }
        usleep(10000);
    }
    FAIL() << "the keyboard stays with a machine that is gone";
}

TEST_F(UsbipTest, ABadMachineLosesItsConnectionAndNobodyElseAnything)
{
    EmuBytes otherVersion = Machine::Operation(5), half = Machine::Operation(3);
    otherVersion[1] = 0x06;
    for (const EmuBytes& first : {EmuBytes{}, EmuBytes{1}, EmuBytes(64, 0xFF), otherVersion, half}) {
        Machine bad(server->Port());
        bad.Put(first);
        EXPECT_TRUE(bad.IsClosed());
    }
    EmuBytes packets = Machine::Head(1, 1, true, 1, 8);
    Machine::PutLong(packets, 32, 3);
    EmuBytes halfData = Machine::Head(1, 1, false, 0, 100, {0x21, 9, 0, 2, 0, 0, 100, 0});
    halfData.resize(60);
    EmuBytes halfHead = Machine::Head(1, 1, true, 1, 8);
    halfHead.resize(47);
    for (const EmuBytes& first : {Machine::Head(7, 1, true, 1, 8), Machine::Head(1, 1, true, 16, 8),
                                  Machine::Head(1, 1, true, 1, 0x10000), packets, halfData, halfHead}) {
        for (int i = 0;; i++) {
            Machine bad(server->Port());
            if (bad.Import("1-1") != 0) {
                ASSERT_LT(i, 100);
                usleep(10000);
                continue;
            }
            bad.Put(first);
            EXPECT_TRUE(bad.IsClosed());
            break;
        }
    }
    { // more reads than anyone has
        Machine bad(server->Port());
        for (int i = 0; i < 100 && bad.Import("1-1") != 0; i++) {
            usleep(10000);
        }
        for (uint32_t ul = 0; ul < 100; ul++) {
            bad.Put(Machine::Head(1, ul, true, 1, 8));
        }
        EXPECT_TRUE(bad.IsClosed());
    }
    usleep(100000);
    ExpectServed();
}

TEST_F(UsbipTest, AThousandConnectionsAreNothing)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; i++) {
        Machine passing(server->Port());
    }
    ExpectServed();
    EXPECT_GT(std::chrono::seconds(10), std::chrono::steady_clock::now() - begin);
}

TEST_F(UsbipTest, WhoTakesNoAnswersHoldsNobodyUp)
{
    Machine silent(server->Port());
    ASSERT_EQ(0, silent.Import("1-1"));
    for (uint32_t ul = 0; ul < 200000; ul++) { // each answer carries a descriptor that is never read
        silent.Put(Machine::Head(1, ul, true, 0, 255, {0x80, 6, 0, 2, 0, 0, 255, 0}));
    }
    Poke(0x04);
    usleep(100000);
    ExpectServed();
}

TEST_F(UsbipTest, AnAddressIsTakenAsItStandsOrRefused)
{
    EXPECT_FALSE(server->IsOpen());
    const std::string taken = "127.0.0.1:" + std::to_string(server->Port());
    for (const std::string& bad :
         {std::string("keyboard.example"), std::string("127.0.0.1:port"), std::string("[::1"), taken}) {
        EXPECT_THROW(usbip::Server{bad}, InputError) << bad;
    }
    EXPECT_TRUE(usbip::Server("0.0.0.0:0").IsOpen());
}
} // namespace
