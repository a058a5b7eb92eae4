// usbip_test.cpp - machines that attach a keyboard over USB/IP: one that keeps to the protocol, and others.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "emu/app/application.h"
#include "tools/common/failure.h"
#include "tools/live/usbip/offer.h"
#include "tools/live/usbip/server.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
constexpr int PatienceMs = 300;

// A machine's connection.
class Machine
{
public:
    explicit Machine(uint16_t usPort) : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(usPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(m_iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    ~Machine() { close(m_iSocket); }

    void Put(const EmuBytes& bytes) { (void)!send(m_iSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // So many bytes, or fewer when the server ends the connection or says nothing for so long.
    EmuBytes Take(size_t bytes, int iWithinMs = 3000)
    {
        EmuBytes taken(bytes);
        size_t done = 0;
        pollfd wait = {m_iSocket, POLLIN, 0};
        while (done < bytes && poll(&wait, 1, iWithinMs) > 0) {
            ssize_t got = recv(m_iSocket, taken.data() + done, bytes - done, 0);
            if (got <= 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        taken.resize(done);
        return taken;
    }

    bool IsClosed(int iWithinMs = 3000)
    {
        pollfd wait = {m_iSocket, POLLIN, 0};
        char c;
        return poll(&wait, 1, iWithinMs) > 0 && recv(m_iSocket, &c, 1, 0) <= 0;
    }

    static EmuBytes Operation(uint8_t ucWhat) { return {0x01, 0x11, 0x80, ucWhat, 0, 0, 0, 0}; }

    // The status of the answer to an import; its device record is taken, too.
    int Import(const std::string& bus)
    {
        EmuBytes request = Operation(3);
        request.insert(request.end(), bus.begin(), bus.end());
        request.resize(40);
        Put(request);
        EmuBytes answer = Take(8);
        if (answer.size() != 8 || answer[3] != 3) {
            return -1;
        }
        return answer[7] != 0 ? answer[7] : Take(312).size() == 312 ? 0 : -2;
    }

    static void PutLong(EmuBytes& to, size_t at, uint32_t ulValue)
    {
        for (int i = 0; i < 4; i++) {
            to[at + i] = static_cast<UCHAR>(ulValue >> (24 - 8 * i));
        }
    }
    static uint32_t LongAt(const EmuBytes& from, size_t at)
    {
        return from.at(at) << 24 | from.at(at + 1) << 16 | from.at(at + 2) << 8 | from.at(at + 3);
    }

    static EmuBytes Head(uint32_t ulCommand, uint32_t ulSequence, bool bIn, uint32_t ulEndpoint,
                         uint32_t ulBytes, const EmuBytes& setup = EmuBytes(8))
    {
        EmuBytes head(48);
        PutLong(head, 0, ulCommand);
        PutLong(head, 4, ulSequence);
        PutLong(head, 12, bIn);
        PutLong(head, 16, ulEndpoint);
        PutLong(head, 20, ulCommand == 2 ? ulBytes : 0);
        PutLong(head, 24, ulCommand == 2 ? 0 : ulBytes);
        std::copy(setup.begin(), setup.end(), head.begin() + 40);
        return head;
    }

    // An answer: command, sequence, status, and the data behind it.
    struct Answer {
        uint32_t ulCommand = 0, ulSequence = 0;
        int iStatus = 0;
        EmuBytes Data;
    };
    Answer TakeAnswer(bool bIn)
    {
        EmuBytes head = Take(48);
        if (head.size() != 48) {
            ADD_FAILURE() << "no answer";
            return {};
        }
        Answer answer = {LongAt(head, 0), LongAt(head, 4), static_cast<int>(LongAt(head, 20)), {}};
        answer.Data = Take(bIn && answer.ulCommand == 3 ? LongAt(head, 24) : 0);
        return answer;
    }
    Answer Control(uint32_t ulSequence, const EmuBytes& setup, const EmuBytes& out = {})
    {
        bool bIn = setup[0] & 0x80;
        EmuBytes request = Head(1, ulSequence, bIn, 0, setup[6], setup);
        request.insert(request.end(), out.begin(), out.end());
        Put(request);
        return TakeAnswer(bIn);
    }

private:
    int m_iSocket;
};

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
            if (usbip::Server* p = pServer; p && NT_SUCCESS(received.Status)) {
                p->Input(0, 1, received.Bytes);
            }
        };
        plug.OnLed = [this](const EmuBytes& report) { ulLeds = report[0]; };
        pKeyboard = machine.Plug(EmuBootKeyboard, plug);
        std::vector<std::unique_ptr<usbip::Export>> exports;
        exports.push_back(usbip::Offer("1-1", EmuBootKeyboard, *pKeyboard));
        server = std::make_unique<usbip::Server>("127.0.0.1:0", std::move(exports), PatienceMs);
        pServer = server.get();
    }
    ~UsbipTest() override
    {
        pKeyboard->Unplug(true);
        pServer = nullptr;
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
    std::atomic<usbip::Server*> pServer{nullptr};
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
        EXPECT_THROW(usbip::Server(bad, {}), InputError) << bad;
    }
    EXPECT_TRUE(usbip::Server("0.0.0.0:0", {}).IsOpen());
}
} // namespace
