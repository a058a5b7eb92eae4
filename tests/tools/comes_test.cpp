// comes_test.cpp - inputs that come while they are played, what recordings besides one file are made of, and what is
// told meanwhile: the program with pipes, growing files and a terminal around it.
#include "captures.h"
#include "program.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>

namespace
{

constexpr int PatienceMs = 20000;

// The program, running: what it is told and what it says.
class Running
{
public:
    // iTerminal: becomes its standard error; below 0: none does.
    Running(const std::vector<std::string>& arguments, int iTerminal = -1)
    {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            abort();
        m_iProcess = fork();
        if (m_iProcess == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            if (iTerminal >= 0)
                dup2(iTerminal, 2);
            std::vector<char*> words = {const_cast<char*>(TVUSB_PROGRAM)};
            for (const std::string& argument : arguments)
                words.push_back(const_cast<char*>(argument.c_str()));
            words.push_back(nullptr);
            execv(TVUSB_PROGRAM, words.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        m_iIn = in[1];
        m_iOut = out[0];
    }
    ~Running()
    {
        if (m_iProcess > 0)
            kill(m_iProcess, SIGKILL), End();
        close(m_iOut);
    }

    void Tell(const Bytes& bytes)
    {
        EXPECT_EQ(ssize_t(bytes.size()), write(m_iIn, bytes.data(), bytes.size()));
    }

    // All that it has said once this is among it; without it when it does not come.
    std::string SaysUpTo(const std::string& part)
    {
        while (m_said.find(part) == m_said.npos && Hear()) {
        }
        return m_said;
    }
    void Signal(int iSignal) { kill(m_iProcess, iSignal); }

    // Its exit status; nothing more is told.
    int End()
    {
        if (m_iIn >= 0)
            close(std::exchange(m_iIn, -1));
        while (Hear()) {
        }
        int iStatus = 0;
        waitpid(std::exchange(m_iProcess, 0), &iStatus, 0);
        return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
    }
    const std::string& Said() const { return m_said; }

private:
    bool Hear()
    {
        pollfd out{m_iOut, POLLIN, 0};
        char buffer[4096];
        ssize_t cNow = poll(&out, 1, PatienceMs) > 0 ? read(m_iOut, buffer, sizeof(buffer)) : 0;
        m_said.append(buffer, static_cast<size_t>(std::max<ssize_t>(cNow, 0)));
        return cNow > 0;
    }

    pid_t m_iProcess = 0;
    int m_iIn = -1, m_iOut = -1;
    std::string m_said;
};

// Two keyboards that come up one after the other: what is known of the second one comes long before its first report.
struct TwoKeyboards {
    UsbmonStory story;
    size_t cFirst,
        cSecond; // bytes of the file up to the first report, and up to the first one of the second keyboard
    Bytes file;

    TwoKeyboards()
    {
        story.Device(4).Enumerate(0x1111, 1, ConfigurationOf({{3, 1, 1}}));
        story.Device(5).At(1000).Enumerate(0x2222, 2, ConfigurationOf({{3, 0, 0, 4}}));
        cFirst = story.Device(4).At(50000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0}).File().size();
        story.At(90000).Report({0, 0, 0, 0, 0, 0, 0, 0});
        cSecond = story.Device(5).At(100000).Report({0xE9, 0}).File().size();
        file = story.Device(4).At(200000).Report({0, 0, 4, 0, 0, 0, 0, 0}).File();
    }
};

} // namespace

TEST_F(Program, PlaysWhatComesThroughAPipe)
{
    Write("f1.toml", "[[definition]]\nid = 7\nkeys = [\"ctrl+F1\"]\n");
    const TwoKeyboards two;
    const std::string config = Path("f1.toml");
    Write("two.pcap", {two.file.begin(), two.file.end()});

    Running live({"replay", "--json", "-", "--config", config});
    live.Tell({two.file.begin(),
               two.file.begin() + static_cast<ptrdiff_t>(two.cFirst) + 20}); // and a part of the next
    EXPECT_NE(std::string::npos, live.SaysUpTo(R"("id":7,"value":1)").find(R"("id":7,"value":1)"))
        << "at once";
    live.Tell({two.file.begin() + static_cast<ptrdiff_t>(two.cFirst) + 20,
               two.file.begin() + static_cast<ptrdiff_t>(two.cSecond)});
    const std::string late =
        R"({"type":"keyboard","t_us":100000,"kbd":1,"index":1,"kbdtype":2,"vendor":8738,"product":2,"name":""})";
    EXPECT_NE(std::string::npos, live.SaysUpTo(R"("in":"e900")").find(late)) << live.Said();
    live.Tell({two.file.begin() + static_cast<ptrdiff_t>(two.cSecond), two.file.end()});
    EXPECT_EQ(0, live.End());
    EXPECT_NE(std::string::npos, live.Said().find(R"("keyboards":2,"reports":4,"events":2,"leaks":0})"));

    // What is there at once is played as a file is; a table's line does not wait for the next one; a cut one is told.
    EXPECT_EQ(Run("replay --json two.pcap").out, Run("replay --json - <two.pcap").out);
    Running table({"replay", "-"});
    table.Tell({two.file.begin(), two.file.begin() + static_cast<ptrdiff_t>(two.cFirst)});
    EXPECT_NE(std::string::npos, table.SaysUpTo("LCtrl+F1").find("LCtrl+F1"));
    table.Tell({1, 2, 3});
    EXPECT_EQ(2, table.End());

    Running typed({"replay", "--json", "-"});
    typed.Tell(BytesOf("D: 0\nN: Desk\nD: 1\nN: Pad\nD: 0\nE: 1.0 3 01 04 00\nE: 1.1 3"));
    EXPECT_NE(std::string::npos, typed.SaysUpTo(R"("in":"010400")").find(R"("in":"010400")"));
    typed.Tell(BytesOf(" 01 00 00\nD: 1\nE: 1.2 8 00 00 05 00 00 00 00 00\n"));
    EXPECT_EQ(0, typed.End());
    EXPECT_NE(std::string::npos, typed.Said().find(R"("t_us":200000,"kbd":1,"in":"0000050000000000")"))
        << typed.Said();
}

TEST_F(Program, FollowsAFileThatGrows)
{
    const TwoKeyboards two;
    for (const char* pName : {"grows.pcap", "grows.hid"}) {
        const bool bCapture = strstr(pName, "pcap") != nullptr;
        const Bytes whole = bCapture ? two.file
                                     : BytesOf("D: 0\nE: 0.050000 8 01 00 3a 00 00 00 00 00\n"
                                               "E: 0.250000 8 00 00 04 00 00 00 00 00\n");
        const size_t cFirst = bCapture ? two.cFirst : 46;
        auto append = [&](size_t cFrom, size_t cTo) {
            std::ofstream(Path(pName), std::ios::app | std::ios::binary)
                .write(reinterpret_cast<const char*>(&whole[cFrom]),
                       static_cast<std::streamsize>(cTo - cFrom));
        };
        append(0, 30); // nothing yet
        Running follower({"replay", "--json", "--follow", Path(pName)});
        append(30, cFirst);
        EXPECT_NE(std::string::npos, follower.SaysUpTo("01003a").find("01003a")) << pName;
        append(cFirst, whole.size());
        EXPECT_NE(std::string::npos, follower.SaysUpTo("\"000004").find("\"000004")) << pName;
        follower.Signal(SIGINT);
        EXPECT_EQ(0, follower.End()) << pName;
        EXPECT_NE(std::string::npos, follower.Said().find(R"("type":"end")")) << follower.Said();
    }
}

// What a recording is made of besides one whole file of a keyboard.
TEST_F(Program, ReadsWhatPeopleRecord)
{
    const TwoKeyboards two;
    Write("desk.ioctl", "@DEV /dev/bus/usb/001/004\n");
    Write("desk.pcapng", {two.file.begin(), two.file.end()});
    Write("lone.umockdev", "P: /devices/pci0000:00/usb1\n");
    Write("packed.pcap", {two.file.begin(), two.file.end()});
    EXPECT_EQ(0, Run("--version; gzip -k packed.pcap").iStatus);
    auto bare = [&](const char* pName, const Bytes& report) {
        const Bytes file = UsbmonStory().Report(report).File();
        Write(pName, {file.begin(), file.end()});
    };
    bare("eight.pcap", {0, 0, 4, 0, 0, 0, 0, 0});
    bare("two.pcap", {0xE9, 0});
    bare("nine.pcap", Bytes(9, 1));
    UsbmonStory mouse;
    mouse.Enumerate(0x3333, 3, ConfigurationOf({{3, 1, 2, 4}}));
    const Bytes moved = mouse.At(9000).Report({0, 1, 1, 0}).File();
    Write("mouse.pcap", {moved.begin(), moved.end()});
    UsbmonStory desk;
    desk.Enumerate(0x3333, 3, ConfigurationOf({{3, 1, 1}})).Report(Bytes(9, 1)); // of two packets
    const Bytes nine = desk.File(), snapped = desk.FileOfSnapLength(74);
    Write("whole.pcap", {nine.begin(), nine.end()});
    Write("snapped.pcapng", {snapped.begin(), snapped.end()});
    // A snap length that cuts the descriptor of a hub, and no report.
    UsbmonRecord hub, key;
    hub.type = 'S';
    hub.ucTransfer = 2;
    hub.ucEndpoint = 0x80;
    hub.ucDevice = 1;
    hub.setup = {0x80, 6, 0, 2, 0, 0, 25, 0};
    TestRecord asked{0, hub.Encode(64)};
    hub.type = 'C';
    hub.setup.clear();
    hub.data = Bytes(25, 9);
    key.data = {0, 0, 4, 0, 0, 0, 0, 0};
    const Bytes cut = PcapngFile({{220, 72}}, {asked, {10, hub.Encode(64)}, {20, key.Encode(64)}});
    Write("cut.pcapng", {cut.begin(), cut.end()});
    const Bytes tooShort = PcapngFile({{220, 70}}, {{20, key.Encode(64)}});
    Write("short.pcapng", {tooShort.begin(), tooShort.end()});

    const struct {
        const char *pArguments, *pSaid; // among what is printed or told
        int iStatus;
    } cases[] = {
        {"desk.ioctl", R"("keyboards":2,"reports":4,)", 0},
        {"lone.umockdev", "lone.umockdev:1: a umockdev recording without a capture beside it", 2},
        {"packed.pcap.gz", R"("keyboards":2,"reports":4,)", 0},
        {"eight.pcap --keyboard guess", R"("kbdtype":1,)", 0},
        {"two.pcap --keyboard guess", R"("kbdtype":2,)", 0},
        {"nine.pcap --keyboard guess", R"("kbdtype":5,)", 0},
        {"eight.pcap", "--keyboard KIND or --keyboard guess", 0},
        {"mouse.pcap", R"("kbd":0,"text":"this is a mouse"})", 0},
        {"cut.pcapng", R"("in":"0000040000000000")", 0},
        {"whole.pcap", R"("in":"010101010101010101","out":"010101010101010101"})", 0},
        {"whole.pcap --keyboard power", "--keyboard is used for no keyboard: the input tells what", 0},
        {"snapped.pcapng", "a snap length cut its descriptors, so the driver does not learn", 0},
        {"short.pcapng", "short.pcapng: packet 1: truncated: a snap length cut the report", 2},
    };
    for (const auto& c : cases) {
        RunOutcome outcome = Run("replay --json " + std::string(c.pArguments));
        EXPECT_EQ(c.iStatus, outcome.iStatus) << c.pArguments << outcome.err;
        EXPECT_NE(std::string::npos, (outcome.out + outcome.err).find(c.pSaid))
            << c.pArguments << outcome.out;
    }
}

// On a terminal a line tells how far it is, and goes at the end; what is printed stays clean of it.
TEST_F(Program, TellsOnATerminalHowFarItIs)
{
    std::string text = "D: 0\n";
    char line[64];
    for (int i = 0; i < 150000; ++i) {
        snprintf(line, sizeof(line), "E: %d.%06d 8 00 00 %02x 00 00 00 00 00\n", i / 100, i % 100 * 10000,
                 i % 2 * 4);
        text += line;
    }
    Write("long.hid", text);
    const int iTerminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    ASSERT_TRUE(iTerminal >= 0 && grantpt(iTerminal) == 0 && unlockpt(iTerminal) == 0);
    const int iOther = open(ptsname(iTerminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    Running player({"replay", "--json", Path("long.hid")}, iOther);
    EXPECT_EQ(0, player.End());
    close(iOther);
    std::string shown;
    char buffer[4096];
    for (ssize_t cNow; (cNow = read(iTerminal, buffer, sizeof(buffer))) > 0;)
        shown.append(buffer, static_cast<size_t>(cNow));
    close(iTerminal);
    unsigned uReports = 0;
    EXPECT_EQ(1, sscanf(shown.c_str(), "\r%u reports, 0 events, ", &uReports)) << shown;
    EXPECT_LT(uReports, 150000u);
    EXPECT_EQ(shown.size() - 4, shown.rfind("\r\x1b[K")) << "it goes";
    EXPECT_EQ(std::string::npos, player.Said().find('\r'));
}
