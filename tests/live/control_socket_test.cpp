// control_socket_test.cpp - processes at the control socket: good ones, bad ones, those that die.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "client/client.h"
#include "client/frames.h"
#include "client/socket_transport.h"
#include "tools/common/failure.h"
#include "tools/live/emulated.h"
#include "tools/live/server.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
using namespace tvusb;

constexpr int PatienceMs = 300;
const EmuBytes Released = {1, 0, 0, 0, 0, 0, 0, 0}, F1 = {1, 0, 0x3A, 0, 0, 0, 0, 0};

// Keeps what the system above the driver gets to see.
class Reports : public ReplayPrinter
{
public:
    void Keyboard(uint64_t, unsigned, uint32_t, unsigned, const ScriptKeyboard& keyboard) override
    {
        m_Keyboard = keyboard;
    }
    void Definition(uint64_t, unsigned, uint32_t, uint32_t, const std::string&) override {}
    void Report(uint64_t, unsigned, const std::optional<EmuBytes>&, const EmuBytes& seen) override
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Last = seen;
    }
    void Event(uint64_t, unsigned, const NotifyRecord&) override {}
    void Macro(uint64_t, const MacroRecord&) override {}
    void Led(uint64_t, unsigned, uint8_t) override {}
    void End(uint64_t, const ReplayTotals&) override {}

    EmuBytes Last()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_Last;
    }

    ScriptKeyboard m_Keyboard;

private:
    std::mutex m_Lock;
    EmuBytes m_Last;
};

template <class Condition> bool Until(Condition condition)
{
    for (int i = 0; i < 500 && !condition(); i++) {
        usleep(10000);
    }
    return condition();
}

KeyDefinition Hotkey(uint32_t ulId, bool bSwallow = true)
{
    return MakeHotkey(ulId, MODIFIER_ANY_CONTROL, {0x3B}, bSwallow);
}

class ControlSocket : public testing::Test
{
protected:
    ControlSocket()
        : m_Machine({DriverEntry, {}, &m_Reports}),
          m_Keyboard(
              std::make_unique<EmulatedKeyboard>(m_Machine, EmuBootKeyboard, WhoIs(EmuBootKeyboard, "")))
    {
        char folder[] = "/tmp/tvusb-XXXXXX";
        m_Folder = mkdtemp(folder);
        m_Path = m_Folder + "/control";
        m_Server = std::make_unique<ControlServer>(m_Path, PatienceMs);
    }

    ~ControlSocket() override
    {
        m_Server.reset();
        m_Keyboard.reset();
        EXPECT_EQ(0u, m_Machine.End());
        unlink(m_Path.c_str());
        EXPECT_EQ(0, rmdir(m_Folder.c_str()));
    }

    int Connect() const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, m_Path.c_str());
        int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        return iSocket;
    }

    // What the system sees of F1 while Control is held.
    EmuBytes SeenOfF1()
    {
        m_Machine.Report(0, F1);
        EmuBytes seen = m_Reports.Last();
        m_Machine.Report(0, {0, 0, 0, 0, 0, 0, 0, 0});
        return seen;
    }

    Reports m_Reports;
    LiveMachine m_Machine;
    std::unique_ptr<EmulatedKeyboard> m_Keyboard;
    std::string m_Folder, m_Path;
    std::unique_ptr<ControlServer> m_Server;
};

// Closes without a word, as a process that dies.
bool IsThrownOut(int iSocket)
{
    pollfd wait = {iSocket, POLLIN, 0};
    uint8_t aucAnswer[256];
    ssize_t got = 1;
    while (got > 0 && poll(&wait, 1, 10 * PatienceMs) == 1) {
        got = recv(iSocket, aucAnswer, sizeof(aucAnswer), 0); // answers before that are none of ours
    }
    close(iSocket);
    return got <= 0;
}

std::vector<uint8_t> BytesOfFrame(const Frame& frame, size_t bytes = sizeof(Frame))
{
    const auto* pFrame = reinterpret_cast<const uint8_t*>(&frame);
    std::vector<uint8_t> all(pFrame, pFrame + sizeof(frame));
    all.resize(bytes);
    return all;
}

TEST_F(ControlSocket, ProcessesOfBothSizesDefineListenAndClose)
{
    for (bool b32 : {false, true}) {
        Driver driver(SocketTransport(m_Path, b32));
        ASSERT_TRUE(driver.Open().Ok());
        EXPECT_EQ(0x00010300u, *driver.GetVersion());
        EXPECT_EQ(1u, driver.ListNames()->size());
        Result<Keyboard> keyboard = driver.FindByName(driver.ListNames()->at(0));
        ASSERT_TRUE(keyboard) << keyboard.Error().Text();
        ASSERT_TRUE(keyboard->AddDefinition(Hotkey(7)).Ok());
        auto listener = keyboard->Events().Listen();
        ASSERT_TRUE(listener);
        ASSERT_TRUE(keyboard->StartProcessing().Ok());
        std::thread typist([&] { m_Machine.Report(0, F1); });
        auto records = listener->Wait(5000);
        typist.join();
        ASSERT_TRUE(records);
        ASSERT_EQ(1u, records->size());
        EXPECT_EQ(7u, records->at(0).ulId);
        EXPECT_EQ(EmuBytes(8), m_Reports.Last()) << "swallowed";
        m_Machine.Report(0, {0, 0, 0, 0, 0, 0, 0, 0});
        EXPECT_EQ(1u, listener->Wait(5000)->size());
        EXPECT_EQ(Status::Timeout, listener->Wait(20).Error().Value()) << "no event comes twice";
        listener->Stop();
        driver.Close();
        ASSERT_TRUE(Until([&] { return m_Server->Peers() == 0; }));
        EXPECT_EQ(F1, SeenOfF1()) << "the last close drops the definition";
    }
}

TEST_F(ControlSocket, AProcessThatDiesIsClosedAndItsWaitsEnd)
{
    Driver living(SocketTransport(m_Path));
    ASSERT_TRUE(living.Open().Ok());
    int iDying = Connect();
    auto say = [&](FrameKind kind, uint32_t ulValue, uint32_t ulMore) {
        auto bytes = BytesOfFrame({0, kind, 1, ulValue, ulMore});
        ASSERT_EQ(ssize_t(bytes.size()), send(iDying, bytes.data(), bytes.size(), 0));
    };
    say(FrameKind::Open, FRAME_VERSION, 0);
    say(FrameKind::NewEvent, 0, 0);
    say(FrameKind::WaitEvent, 4, WAIT_FOREVER);
    usleep(50000);
    EXPECT_EQ(2u, m_Server->Peers());
    close(iDying);
    EXPECT_TRUE(Until([&] { return m_Server->Peers() == 1; }));
    EXPECT_TRUE(living.GetVersion().Ok());
}

TEST_F(ControlSocket, ABadPeerLosesItsConnectionAndNobodyElseAnything)
{
    Driver good(SocketTransport(m_Path));
    ASSERT_TRUE(good.Open().Ok());
    const Frame open = {0, FrameKind::Open, 0, FRAME_VERSION, 0};
    auto after = [&](const Frame& frame, size_t bytes = sizeof(Frame)) {
        std::vector<uint8_t> all = BytesOfFrame(open), more = BytesOfFrame(frame, bytes);
        all.insert(all.end(), more.begin(), more.end());
        return all;
    };
    const std::pair<const char*, std::vector<uint8_t>> rows[] = {
        {"silence", {}},
        {"rubbish", std::vector<uint8_t>(64, 0xA5)},
        {"half a head", BytesOfFrame(open, 7)},
        {"another version", BytesOfFrame({0, FrameKind::Open, 0, FRAME_VERSION + 1, 0})},
        {"no size of a process", BytesOfFrame({0, FrameKind::Open, 0, FRAME_VERSION, 2})},
        {"a request before Open", BytesOfFrame({0, FrameKind::Control, 0, IOCTL_TVUSB_GET_VERSION, 4})},
        {"Open twice", after(open)},
        {"an answer", after({0, FrameKind::Answer, 0, 0, 0})},
        {"half a head after Open", after(open, 3)},
        {"half a body", after({100, FrameKind::Control, 0, IOCTL_TVUSB_GET_VERSION, 4}, sizeof(Frame) + 50)},
        {"a body without bounds", after({FRAME_MOST + 1, FrameKind::Control, 0, IOCTL_TVUSB_GET_VERSION, 4})},
        {"an answer without bounds",
         after({0, FrameKind::Control, 0, IOCTL_TVUSB_GET_VERSION, FRAME_MOST + 1})},
    };
    for (const auto& [name, bytes] : rows) {
        int iSocket = Connect();
        ASSERT_EQ(ssize_t(bytes.size()), send(iSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL)) << name;
        EXPECT_TRUE(IsThrownOut(iSocket)) << name;
        EXPECT_TRUE(good.GetVersion().Ok()) << name;
    }
    for (int i = 0; i < 1000; i++) {
        close(Connect());
    }
    EXPECT_TRUE(Until([&] { return m_Server->Peers() == 1; }));
    EXPECT_TRUE(good.GetVersion().Ok());
}

TEST_F(ControlSocket, EventsOfOthersAreNone)
{
    auto transport = SocketTransport(m_Path), other = SocketTransport(m_Path);
    ASSERT_EQ(Status::Success, transport->Open());
    ASSERT_EQ(Status::Success, other->Open());
    uint64_t hOwn = 0;
    for (int i = 0; i < 3; i++) {
        hOwn = transport->NewEvent();
    }
    EXPECT_NE(0u, other->NewEvent());
    auto enlist = [](Transport& way, uint64_t hEvent) {
        ControlRequest64 request = {};
        request.hEvent = hEvent;
        uint32_t ulReported;
        return way.Send(IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, &request, sizeof(request), nullptr, 0,
                        &ulReported);
    };
    EXPECT_FALSE(Status(enlist(*other, hOwn)).Ok());
    EXPECT_EQ(Status::InvalidHandle, other->WaitEvent(hOwn, 0));
    EXPECT_EQ(Status::Success, enlist(*transport, hOwn));
    EXPECT_EQ(Status::Timeout, transport->WaitEvent(hOwn, 10));
}

TEST_F(ControlSocket, AProcessHasTheConfigurationReadAnew)
{
    std::string words;
    EXPECT_EQ(Status::Disconnected, SocketTransport(m_Path)->Reload(&words)) << "nobody has one";
    bool bAll = true;
    m_Server.reset();
    EXPECT_EQ(Status::NameNotFound, SocketTransport(m_Path)->Reload(&words));
    m_Server = std::make_unique<ControlServer>(m_Path, PatienceMs, [&](std::string* pWords) {
        *pWords = "1 added";
        return bAll;
    });
    EXPECT_EQ(Status::Success, SocketTransport(m_Path)->Reload(&words));
    EXPECT_EQ("1 added", words);
    bAll = false;
    EXPECT_EQ(Status::InvalidParameter, SocketTransport(m_Path)->Reload(&words));
}

TEST_F(ControlSocket, AServerThatEndsEndsEveryCall)
{
    auto transport = SocketTransport(m_Path);
    ASSERT_EQ(Status::Success, transport->Open());
    uint64_t hEvent = transport->NewEvent();
    uint32_t ulEnd = 0;
    std::thread waiter([&] { ulEnd = transport->WaitEvent(hEvent, WAIT_FOREVER); });
    usleep(50000);
    m_Server.reset();
    waiter.join();
    EXPECT_TRUE(ulEnd == Status::Disconnected || ulEnd == Status::Cancelled) << ulEnd;
    EXPECT_EQ(Status::Disconnected, transport->WaitEvent(hEvent, 0));
    EXPECT_EQ(Status::NameNotFound, transport->Open());
}

TEST_F(ControlSocket, ThePathIsTakenCarefully)
{
    struct stat there;
    ASSERT_EQ(0, stat(m_Path.c_str(), &there));
    EXPECT_EQ(0600u, there.st_mode & 0777);
    EXPECT_THROW(ControlServer(m_Path, PatienceMs), InputError) << "served";
    EXPECT_THROW(ControlServer(std::string(200, 'x'), PatienceMs), InputError);
    EXPECT_THROW(ControlServer(m_Folder + "/none/control", PatienceMs), InputError);
    Driver driver(SocketTransport(m_Path));
    EXPECT_TRUE(driver.Open().Ok()) << "the first server still serves";
    driver.Close();

    std::string other = m_Folder + "/other";
    std::ofstream(other) << "precious";
    EXPECT_THROW(ControlServer(other, PatienceMs), InputError) << "no socket";
    std::string content;
    std::ifstream(other) >> content;
    EXPECT_EQ("precious", content);
    unlink(other.c_str());

    int iStale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, other.c_str());
    ASSERT_EQ(0, bind(iStale, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    close(iStale);
    {
        ControlServer replaced(other, PatienceMs);
    }
    EXPECT_NE(0, access(other.c_str(), F_OK)) << "the socket goes with its server";
}

TEST_F(ControlSocket, AWatchTellsWhichKeyboardItIs)
{
    EXPECT_EQ(0x7A3C, m_Reports.m_Keyboard.usVendor);
    EXPECT_EQ(0x0101, m_Reports.m_Keyboard.usProduct);
}

TEST_F(ControlSocket, AChangedConfigurationIsTakenOverAsADifference)
{
    auto expect = [&](const std::vector<KeyDefinition>& definitions, unsigned uAdded, unsigned uRemoved,
                      unsigned uKept, const EmuBytes& seen) {
        Taken taken = m_Machine.TakeOver(definitions);
        EXPECT_TRUE(taken.refused.empty()) << taken.refused[0];
        EXPECT_EQ(uAdded, taken.uAdded);
        EXPECT_EQ(uRemoved, taken.uRemoved);
        EXPECT_EQ(uKept, taken.uKept);
        EXPECT_EQ(seen, SeenOfF1());
    };
    const EmuBytes swallowed = {0, 0, 0, 0, 0, 0, 0, 0};
    expect({Hotkey(7)}, 1, 0, 0, swallowed);
    expect({Hotkey(7), MakeHotkey(8, MODIFIER_ANY_CONTROL, {0x3C}, false)}, 1, 0, 1, swallowed);
    expect({Hotkey(7, false)}, 1, 2, 0, F1);
    expect({MakeHotkey(7, MODIFIER_ANY_CONTROL, {0x3C}, true)}, 1, 1, 0, F1);
    expect({}, 0, 1, 0, F1);
}
} // namespace
